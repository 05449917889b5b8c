#pragma once

#include "HwFlowTracking/Status.h"

namespace FlowTracking {

// The options templates every exporter sends, by their fixed index.
enum class StaticTemplateId : Kel::U8 {
   vrfTable = 0,
   intfTable = 1,
   flowKey = 2,
   flowTrackerTable = 3,
};

class Constants {
 public:
   // The template ids reserved for the options templates: four distinct ids
   // at the top of the 16-bit range, where no hardware flow group may be.
   static constexpr HwFlowTracking::TemplateId reservedTemplateId(StaticTemplateId id) {
      return static_cast<HwFlowTracking::TemplateId>(firstReservedTemplateId +
                                                     static_cast<Kel::U16>(id));
   }
   static constexpr bool isReservedTemplateId(HwFlowTracking::TemplateId id) {
      return id >= firstReservedTemplateId;
   }

 private:
   static constexpr Kel::U16 firstReservedTemplateId = 65532;
};

static_assert(Constants::reservedTemplateId(StaticTemplateId::flowTrackerTable) == 65535);

}  // namespace FlowTracking
