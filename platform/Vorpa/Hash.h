#pragma once

#include <cstring>
#include <string_view>

#include "Kel/Types.h"

namespace Vorpa {

constexpr Kel::U64 fnv1a(std::string_view text, Kel::U64 hash = 0xcbf29ce484222325ULL) {
   for (const char c : text) {
      hash = (hash ^ static_cast<unsigned char>(c)) * 0x100000001b3ULL;
   }
   return hash;
}

// Hashes `words` 64-bit words at `data`, for keys that keep their bytes in
// fixed arrays. Each word is multiplied on its own and folded in with a
// rotation and an addition, so the multiplications overlap instead of
// waiting on each other; a final mix spreads every bit over the result.
inline Kel::U64 hashWords(const void* data, std::size_t words, Kel::U64 hash) {
   const auto* p = static_cast<const unsigned char*>(data);
   for (std::size_t i = 0; i < words; ++i) {
      Kel::U64 w;
      std::memcpy(&w, p + 8 * i, sizeof w);
      hash = (hash << 31 | hash >> 33) + w * 0x9e3779b97f4a7c15ULL;
   }
   hash ^= hash >> 29;
   hash *= 0xbf58476d1ce4e5b9ULL;
   return hash ^ hash >> 32;
}

}  // namespace Vorpa
