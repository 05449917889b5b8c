#include "ControlRequests.h"

#include <fmt/format.h>

#include <cmath>
#include <limits>

#include "ConfigLimits.h"
#include "ControlProtocol.h"
#include "Kel/System.h"
#include "Kel/Trace.h"

namespace Agent {

namespace {

Kel::TraceHandle traceAgent("Agent");

// The protocol takes every name the configuration can hold, and no longer.
static_assert(Control::maxNameLength == Limits::maxKeyNameLength);

const Tracker* findTracker(const AgentConfig& config, const Kel::Name& name) {
   for (const auto& [type, tracking] : config.tracking) {
      if (const auto it = tracking.trackers.find(name); it != tracking.trackers.end()) {
         return &it->second;
      }
   }
   return nullptr;
}

// Why the configuration has no statistics to clear under `request`, or empty.
Kel::String unknownName(const Control::ClearRequest& request, const AgentConfig& config) {
   if (request.tracker.empty()) {
      return {};
   }
   const Tracker* tracker = findTracker(config, request.tracker);
   if (!tracker) {
      return fmt::format("no tracker named '{}'", request.tracker);
   }
   if (!request.exporter.empty() && !tracker->exporters.contains(request.exporter)) {
      return fmt::format("tracker '{}' has no exporter named '{}'", request.tracker,
                         request.exporter);
   }
   return {};
}

}  // namespace

Kel::String answerControlRequest(std::string_view request, const AgentConfig& config,
                                 FlowTracking::ConfigReq& configReq) {
   Kel::String error;
   const auto clear = Control::parseRequest(request, &error);
   if (!clear) {
      KEL_TRACE(traceAgent, 1, "Refused a control request: {}", error);
      return Control::errorReply(error);
   }
   if (error = unknownName(*clear, config); !error.empty()) {
      KEL_TRACE(traceAgent, 1, "Refused a clear request: {}", error);
      return Control::errorReply(error);
   }
   // The library reacts to a changed request only, so a repeated request
   // must carry a later time than the one before, even within one clock tick.
   const Kel::Seconds previous = configReq.clearCounters().requestTime;
   Kel::Seconds now = Kel::System::currentTime();
   if (now <= previous) {
      now = std::nextafter(previous, std::numeric_limits<Kel::Seconds>::infinity());
   }
   KEL_TRACE(traceAgent, 3, "Clearing counters of tracker '{}' exporter '{}'", clear->tracker,
             clear->exporter);
   configReq.clearCountersIs(
       FlowTracking::ClearCountersRequest{clear->tracker, clear->exporter, now});
   return Control::okReply();
}

}  // namespace Agent
