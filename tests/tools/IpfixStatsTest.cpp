#include <gtest/gtest.h>
#include <sys/stat.h>

#include <nlohmann/json.hpp>
#include <sstream>

#include "Ipfix/CollectorStatsUpdate.h"
#include "Kel/System.h"
#include "support/DatagramSocket.h"
#include "support/FutexSleeper.h"
#include "support/ReplaceAll.h"
#include "support/ScopedRuntimeDirectory.h"
#include "support/ScopedTableName.h"
#include "support/SegmentBytes.h"
#include "tools/ToolTest.h"

// ipfix-stats reading a statistics table: its three formats, --watch, a
// restarted agent, and how each kind of failure is reported.
namespace {

using TestSupport::ChildProcess;
using Vorpa::Ipfix::CollectorInfo;
using Vorpa::Ipfix::SetCount;
using Vorpa::Ipfix::SetId;

// `text` with the value of each OpenMetrics age sample (in seconds) replaced
// by "N", and those ages in order.
std::pair<std::string, std::vector<double>> withoutAges(const std::string& text) {
   std::pair<std::string, std::vector<double>> out;
   std::istringstream lines(text);
   for (std::string line; std::getline(lines, line);) {
      if (line.find("_seconds{") != std::string::npos) {
         const std::size_t at = line.rfind("} ") + 2;
         out.second.push_back(std::stod(line.substr(at)));
         line = line.substr(0, at) + "N";
      }
      out.first += line + '\n';
   }
   return out;
}

// The agent's side: a statistics table written through the update rules at
// times a known number of seconds before the real present, which is what the
// tool measures ages against.
struct IpfixStatsTest : ::testing::Test {
   void SetUp() override {
      const SetCount templates[] = {{SetId(2), 3}};
      const SetCount data[] = {{SetId(256), 5}, {SetId(257), 2}};
      const CollectorInfo v4 = *CollectorInfo::parse("192.0.2.1:4739");
      const auto at = [&](Kel::Seconds secondsAgo) {
         clock.clock().advanceTo(writtenAt - secondsAgo);
      };
      at(100);
      Vorpa::Ipfix::statsUpdateAfterTemplates(*stats, "ft1", "exp1", v4, 200, templates);
      at(50);
      Vorpa::Ipfix::statsUpdateAfterOptionsData(*stats, "ft1", "exp1", v4, 300, data);
      at(30);
      Vorpa::Ipfix::statsUpdateAfterTemplates(
          *stats, "ft1", "exp2", *CollectorInfo::parse("192.0.2.2:4739"), 200, templates);
      at(20);
      Vorpa::Ipfix::statsClear(*stats, "ft1", "exp2");
      at(10);
      sendToFt2();
      at(5);
      Vorpa::Ipfix::statsClear(*stats, "ft2", "");
      at(1);
      sendToFt2();
   }
   void sendToFt2() {
      const SetCount one[] = {{SetId(256), 1}};
      Vorpa::Ipfix::statsUpdateAfterOptionsData(*stats, "ft2", exp9, ft2Collector, 90, one);
   }

   const TestSupport::ScopedTableName name{"tool"};
   const Kel::Seconds writtenAt = Kel::System::currentTime();
   const CollectorInfo ft2Collector = *CollectorInfo::parse("192.0.2.7:2055");
   // Names are the writer's octets: ft2's exporter holds some that OpenMetrics
   // escapes, then a surrogate, a code point past U+10FFFF, an overlong '/',
   // the valid é, € and U+1D11E, overlong three- and four-octet forms and a
   // sequence cut short. Reports stay UTF-8: each octet outside a valid
   // sequence comes back as U+FFFD, as `exp9ReadBack` shows.
   const std::string exp9 =
       "exp9 \"q\" \\b\nl\xed\xa0\x80x\xf4\x90\x80\x80\xc0\xaf\xc3\xa9\xe2\x82\xac\xf0\x9d\x84\x9e"
       "\xe0\x80\x80\xf0\x80\x80\x80\xc3";
   const std::string exp9ReadBack = R"("exp9 \"q\" \\b\nl���x������é€𝄞��������")";
   Kel::ScopedManualClock clock{writtenAt - 1000};
   Kel::Ptr<Vorpa::Ipfix::CollectorStatistics> stats =
       Vorpa::Ipfix::collectorStatisticsFactory(name, 16);
};

// As prometheus_client reads it: every family typed and documented, a kind
// of message never sent without an age sample, a tracker's exporter without
// collectors without samples at all.
const char* const openMetricsReport = R"(# ipfix_table_capacity gauge
ipfix_table_capacity{table="T"} 16
# ipfix_table_entries gauge
ipfix_table_entries{table="T"} 4
# ipfix_table_inserts_refused counter
ipfix_table_inserts_refused_total{table="T"} 0
# ipfix_collector_messages counter
ipfix_collector_messages_total{collector="192.0.2.1:4739",exporter="exp1",tracker="ft1"} 2
ipfix_collector_messages_total{collector="192.0.2.7:2055",exporter="exp9",tracker="ft2"} 1
# ipfix_collector_records counter
ipfix_collector_records_total{collector="192.0.2.1:4739",exporter="exp1",tracker="ft1"} 7
ipfix_collector_records_total{collector="192.0.2.7:2055",exporter="exp9",tracker="ft2"} 1
# ipfix_collector_octets counter
ipfix_collector_octets_total{collector="192.0.2.1:4739",exporter="exp1",tracker="ft1"} 500
ipfix_collector_octets_total{collector="192.0.2.7:2055",exporter="exp9",tracker="ft2"} 90
# ipfix_collector_set_records counter
ipfix_collector_set_records_total{collector="192.0.2.1:4739",exporter="exp1",set_id="2",tracker="ft1"} 0
ipfix_collector_set_records_total{collector="192.0.2.1:4739",exporter="exp1",set_id="256",tracker="ft1"} 5
ipfix_collector_set_records_total{collector="192.0.2.1:4739",exporter="exp1",set_id="257",tracker="ft1"} 2
ipfix_collector_set_records_total{collector="192.0.2.7:2055",exporter="exp9",set_id="256",tracker="ft2"} 1
# ipfix_collector_set_templates counter
ipfix_collector_set_templates_total{collector="192.0.2.1:4739",exporter="exp1",set_id="2",tracker="ft1"} 3
ipfix_collector_set_templates_total{collector="192.0.2.1:4739",exporter="exp1",set_id="256",tracker="ft1"} 0
ipfix_collector_set_templates_total{collector="192.0.2.1:4739",exporter="exp1",set_id="257",tracker="ft1"} 0
ipfix_collector_set_templates_total{collector="192.0.2.7:2055",exporter="exp9",set_id="256",tracker="ft2"} 0
# ipfix_collector_last_sent_seconds gauge seconds
ipfix_collector_last_sent_seconds{collector="192.0.2.1:4739",exporter="exp1",kind="any",tracker="ft1"} 50
ipfix_collector_last_sent_seconds{collector="192.0.2.1:4739",exporter="exp1",kind="template",tracker="ft1"} 100
ipfix_collector_last_sent_seconds{collector="192.0.2.1:4739",exporter="exp1",kind="options_data",tracker="ft1"} 50
ipfix_collector_last_sent_seconds{collector="192.0.2.7:2055",exporter="exp9",kind="any",tracker="ft2"} 1
ipfix_collector_last_sent_seconds{collector="192.0.2.7:2055",exporter="exp9",kind="options_data",tracker="ft2"} 1
)";

// The OpenMetrics exposition compared whole as prometheus_client reads it
// (an age may exceed its nominal value by the time the test took); of the
// other formats, what it does not show: clear times, kinds of message never
// sent, an exporter without collectors.
TEST_F(IpfixStatsTest, PrintsTheTableInEachFormat) {
   const auto run = [&](std::vector<std::string> args) {
      args.insert(args.end(), {"--table", name.str()});
      const ChildProcess::Result result = ToolTest::ipfixStats(args);
      EXPECT_EQ(result.exitCode, 0) << result.err;
      EXPECT_EQ(result.err, "");
      return TestSupport::replaceAll(result.out, name.str(), "T");
   };
   const ChildProcess::Result read = ToolTest::readOpenMetrics(run({"--format", "openmetrics"}));
   const auto json = nlohmann::json::parse(run({"--json"}));
   const std::string text = run({});
   const double late = Kel::SystemClock().monotonic() - writtenAt + 0.05;
   const auto expectAge = [&](double age, double nominal) {
      EXPECT_GE(age, nominal - 0.05);
      EXPECT_LE(age, nominal + late);
   };

   const auto [samples, ages] =
       withoutAges(TestSupport::replaceAll(read.out + read.err, exp9ReadBack, R"("exp9")"));
   const auto [expected, nominal] = withoutAges(openMetricsReport);
   EXPECT_EQ(samples, expected);
   ASSERT_EQ(ages.size(), nominal.size());
   for (std::size_t i = 0; i < nominal.size(); ++i) {
      expectAge(ages[i], nominal[i]);
   }

   const auto& ft1 = json["trackers"][0];
   EXPECT_EQ(ft1["clearedSecondsAgo"], nullptr);
   EXPECT_EQ(ft1["exporters"][0]["collectors"][0]["lastDataRecordSentSecondsAgo"], nullptr);
   EXPECT_EQ(ft1["exporters"][1]["name"], "exp2");
   EXPECT_EQ(ft1["exporters"][1]["collectors"], nlohmann::json::array());
   expectAge(ft1["exporters"][1]["clearedSecondsAgo"], 20);
   expectAge(json["trackers"][1]["clearedSecondsAgo"], 5);
   expectAge(json["trackers"][1]["exporters"][0]["clearedSecondsAgo"], 5);

   EXPECT_TRUE(text.starts_with("Table T: 2 collectors, capacity 16, 0 inserts refused\n")) << text;
}

// --watch sleeps on the table until the agent changes it, then prints again.
TEST_F(IpfixStatsTest, WatchPrintsAgainAfterEveryChange) {
   ChildProcess watch({IPFIX_STATS_PATH, "--watch", "--json", "--table", name.str()});
   // Messages of ft2's one collector in the next report; null once it is gone.
   const auto messagesOfFt2 = [&]() -> nlohmann::json {
      const auto exporters =
          nlohmann::json::parse(watch.readLine().value())["trackers"][1]["exporters"];
      return exporters.empty() ? nlohmann::json() : exporters[0]["collectors"][0]["messages"];
   };
   EXPECT_EQ(messagesOfFt2(), 1);
   ASSERT_TRUE(TestSupport::waitUntilAsleepInFutex(watch.pid())) << "the watch does not sleep";
   sendToFt2();
   EXPECT_EQ(messagesOfFt2(), 2);
   ASSERT_TRUE(TestSupport::waitUntilAsleepInFutex(watch.pid())) << "the watch does not sleep";
   stats->statsDel(Vorpa::Ipfix::CollectorStatisticsKey("ft2", exp9, ft2Collector));
   EXPECT_EQ(messagesOfFt2(), nullptr);
   ToolTest::stop(watch);
}

// Every failure that needs no agent running: one line, and the exit status
// of its kind (those of clear against an agent are in IpfixStatsClearTest).
TEST(IpfixStatsErrors, OneLineAndTheExitStatusOfTheirKind) {
   const TestSupport::ScopedTableName missing("errmissing");
   const TestSupport::ScopedTableName layout("errlayout");
   const TestSupport::ScopedTableName header("errheader");
   const TestSupport::ScopedTableName stale("errstale");
   const auto otherLayout = Vorpa::Table<Kel::U64, Kel::U64>::create(layout, 4);
   const auto writer = Vorpa::Ipfix::collectorStatisticsFactory(header, 4);
   ToolTest::addCollector(*writer, "ft-damaged");
   TestSupport::SegmentBytes(header).bytes()[40] ^= 1;
   const TestSupport::ScopedRuntimeDirectory runtime;
   TestSupport::DatagramSocket(false).bindTo(runtime.socketOf(stale));

   const struct {
      std::vector<std::string> args;
      int exitCode;
      std::string message;
   } cases[] = {
       {{"--table", missing}, 3, "no table named"},
       {{"--table", "a/b"}, 2, "invalid table name 'a/b'"},
       {{"--table", layout}, 4, "holds other key or value types"},
       {{"--table", header}, 5, "has a corrupt header"},
       {{"--json", "--format", "json"}, 2, "--json and --format do not go together"},
       {{"serve", "--listen", "localhost:9739"}, 2, "--listen: 'localhost:9739' is not ADDR:PORT"},
       {{"clear", "--exporter", "e1"}, 2, "an exporter needs its tracker"},
       {{"clear", "--table", stale}, 6, "no agent running for table"},
   };
   for (const auto& c : cases) {
      SCOPED_TRACE(c.args.front() + " " + c.args.back());
      ToolTest::expectFailure(ToolTest::ipfixStats(c.args), c.exitCode, c.message);
   }
   struct stat st {};
   EXPECT_EQ(::lstat(runtime.socketOf(stale).c_str(), &st), 0) << "only an agent replaces a socket";
}

}  // namespace
