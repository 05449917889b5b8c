#include "VrfIdMapWriter.h"

#include "Kel/Trace.h"

namespace Agent {

namespace {
Kel::TraceHandle traceAgent("Agent");
}

// The table lives in a memory file of this process: nothing outside the agent
// reads its VRFs, and no name can collide with another agent's.
VrfIdMapWriter::VrfIdMapWriter()
    : table_(Vrf::VrfIdMap::Table::createAnonymous("vrf-id-map", capacity)),
      status_(Vrf::VrfIdMap::statusFactory(Vrf::VrfIdMap::Reader::attach(table_))) {}

void VrfIdMapWriter::vrfIs(Kel::U32 id, const Kel::Name& name) {
   if (!table_.entryIs(id, Vrf::VrfIdMap::VrfName(name))) {
      KEL_TRACE(traceAgent, 1, "VRF {} ({}) not stored: the VRF id map is full", id, name);
      return;
   }
   KEL_TRACE(traceAgent, 3, "VRF {} is {}", id, name);
   status_->sync();
}

void VrfIdMapWriter::vrfDel(Kel::U32 id) {
   if (table_.entryDel(id)) {
      KEL_TRACE(traceAgent, 3, "VRF {} removed", id);
      status_->sync();
   }
}

}  // namespace Agent
