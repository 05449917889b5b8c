#include "ServiceNotifier.h"

#include <fmt/format.h>
#include <systemd/sd-daemon.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "Kel/System.h"
#include "Kel/Trace.h"

namespace Agent {

namespace {

Kel::TraceHandle traceAgent("Agent");

// Above the library's work, so that a busy loop still says it is alive.
constexpr Bexa::TaskPriority keepAliveTaskPriority{1};

constexpr double microseconds = 1e6;

}  // namespace

ServiceNotifier::ServiceNotifier(Kel::Ptr<Bexa::TaskScheduler> scheduler)
    : enabled_(std::getenv("NOTIFY_SOCKET") != nullptr) {
   if (!enabled_) {
      return;
   }
   uint64_t timeoutUsec = 0;
   const int watchdog = sd_watchdog_enabled(0, &timeoutUsec);
   if (watchdog < 0) {
      std::fprintf(stderr, "ipfix-agent: WATCHDOG_USEC: %s; no watchdog keep-alive\n",
                   std::strerror(-watchdog));
      return;
   }
   if (watchdog == 0) {
      return;
   }
   // Twice per period, as the service manager recommends, so that one late
   // turn of the loop does not miss the deadline.
   keepAliveInterval_ = static_cast<double>(timeoutUsec) / microseconds / 2;
   keepAliveTask_ = std::make_unique<Bexa::Task>(std::move(scheduler), "AgentWatchdog",
                                                 keepAliveTaskPriority, [this] { keepAlive(); });
   keepAliveTask_->scheduleTask();
   KEL_TRACE(traceAgent, 3, "Watchdog keep-alive every {} s", keepAliveInterval_);
}

ServiceNotifier::~ServiceNotifier() = default;

void ServiceNotifier::ready(std::string_view status) {
   send(fmt::format("READY=1\nSTATUS={}", status));
}

// The monotonic time tells a service manager that waits for this reload
// which READY=1 ends it.
void ServiceNotifier::reloading() {
   send(fmt::format("RELOADING=1\nMONOTONIC_USEC={}",
                    static_cast<Kel::U64>(Kel::System::currentTime() * microseconds)));
}

void ServiceNotifier::stopping() {
   send("STOPPING=1");
}

void ServiceNotifier::keepAlive() {
   send("WATCHDOG=1");
   keepAliveTask_->scheduleTaskLowestDelay(keepAliveInterval_);
}

void ServiceNotifier::send(std::string_view state) {
   if (!enabled_) {
      return;
   }
   const std::string message(state);
   if (const int result = sd_notify(0, message.c_str()); result < 0) {
      KEL_TRACE(traceAgent, 1, "Service notification {} not sent: {}", message,
                std::strerror(-result));
   }
}

}  // namespace Agent
