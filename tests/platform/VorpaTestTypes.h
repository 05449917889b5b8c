#pragma once

#include <algorithm>
#include <array>
#include <functional>
#include <optional>
#include <string>

#include "Kel/Types.h"
#include "Vorpa/Error.h"
#include "Vorpa/TableReader.h"

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
      Value v{version, version * version, {}};
      v.filler.fill(~version);
      return v;
   }
   bool intact() const {
      return square == version * version &&
             std::ranges::all_of(filler, [&](Kel::U64 f) { return f == ~version; });
   }
   bool operator==(const Value&) const = default;
};

}  // namespace VorpaTest

template <>
struct std::hash<VorpaTest::Key> {
   std::size_t operator()(const VorpaTest::Key& k) const noexcept { return k.bucket; }
};

namespace VorpaTest {

using Table = Vorpa::Table<Key, Value>;
using Reader = Vorpa::TableReader<Key, Value>;

// The problem `f` (a mount or a create) throws; nullopt when it throws none.
inline std::optional<Vorpa::MountProblem> problemOf(const std::function<void()>& f) {
   try {
      f();
      return std::nullopt;
   } catch (const Vorpa::MountError& e) {
      return e.problem();
   }
}

inline std::optional<Vorpa::MountProblem> mountProblem(const std::string& name) {
   return problemOf([&] { Reader::mount(name); });
}

}  // namespace VorpaTest
