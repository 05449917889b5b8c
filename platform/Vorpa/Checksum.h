#pragma once

#include <bit>
#include <cstddef>
#include <cstring>

#include "Kel/Types.h"

namespace Vorpa {

namespace detail {

// Fletcher-style sums over 64-bit words in four lanes, kept as two pairs of
// 64-bit vector lanes so that the compiler uses SIMD additions. The second
// sum of each lane makes the result sensitive to word order, so a changed,
// zeroed or moved word changes it. It guards against corruption, not against
// an adversary.
class ChecksumLanes {
 public:
   using Pair = Kel::U64 __attribute__((vector_size(16)));
   static constexpr std::size_t block = 2 * sizeof(Pair);

   explicit ChecksumLanes(Kel::U64 seed)
       : a0_{seed, seed ^ 0x9e3779b97f4a7c15ULL},
         a1_{seed ^ 0xc2b2ae3d27d4eb4fULL, seed ^ 0x165667b19e3779f9ULL} {}

   // Adds one block at `from`, copying it to `to` unless that is null.
   void add(const unsigned char* from, unsigned char* to) {
      Pair w0;
      Pair w1;
      std::memcpy(&w0, from, sizeof w0);
      std::memcpy(&w1, from + sizeof w0, sizeof w1);
      if (to) {
         std::memcpy(to, &w0, sizeof w0);
         std::memcpy(to + sizeof w0, &w1, sizeof w1);
      }
      a0_ += w0;
      b0_ += a0_;
      a1_ += w1;
      b1_ += a1_;
   }

   Kel::U64 run(const void* data, void* copy, std::size_t size) {
      const auto* from = static_cast<const unsigned char*>(data);
      auto* to = static_cast<unsigned char*>(copy);
      for (std::size_t i = 0; i < size / block; ++i) {
         add(from + i * block, to ? to + i * block : nullptr);
      }
      const std::size_t done = size - size % block;
      unsigned char tail[block] = {};
      std::memcpy(tail, from + done, size % block);
      if (to) {
         std::memcpy(to + done, tail, size % block);
      }
      add(tail, nullptr);
      Kel::U64 h = size;
      for (const Kel::U64 lane : {a0_[0], b0_[0], a0_[1], b0_[1], a1_[0], b1_[0], a1_[1], b1_[1]}) {
         h = std::rotl(h, 23) ^ lane;
      }
      return h;
   }

 private:
   Pair a0_;
   Pair a1_;
   Pair b0_ = {0, 0};
   Pair b1_ = {0, 0};
};

}  // namespace detail

inline Kel::U64 checksum(const void* data, std::size_t size, Kel::U64 seed) {
   return detail::ChecksumLanes(seed).run(data, nullptr, size);
}

// Copies `size` bytes and returns checksum() of them, reading each byte once:
// what a reader of a slot checks is exactly what it copied.
inline Kel::U64 checksumCopy(void* to, const void* from, std::size_t size, Kel::U64 seed) {
   return detail::ChecksumLanes(seed).run(from, to, size);
}

}  // namespace Vorpa
