#pragma once

#include "ExitCode.h"
#include "agent/ControlProtocol.h"

namespace IpfixStats {

// `ipfix-stats clear`: asks the agent that serves `table` to clear the
// counters `request` names, and reports the outcome: a line on standard
// output on success, one line on standard error and a distinct exit code
// otherwise.
ExitCode clearCounters(const Kel::String& table, const Agent::Control::ClearRequest& request);

}  // namespace IpfixStats
