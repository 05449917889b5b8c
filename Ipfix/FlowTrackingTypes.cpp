#include "Ipfix/FlowTrackingTypes.h"

namespace FlowTracking {

Kel::String trackingTypeString(FlowTrackingType type) {
   return type == FlowTrackingType::hardware ? "Hardware" : "Sampled";
}

}  // namespace FlowTracking
