#include "ServiceNotifier.h"

#include <fmt/format.h>
#include <sys/socket.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
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

// NOTIFY_SOCKET names a socket by its path, or an abstract one after '@'.
bool notifyAddressIs(std::string_view name, sockaddr_un& address, socklen_t& length) {
   if (name.size() < 2 || name.size() >= sizeof address.sun_path ||
       (name[0] != '/' && name[0] != '@')) {
      return false;
   }
   address.sun_family = AF_UNIX;
   std::memcpy(address.sun_path, name.data(), name.size());
   if (name[0] == '@') {
      address.sun_path[0] = '\0';
   }
   length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size());
   return true;
}

}  // namespace

ServiceNotifier::ServiceNotifier(Kel::Ptr<Bexa::TaskScheduler> scheduler) {
   const char* name = std::getenv("NOTIFY_SOCKET");
   if (!name) {
      return;
   }
   if (!notifyAddressIs(name, address_, addressLength_)) {
      std::fprintf(stderr,
                   "ipfix-agent: NOTIFY_SOCKET=%s is neither a path nor an abstract name; no "
                   "service notifications\n",
                   name);
      return;
   }
   fd_ = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
   if (fd_ < 0) {
      std::fprintf(stderr, "ipfix-agent: notification socket: %s; no service notifications\n",
                   std::strerror(errno));
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

ServiceNotifier::~ServiceNotifier() {
   if (fd_ >= 0) {
      ::close(fd_);
   }
}

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

// A keep-alive the manager has no room for yet is dropped rather than waited
// for: those it has not read say the same, and waiting would stop the export
// loop with it.
void ServiceNotifier::keepAlive() {
   send("WATCHDOG=1", MSG_DONTWAIT);
   keepAliveTask_->scheduleTaskLowestDelay(keepAliveInterval_);
}

void ServiceNotifier::send(std::string_view state, int flags) {
   if (fd_ < 0) {
      return;
   }
   if (::sendto(fd_, state.data(), state.size(), MSG_NOSIGNAL | flags,
                reinterpret_cast<const sockaddr*>(&address_), addressLength_) < 0) {
      KEL_TRACE(traceAgent, 1, "Service notification {} not sent: {}", state, std::strerror(errno));
   }
}

}  // namespace Agent
