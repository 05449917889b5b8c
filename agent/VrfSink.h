#pragma once

#include "Kel/Types.h"

namespace Agent {

// Where the agent's VRFs go. The switch keeps them in the shared-memory VRF id
// map that the library's VRF table reads; the agent's main program connects
// that map here once it exists.
class VrfSink {
 public:
   virtual ~VrfSink() = default;
   // Adds the VRF, or renames the one with this id.
   virtual void vrfIs(Kel::U32 id, const Kel::Name& name) = 0;
   virtual void vrfDel(Kel::U32 id) = 0;
};

}  // namespace Agent
