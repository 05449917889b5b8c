#pragma once

#include <string_view>

#include "Kel/Types.h"

namespace IpfixStats {

// One exchange over an agent's control socket: a request datagram out, the
// reply datagram back.
struct Exchange {
   enum class Outcome {
      replied,  // `text` is the agent's reply
      noAgent,  // no socket at the path, or no process reads it
      noReply,  // the agent did not answer in time
      failed,   // a system error; `text` says which
   };
   Outcome outcome = Outcome::failed;
   Kel::String text;
};

// Sends `request` to the socket at `path` from a socket with an address of
// its own (an autobound abstract one, so that nothing is left behind) and
// waits up to `timeoutMs` for the reply.
Exchange exchange(const Kel::String& path, std::string_view request, int timeoutMs);

}  // namespace IpfixStats
