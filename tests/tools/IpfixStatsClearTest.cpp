#include <gtest/gtest.h>
#include <sys/socket.h>

#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <set>

#include "Kel/System.h"
#include "support/DatagramSocket.h"
#include "support/ScopedRuntimeDirectory.h"
#include "support/ScopedTableName.h"
#include "support/UdpReceiver.h"
#include "tools/ToolTest.h"

// `ipfix-stats clear` against the agent as an operator runs them: two
// processes, the agent exporting to UDP receivers of this test on loopback,
// the tool finding it through the control socket of the statistics table in
// a runtime directory of the test's own.
namespace {

using TestSupport::ChildProcess;
using TestSupport::DatagramSocket;
// By "tracker/exporter" for a collector's entry (each exporter has one), by
// "tracker/exporter/" for a clear-time entry (exporter empty for a tracker's).
using Entries = std::map<std::string, Vorpa::Ipfix::CollectorStatisticsEntry>;

// Two trackers, ft1 with exporter e1 and ft2 with e2 and e3, each exporter
// with one collector on loopback at `port`.
std::string config(int port) {
   const auto exporter = [&](int i) {
      const std::string n = std::to_string(i + 1);
      return "{ name: e" + n + ", source-ipv4: 127.0.0.1, template-interval-ms: 600000, " +
             "collectors: [ { name: c" + n + ", address: 127.0.0.1, port: " + std::to_string(port) +
             " } ] }";
   };
   const std::string groups =
       "flow-groups: [ { template-id: 300, entries: 10, fields: [ "
       "{ element: sourceIPv4Address, flow-key: true }, octetDeltaCount ] } ]";
   return "flow-tracking:\n  hardware:\n    trackers:\n      - { name: ft1, id: 1, exporters: [ " +
          exporter(0) + " ], " + groups + " }\n      - { name: ft2, id: 2, exporters: [ " +
          exporter(1) + ", " + exporter(2) + " ], " + groups +
          " }\ninterfaces:\n  - { name: Ethernet1, index: 1 }\n";
}

// The agent on config(), as `user` if given. It has started once its
// templates and options templates reached every collector.
class ExportingAgent {
 public:
   explicit ExportingAgent(const std::string& table, std::vector<std::string> args = {},
                           std::optional<uid_t> user = std::nullopt)
       : table_(table), config_(::testing::TempDir() + "clear-" + table + ".yaml") {
      std::ofstream(config_) << config(rx_.port());
      args.insert(args.begin(), {IPFIX_AGENT_PATH, "--config", config_, "--stats-table", table});
      process_.emplace(args, user);
      const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
      while (!exported() && std::chrono::steady_clock::now() < deadline) {
         rx_.receiveWithin(10);
      }
   }
   ~ExportingAgent() { ::unlink(config_.c_str()); }

   Entries entries() const {
      Entries entries;
      Vorpa::Ipfix::CollectorStatisticsReader::mount(table_).forEach(
          [&](const Vorpa::Ipfix::CollectorStatisticsKey& k,
              const Vorpa::Ipfix::CollectorStatisticsEntry& e) {
             const bool clearTime = k.collector() == Vorpa::Ipfix::CollectorInfo();
             entries.emplace(k.tracker() + "/" + k.exporter() + (clearTime ? "/" : ""), e);
          });
      return entries;
   }
   bool exported() const {
      try {
         const Entries e = entries();
         return std::count_if(e.begin(), e.end(), [](const auto& entry) {
                   return entry.second.exportedMessageTotalCount() >= 2 &&
                          entry.second.lastTemplateSentTime() > 0;
                }) == 3;
      } catch (const std::exception&) {
         return false;  // no table yet
      }
   }
   ChildProcess& process() { return *process_; }

 private:
   std::string table_;
   std::string config_;
   TestSupport::UdpReceiver rx_{false};
   std::optional<ChildProcess> process_;
};

// Each request clears the entries it names and writes their clear time, and
// leaves the others alone; one naming what the agent lacks is refused and
// changes nothing. Each agent also starts over a stale socket, which it
// replaces, and removes its socket when it stops. One case places the socket
// with --control-socket, given to the agent and the tool alike.
TEST(IpfixStatsClear, ClearsTheNamedCountersOnly) {
   const TestSupport::ScopedRuntimeDirectory runtime;
   const std::set<std::string> all = {"ft1/e1", "ft2/e2", "ft2/e3"};
   const struct {
      std::vector<std::string> args;
      std::set<std::string> left;  // the entries after the clear
      std::string refusal = {};
      bool chosenSocket = false;
   } cases[] = {
       {{"--tracker", "ft2"}, {"ft1/e1", "ft2//"}},
       {{"--tracker", "ft2", "--exporter", "e3"}, {"ft1/e1", "ft2/e2", "ft2/e3/"}, "", true},
       {{}, {"ft1//", "ft2//"}},
       {{"--tracker", "ft9"}, all, "the agent refused: no tracker named 'ft9'"},
       {{"--tracker", "ft1", "--exporter", "e2"},
        all,
        "the agent refused: tracker 'ft1' has no exporter named 'e2'"},
   };
   for (const auto& c : cases) {
      SCOPED_TRACE(::testing::PrintToString(c.args));
      const TestSupport::ScopedTableName table("clear");
      const std::string socket =
          c.chosenSocket ? runtime.path() + "/x.sock" : runtime.socketOf(table);
      std::vector<std::string> socketArgs;
      if (c.chosenSocket) {
         socketArgs = {"--control-socket", socket};
      }
      DatagramSocket(false).bindTo(socket);
      ExportingAgent agent(table, socketArgs);
      ASSERT_TRUE(agent.exported()) << "the agent did not start exporting";
      EXPECT_EQ(std::filesystem::exists(runtime.socketOf(table)), !c.chosenSocket);
      const Entries before = agent.entries();

      const Kel::Seconds requested = Kel::System::currentTime();
      std::vector<std::string> args = c.args;
      args.insert(args.begin(), {"clear", "--table", table});
      args.insert(args.end(), socketArgs.begin(), socketArgs.end());
      const ChildProcess::Result result = ToolTest::ipfixStats(args);
      const Kel::Seconds answered = Kel::System::currentTime();
      if (c.refusal.empty()) {
         EXPECT_EQ(result.exitCode, 0) << result.err;
      } else {
         ToolTest::expectFailure(result, 7, c.refusal);
      }

      // The agent answers after the library has cleared, so the table shows
      // it at once.
      std::set<std::string> left;
      for (const auto& [where, e] : agent.entries()) {
         left.insert(where);
         if (where.ends_with("/")) {
            EXPECT_GE(e.lastClearedTime(), requested) << where;
            EXPECT_LE(e.lastClearedTime(), answered) << where;
         } else {
            EXPECT_GE(e.exportedMessageTotalCount(), before.at(where).exportedMessageTotalCount())
                << where << " was reset";
         }
      }
      EXPECT_EQ(left, c.left);
      ToolTest::stop(agent.process());
      EXPECT_FALSE(std::filesystem::exists(socket)) << "the agent left its socket behind";
   }
}

// Agents started on socket paths another owns are refused and leave them
// alone: the socket of the first agent, which goes on serving, and a file
// that is not a socket.
TEST(IpfixStatsClear, SocketPathsTakenOrUnusableAreRefused) {
   const TestSupport::ScopedRuntimeDirectory runtime;
   const TestSupport::ScopedTableName table("clearbad");
   ExportingAgent agent(table);
   ASSERT_TRUE(agent.exported()) << "the agent did not start exporting";
   const std::string socket = runtime.socketOf(table);
   const TestSupport::ScopedTableName fileTable("clearfile");
   const std::string file = runtime.socketOf(fileTable);
   std::ofstream(file) << "not a socket\n";
   const std::string configPath = ::testing::TempDir() + "clear-own.yaml";
   std::ofstream(configPath) << config(1);
   for (const auto& [taken, message] :
        {std::pair{table.str(),
                   socket + " is in use: another ipfix-agent serves this statistics table"},
         std::pair{fileTable.str(), file + ": the path exists and is not a socket"}}) {
      ToolTest::expectFailure(
          ChildProcess::run({IPFIX_AGENT_PATH, "--config", configPath, "--stats-table", taken}), 1,
          message, "");
   }
   ::unlink(configPath.c_str());
   EXPECT_EQ((std::stringstream() << std::ifstream(file).rdbuf()).str(), "not a socket\n");

   EXPECT_EQ(ToolTest::ipfixStats({"clear", "--table", table, "--tracker", "ft1"}).exitCode, 0);
   EXPECT_FALSE(agent.entries().contains("ft1/e1"));
   ToolTest::stop(agent.process());
}

// The agent answers its own user and root only, whoever reaches its socket.
// The socket file keeps other users out, but a descriptor connected to it
// works for whoever holds it: here a sender connects while still root and
// then becomes another user, and the agent goes by who sends. It runs as root
// and as nobody in turn, so that its own user and root are told apart.
TEST(IpfixStatsClear, OnlyTheAgentsUserAndRootAreAnswered) {
   if (::geteuid() != 0) {
      GTEST_SKIP() << "needs root, to run the agent and its clients as other users";
   }
   constexpr uid_t nobody = 65534;
   const TestSupport::ScopedRuntimeDirectory runtime;
   // The agent of nobody makes its socket there too.
   ASSERT_EQ(::chown(runtime.path().c_str(), nobody, nobody), 0) << std::strerror(errno);
   const struct {
      uid_t agent;
      // Refused senders first: the table must still be untouched when they
      // have been refused.
      std::vector<std::pair<uid_t, bool>> senders;  // uid, answered
   } agents[] = {
       {0, {{nobody, false}, {0, true}}},
       {nobody, {{nobody - 1, false}, {nobody, true}, {0, true}}},
   };
   for (const auto& a : agents) {
      SCOPED_TRACE("agent of uid " + std::to_string(a.agent));
      const TestSupport::ScopedTableName table("clearuser");
      ExportingAgent agent(table, {}, a.agent);
      ASSERT_TRUE(agent.exported()) << "the agent did not start exporting";
      for (const auto& [uid, answered] : a.senders) {
         SCOPED_TRACE("sender uid " + std::to_string(uid));
         DatagramSocket client;
         client.connectTo(runtime.socketOf(table));
         const pid_t sender = ::fork();
         if (sender == 0) {
            const std::string request = "clear tracker=ft1\n";
            ::_exit(TestSupport::becomeUser(uid) &&
                            ::send(client.fd(), request.data(), request.size(), MSG_DONTWAIT) ==
                                static_cast<ssize_t>(request.size())
                        ? 0
                        : 1);
         }
         int status = 0;
         ASSERT_EQ(::waitpid(sender, &status, 0), sender);
         ASSERT_EQ(status, 0) << "the sender failed";
         const std::string reply = client.receive().value_or("(no reply)");
         if (answered) {
            EXPECT_EQ(reply, "ok\n");
         } else {
            EXPECT_TRUE(reply.starts_with("error: permission denied")) << reply;
            // The clear it asked for would have replaced ft1's entry by its
            // clear time.
            const Entries after = agent.entries();
            EXPECT_TRUE(after.contains("ft1/e1") && !after.contains("ft1//")) << "it cleared";
         }
      }
      ToolTest::stop(agent.process());
   }
}

}  // namespace
