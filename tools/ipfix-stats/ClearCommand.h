#pragma once

#include "ControlProtocol.h"
#include "ExitCode.h"
#include "SocketLocation.h"

namespace IpfixStats {

// `ipfix-stats clear`: asks the agent that serves `table`, at the control
// socket `placement` leads to, to clear the counters `request` names, and
// reports the outcome: a line on standard output on success, one line on
// standard error and a distinct exit code otherwise.
ExitCode clearCounters(const Kel::String& table, const Control::ClearRequest& request,
                       const Control::SocketPlacement& placement);

}  // namespace IpfixStats
