#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <string>
#include <utility>
#include <vector>

#include "FlowTracking/Constants.h"
#include "Ipfix/CollectorStats.h"
#include "Kel/System.h"
#include "support/ChildProcess.h"
#include "support/DatagramSocket.h"
#include "support/LoopbackCollector.h"
#include "support/ScopedRuntimeDirectory.h"
#include "support/ScopedTableName.h"
#include "support/UdpReceiver.h"

namespace {

// The agent as an operator runs it: a process with a configuration file,
// sending to collectors that are real UDP sockets of this test. What it logs
// on its standard error is read as its output.
TestSupport::ChildProcess startAgent(const std::string& configPath, const std::string& table) {
   return TestSupport::ChildProcess({"/bin/sh", "-c", "exec \"$0\" \"$@\" 2>&1", IPFIX_AGENT_PATH,
                                     "--config", configPath, "--stats-table", table});
}

std::string tempPath(const char* name) {
   return ::testing::TempDir() + "/" + name + "-" + std::to_string(getpid());
}

void writeFile(const std::string& path, const std::string& text) {
   std::ofstream(path) << text;
}

// A hardware tracker ft1 (id 9) with one exporter e1 sending from 127.0.0.1
// to `collectors` (name, port on 127.0.0.1), one flow group, interface
// Ethernet1 (and `extraInterface`, a line of the interface list) and VRF blue.
std::string config(const std::vector<std::pair<std::string, int>>& collectors,
                   const std::string& extraInterface = "") {
   std::string c = R"(flow-tracking:
  hardware:
    sample-rate: 512
    trackers:
      - name: ft1
        id: 9
        exporters:
          - name: e1
            source-ipv4: 127.0.0.1
            dscp: 46
            template-interval-ms: 60000
            collectors:
)";
   for (const auto& [name, port] : collectors) {
      c += "              - { name: " + name +
           ", address: 127.0.0.1, port: " + std::to_string(port) + " }\n";
   }
   c += R"(        flow-groups:
          - template-id: 300
            entries: 10
            fields: [ { element: sourceIPv4Address, flow-key: true }, octetDeltaCount ]
interfaces:
  - { name: Ethernet1, index: 1 }
)" + extraInterface +
        R"(vrfs:
  - { id: 1, name: blue }
)";
   return c;
}

using Records = std::multiset<TestSupport::LoopbackCollector::Values>;

using FlowTracking::StaticTemplateId;
std::uint16_t setOf(StaticTemplateId table) {
   return FlowTracking::Constants::reservedTemplateId(table);
}
const std::uint16_t intfSet = setOf(StaticTemplateId::intfTable);
const std::uint16_t vrfSet = setOf(StaticTemplateId::vrfTable);
const std::uint16_t keySet = setOf(StaticTemplateId::flowKey);
const std::uint16_t trackerSet = setOf(StaticTemplateId::flowTrackerTable);

Records interfaces(Records configured) {
   configured.insert({{0x80000000u, "multicast"},
                      {0x40000000u, "discard"},
                      {0x3FFFFFFFu, "CPU"},
                      {0u, "unknown"}});
   return configured;
}

// Until every options data table has arrived once.
bool allTables(const std::vector<IpfixCollect::DecodedMessage>& messages) {
   for (const auto id : {intfSet, vrfSet, keySet, trackerSet}) {
      if (TestSupport::LoopbackCollector::records(messages, id).empty()) {
         return false;
      }
   }
   return true;
}

// The service manager's side: the agent's notifications in order, the
// watchdog keep-alives counted apart since they come at any time.
class NotifySocket {
 public:
   explicit NotifySocket(const std::string& path) { socket_.bindTo(path); }

   // The next notification other than a keep-alive; "" when none comes in time.
   std::string next() {
      return receiveUntil([] { return false; }).value_or("");
   }
   // Waits until `count` keep-alives came in all; false when they do not in time.
   bool keepAlivesReach(int count) {
      if (const auto message = receiveUntil([&] { return keepAlives_ >= count; })) {
         ADD_FAILURE() << "unexpected notification " << *message;
      }
      return keepAlives_ >= count;
   }

 private:
   // The first notification other than a keep-alive, counting these; none
   // once `done` or after 20 seconds.
   template <class Done>
   std::optional<std::string> receiveUntil(Done done) {
      const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(20);
      while (!done() && std::chrono::steady_clock::now() < end) {
         const auto message = socket_.receive(100);
         if (message && *message != "WATCHDOG=1") {
            return message;
         }
         keepAlives_ += message ? 1 : 0;
      }
      return std::nullopt;
   }

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

// The agent as systemd runs a Type=notify service: the test plays the
// service manager, with the notification socket it names in NOTIFY_SOCKET
// and a watchdog period in WATCHDOG_USEC, and the collectors, whose streams
// libfixbuf decodes.
TEST(AgentService, ExportsNotifiesReloadsStopsAndKeepsTheWatchdogFed) {
   using C = TestSupport::LoopbackCollector;
   const TestSupport::ScopedRuntimeDirectory runtime;
   const std::string socketPath = runtime.path() + "/notify";
   NotifySocket manager(socketPath);
   const TestSupport::ScopedVariable notifySocket("NOTIFY_SOCKET", socketPath.c_str());
   // A keep-alive every 0.2 s.
   const TestSupport::ScopedVariable watchdog("WATCHDOG_USEC", "400000");
   const TestSupport::ScopedTableName table("agent");
   const std::string path = tempPath("agent.yaml");
   C c1(false), c2(false);
   TestSupport::UdpReceiver& rx1 = c1.receiver();
   writeFile(path, config({{"c1", rx1.port()}}, "  - { name: Ethernet2, index: 2 }\n"));
   TestSupport::ChildProcess agent = startAgent(path, table);
   EXPECT_EQ(manager.next(), "READY=1\nSTATUS=Exporting: 1 tracker, 1 exporter, 1 collector");
   EXPECT_TRUE(manager.keepAlivesReach(3)) << "the watchdog is not fed";

   // Everything a collector needs, decoded by libfixbuf from the stream.
   const auto messages = c1.drainUntil(allTables);
   const auto templates = C::templates(messages);
   ASSERT_TRUE(templates.contains(300));
   EXPECT_EQ(templates.at(300).fields.size(), 2u);
   for (const auto& m : messages) {
      EXPECT_EQ(m.observationDomain, 9u);
   }
   EXPECT_EQ(C::records(messages, intfSet), interfaces({{1u, "Ethernet1"}, {2u, "Ethernet2"}}));
   EXPECT_EQ(C::records(messages, vrfSet), (Records{{1u, "blue"}, {0xFFFFFFu, ""}}));
   EXPECT_EQ(C::records(messages, keySet), (Records{{300u, 0x1u}}));
   const Records tracker = C::records(messages, trackerSet);
   ASSERT_EQ(tracker.size(), 1u);
   EXPECT_EQ(tracker.begin()->at(6), C::Values::value_type(512u)) << "the sampling rate";

   // A reload that adds collectors and removes an interface: the new
   // collectors get the tables as they are now, in datagrams marked with the
   // DSCP.
   TestSupport::UdpReceiver rx3(false);
   writeFile(path, config({{"c1", rx1.port()}, {"c2", c2.receiver().port()}, {"c3", rx3.port()}}));
   agent.signal(SIGHUP);
   expectReloading(manager.next());
   EXPECT_EQ(manager.next(), "READY=1\nSTATUS=Exporting: 1 tracker, 1 exporter, 3 collectors");
   const auto reloaded = c2.drainUntil(allTables);
   EXPECT_EQ(C::records(reloaded, intfSet), interfaces({{1u, "Ethernet1"}}));
   const auto first = rx3.receiveWithin(10000);
   ASSERT_TRUE(first);
   EXPECT_EQ(first->tos, 0xB8) << "dscp 46 is written as the ToS byte 0xB8";

   // A refused file ends its reload too, and the status says so.
   writeFile(path, "flow-tracking: [\n");
   agent.signal(SIGHUP);
   expectReloading(manager.next());
   EXPECT_EQ(manager.next(), "READY=1\nSTATUS=Exporting: 1 tracker, 1 exporter, 3 collectors; " +
                                 path + " not applied, see the log");

   // Stop: exit 0, statistics entries of the removed collectors gone.
   agent.signal(SIGTERM);
   EXPECT_EQ(manager.next(), "STOPPING=1");
   const auto stopped = agent.finish();
   EXPECT_EQ(stopped.exitCode, 0) << stopped.out;
   const auto stats = Vorpa::Ipfix::CollectorStatisticsReader::mount(table);
   std::size_t entries = 0;
   stats.forEach([&](const auto&, const auto&) { ++entries; });
   EXPECT_EQ(entries, 0u);
   unlink(path.c_str());
}

// Every bound of the checker at its edge. The largest configuration it
// accepts: templates that fill one UDP datagram, the smallest MTU with the
// longest interface and VRF names, the longest tracker, exporter and
// collector names, a statistics table of exactly the entries needed, and no
// source address (the kernel's choice is taken).
struct Edge {
   int extraFields = 0;
   int mtu = 173;
   std::size_t nameLength = 63;
   int statisticsCapacity = 3;  // the tracker, the exporter and the collector
};

std::string edgeConfig(const Edge& e, int port) {
   // 15 flow groups of 1023 four-octet fields and one of 1010: template
   // records of 16 x 4 + 16355 x 4 = 65484 octets, the most that fits
   // 65487; one more field takes 4 more.
   std::string groups;
   for (int g = 0; g < 16; ++g) {
      const int fields = (g < 15 ? 1023 : 1010) + (g == 15 ? e.extraFields : 0);
      groups += "          - template-id: " + std::to_string(256 + g) +
                "\n            entries: 1\n            fields: [ { element: 8, flow-key: true }";
      for (int f = 1; f < fields; ++f) {
         groups += ", 1";
      }
      groups += " ]\n";
   }
   const std::string name(e.nameLength, 'n');
   return "statistics-capacity: " + std::to_string(e.statisticsCapacity) +
          "\nflow-tracking:\n  hardware:\n    trackers:\n      - name: t" + name.substr(1) +
          "\n        id: 9\n        exporters:\n          - name: e" + name.substr(1) +
          "\n            mtu: " + std::to_string(e.mtu) + "\n            collectors:\n" +
          "              - { name: c" + name.substr(1) +
          ", address: 127.0.0.1, port: " + std::to_string(port) + " }\n        flow-groups:\n" +
          groups + "interfaces:\n  - { name: " + std::string(100, 'i') +
          ", index: 1 }\nvrfs:\n  - { id: 1, name: " + std::string(100, 'v') + " }\n";
}

TEST(AgentProcess, LargestAcceptedConfigurationRunsWithoutASourceAddress) {
   using C = TestSupport::LoopbackCollector;
   const TestSupport::ScopedTableName table("edge");
   const std::string path = tempPath("edge.yaml");
   C collector(false);
   const int port = collector.receiver().port();
   writeFile(path, edgeConfig({}, port));
   TestSupport::ChildProcess agent = startAgent(path, table);

   const auto messages = collector.drainUntil(allTables);
   const auto templates = C::templates(messages);
   ASSERT_EQ(templates.size(), 16u + 4u) << "every data template and the options templates";
   EXPECT_EQ(templates.at(256).fields.size(), 1023u);
   EXPECT_EQ(templates.at(271).fields.size(), 1010u);
   EXPECT_EQ(C::records(messages, intfSet), interfaces({{1u, std::string(100, 'i')}}));
   EXPECT_EQ(C::records(messages, vrfSet), (Records{{1u, std::string(100, 'v')}, {0xFFFFFFu, ""}}));
   EXPECT_EQ(C::records(messages, keySet).size(), 16u);

   // One more than fits, applied to the running agent, is refused like a bad
   // file; so is a collector more than the statistics table holds.
   const auto refused = [&](const std::string& text, const std::string& why) {
      writeFile(path, text);
      agent.signal(SIGHUP);
      std::string log;
      while (log.find("not applied") == std::string::npos) {
         const auto line = agent.readLine();
         ASSERT_TRUE(line) << log;
         log += *line + "\n";
      }
      EXPECT_NE(log.find(why), std::string::npos) << log;
   };
   refused(edgeConfig({.extraFields = 1}, port), "take 65488 octets");
   std::string moreCollectors = edgeConfig({.statisticsCapacity = 4}, port);
   moreCollectors.insert(moreCollectors.find("        flow-groups:"),
                         "              - { name: c2, address: 127.0.0.1, port: 9 }\n");
   refused(moreCollectors, "needs 4 statistics entries and the running table holds 3");
   agent.signal(SIGTERM);
   EXPECT_EQ(agent.finish().exitCode, 0);
   unlink(path.c_str());
}

TEST(AgentProcess, CheckValidatesWithLocatedErrors) {
   const std::string path = tempPath("check.yaml");
   const std::string exporter = "trackers[0].exporters[0]";
   const struct {
      std::string text;
      int exitCode;
      std::string error;
      // A network of its own with no route at all.
      bool isolated = false;
   } cases[] = {
       {"flow-tracking:\n  hardware:\n    trackers:\n      - { name: t, id: 1, colour: red }\n", 2,
        ":4: flow-tracking.hardware.trackers[0].colour:"},
       {edgeConfig({}, 4739), 0, ""},
       {edgeConfig({.extraFields = 1}, 4739), 2,
        ":12: flow-tracking.hardware.trackers[0].flow-groups: the data templates of these flow "
        "groups take 65488 octets; one template message carries at most 65487"},
       {edgeConfig({.mtu = 172}, 4739), 2, exporter + ".mtu: must be an MTU"},
       {edgeConfig({.nameLength = 64}, 4739), 2, ".name: must be at most 63 octets long, not 64"},
       {edgeConfig({.statisticsCapacity = 2}, 4739), 2,
        ":1: statistics-capacity: the configuration needs 3 statistics entries"},
       {edgeConfig({}, 4739), 2,
        exporter + ".collectors[0].address: exporter e" + std::string(62, 'n') + " of tracker t" +
            std::string(62, 'n') + " has no source-ipv4 and no route",
        true},
   };
   for (const auto& c : cases) {
      SCOPED_TRACE(c.error);
      if (c.isolated && std::system("unshare -n true 2>/dev/null") != 0) {
         std::printf("skipped the no-route case: no network namespace of our own (not root)\n");
         continue;
      }
      writeFile(path, c.text);
      std::vector<std::string> args{IPFIX_AGENT_PATH, "--check", "--config", path};
      if (c.isolated) {
         args.insert(args.begin(), {"/usr/bin/unshare", "-n"});
      }
      const auto result = TestSupport::ChildProcess::run(args);
      EXPECT_EQ(result.exitCode, c.exitCode);
      EXPECT_NE(result.err.find(c.error), std::string::npos) << result.err;
   }
   unlink(path.c_str());
}

}  // namespace
