#pragma once

#include <bit>
#include <cstddef>
#include <cstring>

#include "Kel/Types.h"

namespace Vorpa {

// Fletcher-style checksum over 64-bit words, run in four independent lanes so
// that neighbouring words do not wait on each other's additions. The second sum
// of each lane makes it sensitive to word order, so a changed, zeroed or moved
// word changes the result. It guards against corruption, not against an
// adversary.
inline Kel::U64 checksum(const void* data, std::size_t size, Kel::U64 seed) {
   Kel::U64 a[4] = {seed, seed ^ 0x9e3779b97f4a7c15ULL, seed ^ 0xc2b2ae3d27d4eb4fULL,
                    seed ^ 0x165667b19e3779f9ULL};
   Kel::U64 b[4] = {0, 0, 0, 0};
   const auto* p = static_cast<const unsigned char*>(data);
   const std::size_t words = size / 8;
   std::size_t i = 0;
   for (; i + 4 <= words; i += 4) {
      for (int lane = 0; lane < 4; ++lane) {
         Kel::U64 w;
         std::memcpy(&w, p + 8 * (i + lane), 8);
         a[lane] += w;
         b[lane] += a[lane];
      }
   }
   for (; i < words; ++i) {
      Kel::U64 w;
      std::memcpy(&w, p + 8 * i, 8);
      a[0] += w;
      b[0] += a[0];
   }
   if (const std::size_t tail = size % 8) {
      Kel::U64 w = 0;
      std::memcpy(&w, p + 8 * words, tail);
      a[1] += w;
      b[1] += a[1];
   }
   Kel::U64 h = size;
   for (int lane = 0; lane < 4; ++lane) {
      h = std::rotl(h, 23) ^ a[lane];
      h = std::rotl(h, 41) ^ b[lane];
   }
   return h;
}

}  // namespace Vorpa
