#pragma once

#include <bit>
#include <cstddef>
#include <cstring>

#include "Kel/Types.h"

namespace Vorpa {

// Fletcher-style checksum over 64-bit words in four lanes, kept as two pairs
// of 64-bit vector lanes so that the compiler uses SIMD additions. The second
// sum of each lane makes it sensitive to word order, so a changed, zeroed or
// moved word changes the result. It guards against corruption, not against an
// adversary.
inline Kel::U64 checksum(const void* data, std::size_t size, Kel::U64 seed) {
   using Pair = Kel::U64 __attribute__((vector_size(16)));
   Pair a0 = {seed, seed ^ 0x9e3779b97f4a7c15ULL};
   Pair a1 = {seed ^ 0xc2b2ae3d27d4eb4fULL, seed ^ 0x165667b19e3779f9ULL};
   Pair b0 = {0, 0};
   Pair b1 = {0, 0};
   const auto add = [&](const unsigned char* p) {
      Pair w0;
      Pair w1;
      std::memcpy(&w0, p, sizeof w0);
      std::memcpy(&w1, p + sizeof w0, sizeof w1);
      a0 += w0;
      b0 += a0;
      a1 += w1;
      b1 += a1;
   };
   constexpr std::size_t block = 2 * sizeof(Pair);
   const auto* p = static_cast<const unsigned char*>(data);
   const std::size_t blocks = size / block;
   for (std::size_t i = 0; i < blocks; ++i, p += block) {
      add(p);
   }
   unsigned char tail[block] = {};
   std::memcpy(tail, p, size % block);
   add(tail);
   Kel::U64 h = size;
   for (const Kel::U64 lane : {a0[0], b0[0], a0[1], b0[1], a1[0], b1[0], a1[1], b1[1]}) {
      h = std::rotl(h, 23) ^ lane;
   }
   return h;
}

}  // namespace Vorpa
