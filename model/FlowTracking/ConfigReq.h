#pragma once

#include "Kel/Entity.h"

namespace FlowTracking {

// An operator's request to clear collector counters: of one tracker, one
// exporter of it, or everything (empty names). A zero request time is no
// request.
struct ClearCountersRequest {
   Kel::Name tracker;
   Kel::Name exporter;
   Kel::Seconds requestTime = 0;
   bool operator==(const ClearCountersRequest&) const = default;
};

// Requests from the operator's side to the flow-tracking library.
class ConfigReq : public Kel::Entity {
 public:
   class Notifiee : public Kel::BaseNotifiee<ConfigReq> {
    public:
      virtual void onClearCounters() {}
   };

   const ClearCountersRequest& clearCounters() const { return clearCounters_; }
   void clearCountersIs(const ClearCountersRequest& r) {
      attributeIs(clearCounters_, r, &Notifiee::onClearCounters);
   }

 private:
   ClearCountersRequest clearCounters_;
};

}  // namespace FlowTracking
