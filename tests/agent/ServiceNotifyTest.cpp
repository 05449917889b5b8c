#include <gtest/gtest.h>
#include <signal.h>

#include <chrono>
#include <string>

#include "AgentProcess.h"
#include "Kel/System.h"
#include "Vorpa/Segment.h"
#include "support/DatagramSocket.h"
#include "support/ScopedRuntimeDirectory.h"
#include "support/UdpReceiver.h"

// The agent as systemd runs a Type=notify service: the test plays the
// service manager, with the notification socket it names in NOTIFY_SOCKET
// and a watchdog period in WATCHDOG_USEC.
namespace {

using TestSupport::config;
using TestSupport::writeFile;

constexpr auto deadline = std::chrono::seconds(20);

// The service manager's side: the agent's notifications in order, the
// watchdog keep-alives counted apart since they come at any time.
class NotifySocket {
 public:
   explicit NotifySocket(const std::string& path) { socket_.bindTo(path); }

   // The next notification other than a keep-alive; "" when none comes in time.
   std::string next() {
      const auto end = std::chrono::steady_clock::now() + deadline;
      while (std::chrono::steady_clock::now() < end) {
         const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
             end - std::chrono::steady_clock::now());
         const auto message = socket_.receive(static_cast<int>(left.count()) + 1);
         if (!message) {
            break;
         }
         if (*message != "WATCHDOG=1") {
            return *message;
         }
         ++keepAlives_;
      }
      return "";
   }
   // Waits until `count` keep-alives came in all; false when they do not in time.
   bool keepAlivesReach(int count) {
      const auto end = std::chrono::steady_clock::now() + deadline;
      while (keepAlives_ < count && std::chrono::steady_clock::now() < end) {
         const auto message = socket_.receive(100);
         if (message == "WATCHDOG=1") {
            ++keepAlives_;
         } else if (message) {
            ADD_FAILURE() << "unexpected notification " << *message;
         }
      }
      return keepAlives_ >= count;
   }

 private:
   TestSupport::DatagramSocket socket_{false};
   int keepAlives_ = 0;
};

// "RELOADING=1" with the monotonic time the reload began, which a service
// manager compares with its own clock.
void expectReloading(const std::string& message) {
   const std::string prefix = "RELOADING=1\nMONOTONIC_USEC=";
   ASSERT_TRUE(message.starts_with(prefix)) << message;
   const double seconds = std::stod(message.substr(prefix.size())) / 1e6;
   EXPECT_NEAR(seconds, Kel::SystemClock().monotonic(), 10.0) << message;
}

TEST(AgentService, NotifiesReadyReloadsStopAndKeepsTheWatchdogFed) {
   const TestSupport::ScopedRuntimeDirectory runtime;
   const std::string socketPath = runtime.path() + "/notify";
   NotifySocket manager(socketPath);
   const TestSupport::ScopedVariable notifySocket("NOTIFY_SOCKET", socketPath.c_str());
   // A keep-alive every 0.2 s.
   const TestSupport::ScopedVariable watchdog("WATCHDOG_USEC", "400000");
   const std::string table = "ipfix-agent-notify-" + std::to_string(getpid());
   const std::string path = TestSupport::tempPath("notify.yaml");
   TestSupport::UdpReceiver c1(false), c2(false);
   // Templates every second, which show the export loop turning.
   const auto everySecond = [](std::string c) {
      const std::string interval = "template-interval-ms: 60000";
      return c.replace(c.find(interval), interval.size(), "template-interval-ms: 1000");
   };
   writeFile(path, everySecond(config({{"c1", c1.port()}})));
   TestSupport::AgentProcess agent(path, table);

   EXPECT_EQ(manager.next(), "READY=1\nSTATUS=Exporting: 1 tracker, 1 exporter, 1 collector");
   EXPECT_TRUE(manager.keepAlivesReach(3)) << "the watchdog is not fed";

   writeFile(path, everySecond(config({{"c1", c1.port()}, {"c2", c2.port()}})));
   agent.signal(SIGHUP);
   expectReloading(manager.next());
   EXPECT_EQ(manager.next(), "READY=1\nSTATUS=Exporting: 1 tracker, 1 exporter, 2 collectors");

   // A manager that falls behind in reading (more keep-alives than its
   // socket queues) does not stop the export.
   const auto stalled = std::chrono::steady_clock::now();
   int lateDatagrams = 0;
   while (std::chrono::steady_clock::now() < stalled + std::chrono::milliseconds(3500)) {
      if (c1.receiveWithin(100) &&
          std::chrono::steady_clock::now() > stalled + std::chrono::milliseconds(2500)) {
         ++lateDatagrams;
      }
   }
   EXPECT_GT(lateDatagrams, 0) << "the agent waited for the service manager";

   // A refused file ends its reload too, and the status says so.
   writeFile(path, "flow-tracking: [\n");
   agent.signal(SIGHUP);
   expectReloading(manager.next());
   EXPECT_EQ(manager.next(), "READY=1\nSTATUS=Exporting: 1 tracker, 1 exporter, 2 collectors; " +
                                 path + " not applied, see the log");

   agent.signal(SIGTERM);
   EXPECT_EQ(manager.next(), "STOPPING=1");
   EXPECT_EQ(agent.wait(), 0) << agent.stderrText();
   Vorpa::Segment::remove(table);
   unlink(path.c_str());
}

}  // namespace
