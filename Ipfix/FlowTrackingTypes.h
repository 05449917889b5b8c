#pragma once

#include <fmt/format.h>

#include "Kel/Types.h"

namespace FlowTracking {

// The kind of flow tracking. Only 2 is hardware tracking; every other value,
// out-of-range ones included, counts as sampled.
enum class FlowTrackingType : Kel::U8 {
   sampled = 1,
   hardware = 2,
};

// "Hardware" for hardware tracking, "Sampled" for any other value.
Kel::String trackingTypeString(FlowTrackingType type);

// A flow tracker's numeric id: the observation domain of its messages.
using FtId = Kel::U32;

}  // namespace FlowTracking

template <>
struct fmt::formatter<FlowTracking::FlowTrackingType> : fmt::formatter<unsigned> {
   auto format(FlowTracking::FlowTrackingType t, fmt::format_context& ctx) const {
      return fmt::formatter<unsigned>::format(static_cast<unsigned>(t), ctx);
   }
};
