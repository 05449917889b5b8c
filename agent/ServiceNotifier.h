#pragma once

#include <sys/un.h>

#include <memory>
#include <string_view>

#include "Bexa/TaskScheduler.h"

namespace Agent {

// Tells the service manager how the agent is doing, over the socket it names
// in NOTIFY_SOCKET (a systemd unit of Type=notify): ready once the
// configuration is applied, reloading then ready again around a reload,
// stopping at shutdown, each with a status line; and, when WATCHDOG_USEC asks
// for it, a keep-alive from a timer of the agent's own event loop, so that a
// loop that stops turning stops the keep-alives too. Without NOTIFY_SOCKET it
// sends nothing and sets no timer.
//
// A failed send is traced and otherwise ignored: the service manager then
// acts on its own timeouts, and exporting goes on either way. Keep-alives
// never wait for a manager that falls behind in reading.
class ServiceNotifier {
 public:
   explicit ServiceNotifier(Kel::Ptr<Bexa::TaskScheduler> scheduler);
   ~ServiceNotifier();
   ServiceNotifier(const ServiceNotifier&) = delete;
   ServiceNotifier& operator=(const ServiceNotifier&) = delete;

   void ready(std::string_view status);
   void reloading();
   void stopping();

 private:
   void send(std::string_view state, int flags = 0);
   void keepAlive();

   int fd_ = -1;
   sockaddr_un address_{};
   socklen_t addressLength_ = 0;
   Kel::Seconds keepAliveInterval_ = 0;
   std::unique_ptr<Bexa::Task> keepAliveTask_;
};

}  // namespace Agent
