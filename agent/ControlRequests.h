#pragma once

#include <string_view>

#include "AgentConfig.h"
#include "FlowTracking/ConfigReq.h"

namespace Agent {

// Answers one request from the control socket (see ControlProtocol.h) for an
// agent running `config`. A counter-clear request that names only trackers
// and exporters the configuration has is written to `configReq` with a fresh
// request time, so the library clears the matching statistics before this
// returns; anything else changes nothing and is answered with the reason.
Kel::String answerControlRequest(std::string_view request, const AgentConfig& config,
                                 FlowTracking::ConfigReq& configReq);

}  // namespace Agent
