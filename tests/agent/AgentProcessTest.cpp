#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <set>

#include "AgentProcess.h"
#include "FlowTracking/Constants.h"
#include "Ipfix/CollectorStats.h"
#include "Vorpa/Segment.h"
#include "support/LoopbackCollector.h"
#include "support/ScopedRuntimeDirectory.h"
#include "support/ScopedTableName.h"
#include "support/UdpReceiver.h"

namespace {

using TestSupport::AgentProcess;
using TestSupport::config;
using TestSupport::tempPath;
using TestSupport::writeFile;

// Set ids of the datagrams a collector gets within a few seconds, until it has
// seen all of `wanted`.
std::multiset<unsigned> collect(TestSupport::UdpReceiver& rx, const std::set<unsigned>& wanted,
                                std::vector<TestSupport::Datagram>* kept = nullptr) {
   std::multiset<unsigned> seen;
   const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
   while (std::chrono::steady_clock::now() < deadline) {
      auto d = rx.receiveWithin(100);
      if (!d) {
         if (std::includes(seen.begin(), seen.end(), wanted.begin(), wanted.end())) {
            break;
         }
         continue;
      }
      seen.insert(d->payload[16] << 8 | d->payload[17]);
      if (kept) {
         kept->push_back(std::move(*d));
      }
   }
   return seen;
}

using Records = std::multiset<TestSupport::LoopbackCollector::Values>;

const std::uint16_t intfSet =
    FlowTracking::Constants::reservedTemplateId(FlowTracking::StaticTemplateId::intfTable);
const std::uint16_t vrfSet =
    FlowTracking::Constants::reservedTemplateId(FlowTracking::StaticTemplateId::vrfTable);
const std::uint16_t keySet =
    FlowTracking::Constants::reservedTemplateId(FlowTracking::StaticTemplateId::flowKey);
const std::uint16_t trackerSet =
    FlowTracking::Constants::reservedTemplateId(FlowTracking::StaticTemplateId::flowTrackerTable);

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

TEST(AgentProcess, ExportsReloadsAndStopsCleanly) {
   using C = TestSupport::LoopbackCollector;
   const TestSupport::ScopedRuntimeDirectory runtime;
   const TestSupport::ScopedTableName table("agent");
   const std::string path = tempPath("agent.yaml");
   C c1(false), c2(false);
   TestSupport::UdpReceiver& rx1 = c1.receiver();
   writeFile(path, config({{"c1", rx1.port()}}, "  - { name: Ethernet2, index: 2 }\n"));
   AgentProcess agent(path, table);

   // Everything a collector needs, decoded by libfixbuf from the stream.
   const auto messages = c1.drainUntil(allTables);
   ASSERT_FALSE(messages.empty());
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

   // A reload that adds a collector and removes an interface: the new
   // collector gets the tables as they are now.
   writeFile(path, config({{"c1", rx1.port()}, {"c2", c2.receiver().port()}}));
   agent.signal(SIGHUP);
   const auto reloaded = c2.drainUntil(allTables);
   EXPECT_EQ(C::records(reloaded, intfSet), interfaces({{1u, "Ethernet1"}}));

   // A bad file is refused and changes nothing.
   writeFile(path, "flow-tracking: [\n");
   agent.signal(SIGHUP);
   // Signals of one kind do not queue: the next reload waits until the agent
   // has refused this file.
   const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
   while (agent.stderrText().find("not applied") == std::string::npos &&
          std::chrono::steady_clock::now() < deadline) {
      usleep(10000);
   }
   TestSupport::UdpReceiver rx3(false);
   writeFile(path, config({{"c1", rx1.port()}, {"c2", c2.receiver().port()}, {"c3", rx3.port()}}));
   agent.signal(SIGHUP);  // the agent still runs and applies a good file
   std::vector<TestSupport::Datagram> got;
   EXPECT_TRUE(collect(rx3, {2}, &got).contains(2));
   ASSERT_FALSE(got.empty());
   EXPECT_EQ(got.front().tos, 0xB8) << "dscp 46 is written as the ToS byte 0xB8";

   // Stop: exit 0, statistics entries of the removed collectors gone.
   agent.signal(SIGTERM);
   EXPECT_EQ(agent.wait(), 0);
   EXPECT_NE(agent.stderrText().find("not applied"), std::string::npos) << agent.stderrText();
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
   AgentProcess agent(path, table);

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
      const std::size_t before = agent.stderrText().size();
      agent.signal(SIGHUP);
      const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
      while (agent.stderrText().find("not applied", before) == std::string::npos &&
             std::chrono::steady_clock::now() < deadline) {
         usleep(10000);
      }
      EXPECT_NE(agent.stderrText().find(why, before), std::string::npos) << agent.stderrText();
   };
   refused(edgeConfig({.extraFields = 1}, port), "take 65488 octets");
   std::string moreCollectors = edgeConfig({.statisticsCapacity = 4}, port);
   moreCollectors.insert(moreCollectors.find("        flow-groups:"),
                         "              - { name: c2, address: 127.0.0.1, port: 9 }\n");
   refused(moreCollectors, "needs 4 statistics entries and the running table holds 3");
   EXPECT_TRUE(agent.running());
   agent.signal(SIGTERM);
   EXPECT_EQ(agent.wait(), 0);
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
       {config({{"c1", 4739}}), 0, ""},
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
      writeFile(path, c.text);
      const std::string errPath = path + ".err";
      if (c.isolated && std::system("unshare -n true 2>/dev/null") != 0) {
         std::printf("skipped the no-route case: no network namespace of our own (not root)\n");
         continue;
      }
      const std::string cmd = std::string(c.isolated ? "unshare -n " : "") + IPFIX_AGENT_PATH +
                              " --check --config " + path + " 2>" + errPath;
      const int status = std::system(cmd.c_str());
      EXPECT_EQ(WEXITSTATUS(status), c.exitCode);
      std::ifstream in(errPath);
      const std::string err{std::istreambuf_iterator<char>(in), {}};
      EXPECT_NE(err.find(c.error), std::string::npos) << err;
      unlink(errPath.c_str());
   }
   unlink(path.c_str());
}

}  // namespace
