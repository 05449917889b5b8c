#pragma once

#include <bit>
#include <cstring>
#include <type_traits>

#include "Kel/Types.h"

namespace Nivel {

// Reverses the octets of an unsigned integer (a no-op for one octet).
template <class T>
constexpr T byteSwap(T value) noexcept {
   static_assert(std::is_unsigned_v<T>, "network-order values are unsigned");
   if constexpr (sizeof(T) == 1) {
      return value;
   } else if constexpr (sizeof(T) == 2) {
      return __builtin_bswap16(value);
   } else if constexpr (sizeof(T) == 4) {
      return __builtin_bswap32(value);
   } else {
      static_assert(sizeof(T) == 8);
      return __builtin_bswap64(value);
   }
}

// Host order to network order (big-endian) and back; the same swap both ways.
template <class T>
constexpr T hostToNet(T value) noexcept {
   if constexpr (std::endian::native == std::endian::little) {
      return byteSwap(value);
   } else {
      return value;
   }
}

// Reads a network-order integer at any address: octets of a packet have no
// alignment. Compiles to one load and a byte swap.
template <class T>
T loadNet(const Kel::U8* at) noexcept {
   T raw;
   std::memcpy(&raw, at, sizeof(T));
   return hostToNet(raw);
}

// Writes a network-order integer at any address.
template <class T>
void storeNet(Kel::U8* at, T value) noexcept {
   const T raw = hostToNet(value);
   std::memcpy(at, &raw, sizeof(T));
}

// An unsigned integer held in network byte order: the field type of the wire
// structs. Its alignment is one octet, so a struct of them has no padding and
// its size is the size on the wire.
template <class T>
class NetOrder {
 public:
   using HostType = T;

   NetOrder() = default;
   explicit NetOrder(T value) noexcept { storeNet(octets_, value); }

   T value() const noexcept { return loadNet<T>(octets_); }
   const Kel::U8* octets() const noexcept { return octets_; }

 private:
   Kel::U8 octets_[sizeof(T)];
};

using U8Net = NetOrder<Kel::U8>;
using U16Net = NetOrder<Kel::U16>;
using U32Net = NetOrder<Kel::U32>;
using U64Net = NetOrder<Kel::U64>;

static_assert(sizeof(U32Net) == 4 && alignof(U32Net) == 1);
static_assert(std::is_trivially_copyable_v<U64Net>);

}  // namespace Nivel
