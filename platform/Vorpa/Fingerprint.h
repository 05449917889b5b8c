#pragma once

#include <string_view>

#include "Kel/Types.h"
#include "Vorpa/Hash.h"

namespace Vorpa {

namespace detail {

// The compiler's text for the instantiation names T fully, namespaces included.
template <class T>
constexpr std::string_view typeSignature() {
   return __PRETTY_FUNCTION__;
}

template <class T>
constexpr Kel::U64 typeFingerprint(Kel::U64 hash) {
   hash = fnv1a(typeSignature<T>(), hash);
   return (hash ^ sizeof(T)) * 0x100000001b3ULL ^ alignof(T);
}

}  // namespace detail

// Identifies the key and value types of a table: their full names, sizes and
// alignments. A process built with other types (or another version of them
// with a different size) refuses to mount the segment instead of misreading it.
template <class Key, class Value>
constexpr Kel::U64 typeFingerprint() {
   return detail::typeFingerprint<Value>(detail::typeFingerprint<Key>(fnv1a("Vorpa::Table")));
}

}  // namespace Vorpa
