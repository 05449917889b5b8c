#pragma once

#include <cstdint>
#include <limits>
#include <string>

namespace Kel {

using String = std::string;
using Name = std::string;

using U8 = std::uint8_t;
using U16 = std::uint16_t;
using U32 = std::uint32_t;
using U64 = std::uint64_t;
using S32 = std::int32_t;
using S64 = std::int64_t;

// Time in seconds, monotonic or wall-clock depending on the source.
using Seconds = double;

constexpr U16 maxU16() {
   return std::numeric_limits<U16>::max();
}
constexpr U32 maxU32() {
   return std::numeric_limits<U32>::max();
}

}  // namespace Kel
