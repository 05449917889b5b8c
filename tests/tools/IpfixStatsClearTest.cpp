#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <chrono>
#include <cstring>
#include <fstream>
#include <map>
#include <set>

#include "Ipfix/CollectorStats.h"
#include "Kel/System.h"
#include "support/ChildProcess.h"
#include "support/DatagramSocket.h"
#include "support/ScopedRuntimeDirectory.h"
#include "support/ScopedTableName.h"
#include "support/UdpReceiver.h"

// `ipfix-stats clear` against the agent as an operator runs them: two
// processes, the agent exporting to UDP receivers of this test on loopback,
// the tool finding it through the control socket of the statistics table in
// a runtime directory of the test's own.
namespace {

using TestSupport::ChildProcess;
using TestSupport::DatagramSocket;

const std::string ipfixStats = IPFIX_STATS_PATH;
const std::string ipfixAgent = IPFIX_AGENT_PATH;

// Users other than root, for the tests that run as root.
constexpr uid_t nobody = 65534;
constexpr uid_t anotherUser = 65533;

bool exists(const std::string& path) {
   struct stat st {};
   return ::lstat(path.c_str(), &st) == 0;
}

std::string config(int portE1, int portE2, int portE3) {
   const auto collector = [](const char* name, int port) {
      return std::string("              - { name: ") + name +
             ", address: 127.0.0.1, port: " + std::to_string(port) + " }\n";
   };
   const auto exporter = [&](const char* name, const char* collectorName, int port) {
      return std::string("          - name: ") + name +
             "\n            source-ipv4: 127.0.0.1\n            template-interval-ms: 600000\n"
             "            collectors:\n" +
             collector(collectorName, port);
   };
   const auto tracker = [&](const char* name, int id, const std::string& exporters) {
      return std::string("      - name: ") + name + "\n        id: " + std::to_string(id) +
             "\n        exporters:\n" + exporters +
             "        flow-groups:\n          - template-id: 300\n            entries: 10\n"
             "            fields: [ { element: sourceIPv4Address, flow-key: true }, "
             "octetDeltaCount ]\n";
   };
   return "flow-tracking:\n  hardware:\n    trackers:\n" +
          tracker("ft1", 1, exporter("e1", "c1", portE1)) +
          tracker("ft2", 2, exporter("e2", "c2", portE2) + exporter("e3", "c3", portE3)) +
          "interfaces:\n  - { name: Ethernet1, index: 1 }\n";
}

// (tracker, exporter, collector) of a statistics entry; the collector is
// empty for a clear-time entry.
using Where = std::tuple<std::string, std::string, std::string>;

std::map<Where, Vorpa::Ipfix::CollectorStatisticsEntry> entriesOf(const std::string& table) {
   std::map<Where, Vorpa::Ipfix::CollectorStatisticsEntry> entries;
   const auto reader = Vorpa::Ipfix::CollectorStatisticsReader::mount(table);
   reader.forEach([&](const Vorpa::Ipfix::CollectorStatisticsKey& k,
                      const Vorpa::Ipfix::CollectorStatisticsEntry& e) {
      const bool clearTime = k.collector() == Vorpa::Ipfix::CollectorInfo();
      entries.emplace(
          Where{k.tracker(), k.exporter(), clearTime ? "" : k.collector().stringValue()}, e);
   });
   return entries;
}

// The agent on a configuration of two trackers (ft1 with exporter e1, ft2
// with e2 and e3), each exporter with one collector on loopback. It has
// started once its templates and options templates reached every collector.
class ExportingAgent {
 public:
   explicit ExportingAgent(const std::string& table, const std::vector<std::string>& args = {},
                           std::optional<uid_t> user = std::nullopt)
       : table_(table), configPath_(::testing::TempDir() + "/clear-" + table + ".yaml") {
      std::ofstream(configPath_) << config(rx_[0].port(), rx_[1].port(), rx_[2].port());
      std::vector<std::string> command{ipfixAgent, "--config", configPath_, "--stats-table", table};
      command.insert(command.end(), args.begin(), args.end());
      agent_ = std::make_unique<ChildProcess>(command, user);
      const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
      while (!exported() && std::chrono::steady_clock::now() < deadline) {
         for (auto& rx : rx_) {
            rx.receiveWithin(10);
         }
      }
   }
   ~ExportingAgent() { ::unlink(configPath_.c_str()); }

   // Templates and options templates went to all three collectors.
   bool exported() const {
      try {
         std::size_t ready = 0;
         for (const auto& [where, e] : entriesOf(table_)) {
            ready += e.exportedMessageTotalCount() >= 2 && e.lastTemplateSentTime() > 0;
         }
         return ready == 3;
      } catch (const std::exception&) {
         return false;  // no table yet
      }
   }
   std::string collector(int i) const { return "127.0.0.1:" + std::to_string(rx_[i].port()); }
   // SIGTERM, then the exit status and standard error.
   ChildProcess::Result stop() {
      agent_->signal(SIGTERM);
      return agent_->finish();
   }

 private:
   std::string table_;
   std::string configPath_;
   TestSupport::UdpReceiver rx_[3] = {TestSupport::UdpReceiver(false),
                                      TestSupport::UdpReceiver(false),
                                      TestSupport::UdpReceiver(false)};
   std::unique_ptr<ChildProcess> agent_;
};

ChildProcess::Result clear(const std::string& table, std::vector<std::string> args) {
   args.insert(args.begin(), {ipfixStats, "clear", "--table", table});
   return ChildProcess::run(args);
}

// Every collector entry of `before` is still there, its counters not reset,
// and no clear-time entry appeared.
void expectUnchanged(const std::map<Where, Vorpa::Ipfix::CollectorStatisticsEntry>& before,
                     const std::string& table) {
   const auto after = entriesOf(table);
   EXPECT_EQ(after.size(), before.size());
   for (const auto& [where, e] : before) {
      const auto it = after.find(where);
      ASSERT_NE(it, after.end()) << std::get<0>(where) << "/" << std::get<1>(where);
      EXPECT_GE(it->second.exportedMessageTotalCount(), e.exportedMessageTotalCount());
      EXPECT_EQ(it->second.lastClearedTime(), 0);
   }
}

// Each request clears the entries it names and writes their clear time, and
// leaves the others alone. Each case also starts its agent over a stale
// socket, which the agent replaces, and checks that it removes its socket
// when it stops. One case places the socket with --control-socket, given to
// the agent and the tool alike, instead of in the runtime directory.
TEST(IpfixStatsClear, ClearsTheNamedCountersOnly) {
   const TestSupport::ScopedRuntimeDirectory runtime;
   const struct {
      const char* what;
      std::vector<std::string> args;
      std::set<int> cleared;  // collectors 0 (ft1/e1), 1 (ft2/e2), 2 (ft2/e3)
      std::set<std::pair<std::string, std::string>> clearTimes;
      const char* message;
      bool controlSocketOption = false;
   } cases[] = {
       {"tracker", {"--tracker", "ft1"}, {0}, {{"ft1", ""}}, "of tracker ft1 in table"},
       {"tracker of two exporters", {"--tracker", "ft2"}, {1, 2}, {{"ft2", ""}}, "of tracker ft2"},
       {"exporter",
        {"--tracker", "ft2", "--exporter", "e3"},
        {2},
        {{"ft2", "e3"}},
        "of exporter e3 of tracker ft2",
        true},
       {"everything", {}, {0, 1, 2}, {{"ft1", ""}, {"ft2", ""}}, "of every tracker"},
   };
   const Where collectorOf[] = {{"ft1", "e1", ""}, {"ft2", "e2", ""}, {"ft2", "e3", ""}};
   for (const auto& c : cases) {
      SCOPED_TRACE(c.what);
      const TestSupport::ScopedTableName table("clear");
      const std::string socketPath =
          c.controlSocketOption ? runtime.path() + "/chosen.sock" : runtime.socketOf(table);
      std::vector<std::string> socketArgs;
      if (c.controlSocketOption) {
         socketArgs = {"--control-socket", socketPath};
      }
      DatagramSocket(false).bindTo(socketPath);
      ASSERT_TRUE(exists(socketPath));
      ExportingAgent agent(table, socketArgs);
      ASSERT_TRUE(agent.exported()) << "the agent did not start exporting";
      EXPECT_EQ(exists(runtime.socketOf(table)), !c.controlSocketOption);
      const auto before = entriesOf(table);

      const Kel::Seconds requested = Kel::System::currentTime();
      std::vector<std::string> args = c.args;
      args.insert(args.end(), socketArgs.begin(), socketArgs.end());
      const ChildProcess::Result result = clear(table, args);
      const Kel::Seconds answered = Kel::System::currentTime();
      EXPECT_EQ(result.exitCode, 0) << result.err;
      EXPECT_NE(result.out.find(c.message), std::string::npos) << result.out;

      // The agent answers after the library has cleared, so the table shows
      // it at once.
      auto after = entriesOf(table);
      for (int i = 0; i < 3; ++i) {
         Where where = collectorOf[i];
         std::get<2>(where) = agent.collector(i);
         const bool present = after.contains(where);
         EXPECT_EQ(present, !c.cleared.contains(i)) << "collector " << i;
         if (present) {
            EXPECT_GE(after.at(where).exportedMessageTotalCount(),
                      before.at(where).exportedMessageTotalCount())
                << "collector " << i << " was reset";
            after.erase(where);
         }
      }
      std::set<std::pair<std::string, std::string>> clearTimes;
      for (const auto& [where, e] : after) {
         EXPECT_EQ(std::get<2>(where), "") << "an entry no case expects";
         EXPECT_GE(e.lastClearedTime(), requested);
         EXPECT_LE(e.lastClearedTime(), answered);
         clearTimes.emplace(std::get<0>(where), std::get<1>(where));
      }
      EXPECT_EQ(clearTimes, c.clearTimes);

      const ChildProcess::Result end = agent.stop();
      EXPECT_EQ(end.exitCode, 0) << end.err;
      EXPECT_FALSE(exists(socketPath)) << "the agent left its socket behind";
   }
}

// Failures are one line and a distinct exit status each, and change nothing.
TEST(IpfixStatsClear, FailuresSayWhyAndChangeNothing) {
   const TestSupport::ScopedRuntimeDirectory runtime;
   const TestSupport::ScopedTableName table("clearerr");
   ExportingAgent agent(table);
   ASSERT_TRUE(agent.exported()) << "the agent did not start exporting";
   const auto before = entriesOf(table);

   const TestSupport::ScopedTableName noAgent("clearnone");
   const TestSupport::ScopedTableName staleTable("clearstale");
   DatagramSocket(false).bindTo(runtime.socketOf(staleTable));
   const struct {
      const char* what;
      std::string table;
      std::vector<std::string> args;
      int exitCode;
      const char* message;
   } cases[] = {
       {"unknown tracker", table, {"--tracker", "ft9"}, 7, "no tracker named 'ft9'"},
       {"unknown exporter",
        table,
        {"--tracker", "ft1", "--exporter", "e2"},
        7,
        "tracker 'ft1' has no exporter named 'e2'"},
       {"exporter without tracker",
        table,
        {"--exporter", "e1"},
        2,
        "an exporter needs its tracker"},
       {"empty tracker", table, {"--tracker", ""}, 2, "--tracker must not be empty"},
       {"name too long", table, {"--tracker", std::string(64, 't')}, 2, "longer than 63 octets"},
       {"with --json", table, {"--tracker", "ft1", "--json"}, 2, "do not go with clear"},
       {"bad table name", "../etc", {}, 2, "invalid table name '../etc'"},
       {"no agent", noAgent, {"--tracker", "ft1"}, 6, "no agent running for table"},
       {"stale socket", staleTable, {"--tracker", "ft1"}, 6, "no agent running for table"},
       {"no agent at --control-socket",
        table,
        {"--tracker", "ft1", "--control-socket", runtime.path() + "/missing/x.sock"},
        6,
        "no agent running for table"},
       {"--control-socket naming no file",
        table,
        {"--control-socket", ""},
        2,
        "does not name a file"},
   };
   for (const auto& c : cases) {
      SCOPED_TRACE(c.what);
      const ChildProcess::Result result = clear(c.table, c.args);
      EXPECT_EQ(result.exitCode, c.exitCode);
      EXPECT_EQ(result.out, "");
      EXPECT_TRUE(result.err.starts_with("ipfix-stats: ")) << result.err;
      EXPECT_NE(result.err.find(c.message), std::string::npos) << result.err;
      EXPECT_EQ(result.err.find('\n'), result.err.size() - 1) << "one line: " << result.err;
   }
   expectUnchanged(before, table);
   EXPECT_TRUE(exists(runtime.socketOf(staleTable))) << "only the agent replaces a stale socket";
   EXPECT_EQ(agent.stop().exitCode, 0);
}

// Whatever arrives on the socket is answered with the reason it is refused,
// changes nothing, and leaves the agent serving.
TEST(IpfixStatsClear, MalformedRequestsAreAnsweredAndChangeNothing) {
   const TestSupport::ScopedRuntimeDirectory runtime;
   const TestSupport::ScopedTableName table("clearbad");
   ExportingAgent agent(table);
   ASSERT_TRUE(agent.exported()) << "the agent did not start exporting";
   const auto before = entriesOf(table);
   const std::string socketPath = runtime.socketOf(table);

   // A request that cannot be answered, from a socket without an address,
   // is not done either.
   DatagramSocket(false).sendTo(socketPath, "clear tracker=ft1\n");
   const struct {
      std::string request;
      const char* reply;
   } cases[] = {
       {"", "error: empty request"},
       {"flush\n", "error: unknown command 'flush'"},
       {"clear tracker=ft1 colour=red\n", "error: unknown field 'colour'"},
       {"clear  tracker=ft1\n", "error: malformed request"},
       {"clear tracker=ft1\nclear\n", "error: the request must be one line"},
       {std::string("clear tracker=ft1\0", 18), "error: the request must be one line"},
       {"clear tracker=ft%1\n", "error: field 'tracker': the name is not percent-encoded"},
       {"clear exporter=e1\n", "error: an exporter needs its tracker"},
       {"clear tracker=ft9\n", "error: no tracker named 'ft9'"},
       {"clear tracker=" + std::string(5000, 'x') + "\n", "error: request longer than 512 octets"},
   };
   DatagramSocket client;
   for (const auto& c : cases) {
      SCOPED_TRACE(c.request.substr(0, 40));
      client.sendTo(socketPath, c.request);
      const auto reply = client.receive();
      ASSERT_TRUE(reply) << "no reply";
      EXPECT_TRUE(reply->starts_with(c.reply)) << *reply;
      EXPECT_EQ(reply->find('\n'), reply->size() - 1) << "one line: " << *reply;
   }
   expectUnchanged(before, table);

   // Still serving: a good request is done.
   client.sendTo(socketPath, "clear tracker=ft1\n");
   EXPECT_EQ(client.receive(), "ok\n");
   EXPECT_FALSE(entriesOf(table).contains(Where{"ft1", "e1", agent.collector(0)}));
   EXPECT_EQ(agent.stop().exitCode, 0);
}

// An agent does not take a socket path it does not own: a second agent on
// the same table, or a file that is not a socket, stops it before it touches
// the table; so does a directory it cannot put its socket in.
TEST(IpfixStatsClear, AgentKeepsOffSocketPathsItDoesNotOwn) {
   const TestSupport::ScopedRuntimeDirectory runtime;
   const TestSupport::ScopedTableName table("clearown");
   ExportingAgent first(table);
   ASSERT_TRUE(first.exported()) << "the agent did not start exporting";
   const TestSupport::ScopedTableName fileTable("clearfile");
   const std::string filePath = runtime.socketOf(fileTable);
   std::ofstream(filePath) << "not a socket\n";

   const std::string configPath = ::testing::TempDir() + "/clear-own.yaml";
   std::ofstream(configPath) << config(1, 2, 3);
   const struct {
      const char* what;
      std::string table;
      std::vector<std::string> args;
      std::string message;
   } cases[] = {
       {"served by another agent", table, {}, "another ipfix-agent serves this statistics table"},
       {"not a socket", fileTable, {}, "the path exists and is not a socket"},
       {"missing directory",
        table,
        {"--control-socket", runtime.path() + "/missing/x.sock"},
        "control socket directory " + runtime.path() + "/missing does not exist"},
       {"directory that is a file",
        table,
        {"--control-socket", filePath + "/x.sock"},
        "control socket directory " + filePath + " is not a directory"},
   };
   for (const auto& c : cases) {
      SCOPED_TRACE(c.what);
      const auto before = entriesOf(table);
      std::vector<std::string> command{ipfixAgent, "--config", configPath, "--stats-table",
                                       c.table};
      command.insert(command.end(), c.args.begin(), c.args.end());
      const ChildProcess::Result second = ChildProcess::run(command);
      EXPECT_EQ(second.exitCode, 1);
      EXPECT_NE(second.err.find(c.message), std::string::npos) << second.err;
      EXPECT_EQ(second.err.find('\n'), second.err.size() - 1) << "one line: " << second.err;
      expectUnchanged(before, table);
   }
   std::ifstream in(filePath);
   EXPECT_EQ(std::string(std::istreambuf_iterator<char>(in), {}), "not a socket\n");
   ::unlink(configPath.c_str());

   // The first agent still serves its table.
   EXPECT_EQ(clear(table, {"--tracker", "ft2"}).exitCode, 0);
   EXPECT_EQ(first.stop().exitCode, 0);
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
   const TestSupport::ScopedRuntimeDirectory runtime;
   // The agent of nobody makes its socket there too.
   ASSERT_EQ(::chown(runtime.path().c_str(), nobody, nobody), 0) << std::strerror(errno);
   const struct {
      const char* what;
      uid_t agentUser;
      // Refused senders first: the table must still be untouched when they
      // have been refused.
      std::vector<std::pair<uid_t, bool>> senders;  // uid, answered
   } agents[] = {
       {"agent of root", 0, {{nobody, false}, {0, true}}},
       {"agent of nobody", nobody, {{anotherUser, false}, {nobody, true}, {0, true}}},
   };
   for (const auto& a : agents) {
      SCOPED_TRACE(a.what);
      const TestSupport::ScopedTableName table("clearuser");
      ExportingAgent agent(table, {}, a.agentUser);
      ASSERT_TRUE(agent.exported()) << "the agent did not start exporting";
      const auto before = entriesOf(table);
      std::vector<std::string> refusalsLogged;
      for (const auto& [uid, answered] : a.senders) {
         SCOPED_TRACE("sender uid " + std::to_string(uid));
         DatagramSocket client;
         client.connectTo(runtime.socketOf(table));
         const std::string request = "clear tracker=ft1\n";
         const pid_t sender = ::fork();
         if (sender == 0) {
            const bool sent = TestSupport::becomeUser(uid) &&
                              ::send(client.fd(), request.data(), request.size(), MSG_DONTWAIT) ==
                                  static_cast<ssize_t>(request.size());
            ::_exit(sent ? 0 : 1);
         }
         int status = 0;
         ASSERT_EQ(::waitpid(sender, &status, 0), sender);
         ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "the sender failed";
         const auto reply = client.receive();
         ASSERT_TRUE(reply) << "no reply";
         if (answered) {
            EXPECT_EQ(*reply, "ok\n");
         } else {
            EXPECT_EQ(*reply, "error: permission denied: only uid " + std::to_string(a.agentUser) +
                                  " and root may send requests\n");
            expectUnchanged(before, table);
            refusalsLogged.push_back("refused a control request from uid " + std::to_string(uid) +
                                     " (pid " + std::to_string(sender) + ")");
         }
      }
      const ChildProcess::Result end = agent.stop();
      EXPECT_EQ(end.exitCode, 0) << end.err;
      for (const std::string& line : refusalsLogged) {
         EXPECT_NE(end.err.find(line), std::string::npos) << end.err;
      }
   }
}

}  // namespace
