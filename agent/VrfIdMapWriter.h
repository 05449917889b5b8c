#pragma once

#include "Vrf/VrfIdMap.h"
#include "VrfSink.h"

namespace Agent {

// The VRF id map of the agent's VRFs. On a switch the VRF library writes this
// shared-memory table and the export library reads it; here the agent is its
// writer, and hands the library the map's read-only view. Every change is
// made visible to the view at once.
class VrfIdMapWriter final : public VrfSink {
 public:
   // Room for the VRFs of a large switch.
   static constexpr Kel::U32 capacity = 8192;

   VrfIdMapWriter();

   const Kel::Ptr<Vrf::VrfIdMap::Status>& status() const { return status_; }

   // Names come checked from the configuration: at most 100 octets.
   void vrfIs(Kel::U32 id, const Kel::Name& name) override;
   void vrfDel(Kel::U32 id) override;

 private:
   Vrf::VrfIdMap::Table table_;
   Kel::Ptr<Vrf::VrfIdMap::Status> status_;
};

}  // namespace Agent
