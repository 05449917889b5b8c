#include "ClearCommand.h"

#include <fmt/format.h>

#include <iostream>

#include "ControlClient.h"

namespace IpfixStats {

namespace {

// The agent answers within a turn of its loop; this only bounds the wait
// for one that is stopped or stuck.
constexpr int replyTimeoutMs = 5000;

ExitCode error(ExitCode code, const Kel::String& message) {
   std::cerr << "ipfix-stats: " << message << '\n';
   return code;
}

Kel::String what(const Control::ClearRequest& request) {
   if (request.tracker.empty()) {
      return "every tracker";
   }
   if (request.exporter.empty()) {
      return fmt::format("tracker {}", request.tracker);
   }
   return fmt::format("exporter {} of tracker {}", request.exporter, request.tracker);
}

}  // namespace

ExitCode clearCounters(const Kel::String& table, const Control::ClearRequest& request,
                       const Control::SocketPlacement& placement) {
   Kel::String problem;
   const auto socket = Control::socketLocation(table, placement, &problem);
   if (!socket) {
      return error(exitUsage, problem);
   }
   const Kel::String& path = socket->path;
   if (const auto p = Control::requestProblem(request)) {
      return error(exitUsage, *p);
   }
   const Exchange result = exchange(path, Control::requestText(request), replyTimeoutMs);
   switch (result.outcome) {
      case Exchange::Outcome::noAgent:
         return error(exitNoAgent, fmt::format("no agent running for table '{}' (no one serves {})",
                                               table, path));
      case Exchange::Outcome::noReply:
         return error(exitFailure,
                      fmt::format("the agent serving table '{}' did not answer in {} s", table,
                                  replyTimeoutMs / 1000));
      case Exchange::Outcome::failed:
         return error(exitFailure, result.text);
      case Exchange::Outcome::replied:
         break;
   }
   const auto reply = Control::parseReply(result.text);
   if (!reply) {
      return error(exitFailure,
                   fmt::format("unexpected reply from the agent serving table '{}'", table));
   }
   if (!reply->ok) {
      return error(exitRefused, "the agent refused: " + reply->error);
   }
   std::cout << "Cleared the counters of " << what(request) << " in table " << table << '\n';
   return exitOk;
}

}  // namespace IpfixStats
