#pragma once

#include <array>
#include <functional>

#include "Kel/Types.h"

namespace VorpaTest {

// A key whose hash is its bucket, so that tests choose which keys collide.
struct Key {
   Kel::U32 id = 0;
   Kel::U32 bucket = 0;
   bool operator==(const Key&) const = default;
};

// A value whose fields all derive from `version`, so that a copy mixing two
// writes breaks the relation (intact() is false).
struct Value {
   Kel::U64 version = 0;
   Kel::U64 square = 0;
   std::array<Kel::U64, 100> filler{};

   static Value of(Kel::U64 version) {
      Value v;
      v.version = version;
      v.square = version * version;
      v.filler.fill(~version);
      return v;
   }
   bool intact() const {
      if (square != version * version) {
         return false;
      }
      for (const Kel::U64 f : filler) {
         if (f != ~version) {
            return false;
         }
      }
      return true;
   }
   bool operator==(const Value&) const = default;
};

}  // namespace VorpaTest

template <>
struct std::hash<VorpaTest::Key> {
   std::size_t operator()(const VorpaTest::Key& k) const noexcept { return k.bucket; }
};
