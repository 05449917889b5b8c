#pragma once

#include <concepts>
#include <cstddef>
#include <functional>
#include <type_traits>
#include <utility>

#include "Vorpa/Fingerprint.h"
#include "Vorpa/Layout.h"

// How a table's keys and values sit in its slots, shared by the writer
// (Table) and readers (TableReader).
namespace Vorpa {

// Keys and values are copied byte-wise into shared memory and read back by
// other processes.
template <class T>
concept SharedValue = std::is_trivially_copyable_v<T> && std::is_default_constructible_v<T>;

template <class K>
concept SharedKey = SharedValue<K> && std::equality_comparable<K> && requires(const K& k) {
   { std::hash<K>{}(k) } -> std::convertible_to<std::size_t>;
};

// A value that holds its own key (value.key()) is stored alone; any other
// value is stored after a copy of its key. Either way a slot holds one
// object, so that a reader copies and checks it in one pass.
template <class Key, class Value>
concept CarriesKey = requires(const Value& v) {
   { v.key() } -> std::same_as<const Key&>;
};

template <class Key, class Value>
struct KeyAndValue {
   Key key;
   Value value;
};

template <class Key, class Value>
struct StoredLayout {
   static constexpr bool valueIsStored = CarriesKey<Key, Value>;
   using Stored = std::conditional_t<valueIsStored, Value, KeyAndValue<Key, Value>>;

   static const Key& keyOf(const Stored& s) {
      if constexpr (valueIsStored) {
         return s.key();
      } else {
         return s.key;
      }
   }
   static const Value& valueOf(const Stored& s) {
      if constexpr (valueIsStored) {
         return s;
      } else {
         return s.value;
      }
   }
   static Value& valueOf(Stored& s) { return const_cast<Value&>(valueOf(std::as_const(s))); }

   // Where the value starts within the stored object.
   static std::size_t valueOffset() {
      static const std::size_t offset = [] {
         const Stored s{};
         return static_cast<std::size_t>(reinterpret_cast<const std::byte*>(&valueOf(s)) -
                                         reinterpret_cast<const std::byte*>(&s));
      }();
      return offset;
   }
};

// A type read from another process's memory may say what a valid value is
// (lengths within their arrays, indices within range) through vorpaValid();
// readers refuse a value that fails it as corrupt.
template <class T>
bool sharedValid(const T& v) {
   if constexpr (requires {
                    { v.vorpaValid() } -> std::same_as<bool>;
                 }) {
      return v.vorpaValid();
   } else {
      return true;
   }
}

// The key's hash spread over all 64 bits, so that the top bits pick the slot.
template <class Key>
Kel::U64 keyHash(const Key& key) {
   return static_cast<Kel::U64>(std::hash<Key>{}(key)) * 0x9e3779b97f4a7c15ULL;
}

inline Kel::U32 homeSlot(Kel::U64 hash, const Geometry& g) {
   return static_cast<Kel::U32>(hash >> 32) & (g.slotCount - 1);
}

template <class Key, class Value>
TableShape tableShape() {
   using Stored = typename StoredLayout<Key, Value>::Stored;
   return TableShape{typeFingerprint<Key, Value>(), TypeShape{sizeof(Key), alignof(Key)},
                     TypeShape{sizeof(Stored), alignof(Stored)}};
}

}  // namespace Vorpa
