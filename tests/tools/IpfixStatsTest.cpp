#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cctype>
#include <nlohmann/json.hpp>

#include "Ipfix/CollectorStatsUpdate.h"
#include "Kel/System.h"
#include "StatsReport.h"
#include "support/ChildProcess.h"
#include "support/FutexSleeper.h"
#include "support/ScopedTableName.h"
#include "support/SegmentBytes.h"
#include "tools/OpenMetricsParser.h"
#include "tools/StatsWriterProcess.h"

namespace {

using TestSupport::ChildProcess;
using TestSupport::StatsWriterProcess;
using Vorpa::Ipfix::CollectorInfo;
using Vorpa::Ipfix::SetCount;
using Vorpa::Ipfix::SetId;

const std::string ipfixStats = IPFIX_STATS_PATH;

CollectorInfo collector(const char* text) {
   return CollectorInfo::parse(text).value();
}

// The agent's side: a statistics table written through the update rules at
// times a known number of seconds before the real present, which is what the
// tool measures ages against.
class IpfixStatsTest : public ::testing::Test {
 protected:
   void SetUp() override {
      const SetCount templates[] = {{SetId(2), 3}};
      const SetCount data[] = {{SetId(256), 5}, {SetId(257), 2}};
      const SetCount one[] = {{SetId(256), 1}};
      const CollectorInfo v4 = collector("192.0.2.1:4739");
      const CollectorInfo other = collector("192.0.2.7:2055");
      const auto at = [&](Kel::Seconds secondsAgo) {
         clock.clock().advanceTo(writtenAt - secondsAgo);
      };
      at(100);
      Vorpa::Ipfix::statsUpdateAfterTemplates(*stats, "ft1", "exp1", v4, 200, templates);
      at(50);
      Vorpa::Ipfix::statsUpdateAfterOptionsData(*stats, "ft1", "exp1", v4, 300, data);
      at(30);
      Vorpa::Ipfix::statsUpdateAfterTemplates(*stats, "ft1", "exp2", collector("192.0.2.2:4739"),
                                              200, templates);
      at(20);
      Vorpa::Ipfix::statsClear(*stats, "ft1", "exp2");
      at(10);
      Vorpa::Ipfix::statsUpdateAfterOptionsData(*stats, "ft2", "exp9", other, 90, one);
      at(5);
      Vorpa::Ipfix::statsClear(*stats, "ft2", "");
      at(1);
      Vorpa::Ipfix::statsUpdateAfterOptionsData(*stats, "ft2", "exp9", other, 90, one);
   }

   // Seconds since the entries were written, measured after the tool ran:
   // every age it printed lies between the nominal age and that plus this.
   Kel::Seconds elapsed() const { return Kel::SystemClock().monotonic() - writtenAt; }

   // Checks `actual` against `expected` exactly, except that a number under a
   // key ending in "SecondsAgo" may exceed its nominal value by the time the
   // test took.
   void expectJson(const nlohmann::json& actual, const nlohmann::json& expected, Kel::Seconds late,
                   const std::string& path = "") const {
      if (expected.is_object()) {
         ASSERT_TRUE(actual.is_object()) << path;
         ASSERT_EQ(actual.size(), expected.size()) << path << ": " << actual.dump();
         for (const auto& [key, value] : expected.items()) {
            ASSERT_TRUE(actual.contains(key)) << path << "." << key;
            if (key.ends_with("SecondsAgo") && value.is_number()) {
               const double age = actual[key].get<double>();
               EXPECT_GE(age, value.get<double>() - 0.05) << path << "." << key;
               EXPECT_LE(age, value.get<double>() + late + 0.05) << path << "." << key;
            } else {
               expectJson(actual[key], value, late, path + "." + key);
            }
         }
      } else if (expected.is_array()) {
         ASSERT_TRUE(actual.is_array()) << path;
         ASSERT_EQ(actual.size(), expected.size()) << path << ": " << actual.dump();
         for (std::size_t i = 0; i < expected.size(); ++i) {
            expectJson(actual[i], expected[i], late, path + "[" + std::to_string(i) + "]");
         }
      } else {
         EXPECT_EQ(actual, expected) << path;
      }
   }

   const TestSupport::ScopedTableName name{"tool"};
   const Kel::Seconds writtenAt = Kel::System::currentTime();
   Kel::ScopedManualClock clock{writtenAt - 1000};
   Kel::Ptr<Vorpa::Ipfix::CollectorStatistics> stats =
       Vorpa::Ipfix::collectorStatisticsFactory(name, 16);
};

// Replaces each "<age> s ago" with "N s ago" and returns the ages in order.
std::vector<double> takeAges(std::string& text) {
   static const std::string suffix = " s ago";
   std::vector<double> ages;
   std::string replaced;
   std::size_t copied = 0;
   for (std::size_t at = text.find(suffix); at != std::string::npos;
        at = text.find(suffix, at + 1)) {
      std::size_t begin = at;
      while (begin > copied && (std::isdigit(static_cast<unsigned char>(text[begin - 1])) ||
                                text[begin - 1] == '.')) {
         --begin;
      }
      ages.push_back(std::stod(text.substr(begin, at - begin)));
      replaced += text.substr(copied, begin - copied) + "N";
      copied = at;
   }
   text = replaced + text.substr(copied);
   return ages;
}

TEST_F(IpfixStatsTest, PrintsEveryCollectorWithAgesAndClearTimes) {
   const ChildProcess::Result result = ChildProcess::run({ipfixStats, "--table", name.str()});
   const Kel::Seconds late = elapsed();
   ASSERT_EQ(result.exitCode, 0) << result.err;
   EXPECT_EQ(result.err, "");
   std::string text = result.out;
   const std::vector<double> ages = takeAges(text);
   EXPECT_EQ(text,
             "Table " + name.str() +
                 ": 2 collectors, capacity 16, 0 inserts refused\n"
                 "Tracker ft1, cleared never\n"
                 "  Exporter exp1, cleared never\n"
                 "    Collector 192.0.2.1:4739\n"
                 "      messages 2, records 7, octets 500\n"
                 "      last sent N s ago, template N s ago, data never, options data N s ago\n"
                 "      set 2: records 0, templates 3\n"
                 "      set 256: records 5, templates 0\n"
                 "      set 257: records 2, templates 0\n"
                 "  Exporter exp2, cleared N s ago\n"
                 "Tracker ft2, cleared N s ago\n"
                 "  Exporter exp9, cleared N s ago\n"
                 "    Collector 192.0.2.7:2055\n"
                 "      messages 1, records 1, octets 90\n"
                 "      last sent N s ago, template never, data never, options data N s ago\n"
                 "      set 256: records 1, templates 0\n");
   const std::vector<double> nominal = {50, 100, 50, 20, 5, 5, 1, 1};
   ASSERT_EQ(ages.size(), nominal.size());
   for (std::size_t i = 0; i < nominal.size(); ++i) {
      EXPECT_GE(ages[i], nominal[i] - 0.05) << i;
      EXPECT_LE(ages[i], nominal[i] + late + 0.05) << i;
   }
}

TEST_F(IpfixStatsTest, PrintsTheSameAsJson) {
   const ChildProcess::Result result =
       ChildProcess::run({ipfixStats, "--json", "--table", name.str()});
   const Kel::Seconds late = elapsed();
   ASSERT_EQ(result.exitCode, 0) << result.err;
   const auto noSets = nlohmann::json::array();
   const nlohmann::json expected = {
       {"table", name.str()},
       {"capacity", 16},
       {"insertsRefused", 0},
       {"trackers",
        {{{"name", "ft1"},
          {"clearedSecondsAgo", nullptr},
          {"exporters",
           {{{"name", "exp1"},
             {"clearedSecondsAgo", nullptr},
             {"collectors",
              {{{"collector", "192.0.2.1:4739"},
                {"messages", 2},
                {"records", 7},
                {"octets", 500},
                {"lastSentSecondsAgo", 50},
                {"lastTemplateSentSecondsAgo", 100},
                {"lastDataRecordSentSecondsAgo", nullptr},
                {"lastOptionsDataSentSecondsAgo", 50},
                {"sets",
                 {{{"setId", 2}, {"records", 0}, {"templates", 3}},
                  {{"setId", 256}, {"records", 5}, {"templates", 0}},
                  {{"setId", 257}, {"records", 2}, {"templates", 0}}}}}}}},
            {{"name", "exp2"}, {"clearedSecondsAgo", 20}, {"collectors", noSets}}}}},
         {{"name", "ft2"},
          {"clearedSecondsAgo", 5},
          {"exporters",
           {{{"name", "exp9"},
             {"clearedSecondsAgo", 5},
             {"collectors",
              {{{"collector", "192.0.2.7:2055"},
                {"messages", 1},
                {"records", 1},
                {"octets", 90},
                {"lastSentSecondsAgo", 1},
                {"lastTemplateSentSecondsAgo", nullptr},
                {"lastDataRecordSentSecondsAgo", nullptr},
                {"lastOptionsDataSentSecondsAgo", 1},
                {"sets", {{{"setId", 256}, {"records", 1}, {"templates", 0}}}}}}}}}}}}}};
   expectJson(nlohmann::json::parse(result.out), expected, late);
}

// The OpenMetrics form of the same table, read back by an independent
// parser: every family typed and documented, every sample with its labels.
// A kind of message never sent has no age sample; a tracker's exporter
// without collectors has no samples at all.
TEST_F(IpfixStatsTest, PrintsTheSameAsOpenMetrics) {
   const ChildProcess::Result result =
       ChildProcess::run({ipfixStats, "--format", "openmetrics", "--table", name.str()});
   const Kel::Seconds late = elapsed();
   ASSERT_EQ(result.exitCode, 0) << result.err;
   const TestSupport::ParsedMetrics parsed = TestSupport::parseOpenMetrics(result.out);
   ASSERT_EQ(parsed.error, "") << result.out;

   const std::map<std::string, std::string> types = {
       {"ipfix_table_capacity", "gauge"},
       {"ipfix_table_entries", "gauge"},
       {"ipfix_table_inserts_refused", "counter"},
       {"ipfix_collector_messages", "counter"},
       {"ipfix_collector_records", "counter"},
       {"ipfix_collector_octets", "counter"},
       {"ipfix_collector_set_records", "counter"},
       {"ipfix_collector_set_templates", "counter"},
       {"ipfix_collector_last_sent_seconds", "gauge"}};
   ASSERT_EQ(parsed.families.size(), types.size());
   for (const auto& [family, type] : types) {
      ASSERT_TRUE(parsed.families.contains(family)) << family;
      EXPECT_EQ(parsed.families.at(family)["type"], type) << family;
      EXPECT_NE(parsed.families.at(family)["help"], "") << family;
   }
   EXPECT_EQ(parsed.families.at("ipfix_collector_last_sent_seconds")["unit"], "seconds");

   using Labels = TestSupport::MetricLabels;
   const Labels table{{"table", name.str()}};
   const Labels c1{{"tracker", "ft1"}, {"exporter", "exp1"}, {"collector", "192.0.2.1:4739"}};
   const Labels c2{{"tracker", "ft2"}, {"exporter", "exp9"}, {"collector", "192.0.2.7:2055"}};
   const auto with = [](Labels labels, const char* label, const char* value) {
      labels[label] = value;
      return labels;
   };
   const struct {
      const char* name;
      Labels labels;
      double value;
   } expected[] = {
       {"ipfix_table_capacity", table, 16},
       {"ipfix_table_entries", table, 4},  // two collectors, two clear times
       {"ipfix_table_inserts_refused_total", table, 0},
       {"ipfix_collector_messages_total", c1, 2},
       {"ipfix_collector_messages_total", c2, 1},
       {"ipfix_collector_records_total", c1, 7},
       {"ipfix_collector_records_total", c2, 1},
       {"ipfix_collector_octets_total", c1, 500},
       {"ipfix_collector_octets_total", c2, 90},
       {"ipfix_collector_set_records_total", with(c1, "set_id", "2"), 0},
       {"ipfix_collector_set_records_total", with(c1, "set_id", "256"), 5},
       {"ipfix_collector_set_records_total", with(c1, "set_id", "257"), 2},
       {"ipfix_collector_set_records_total", with(c2, "set_id", "256"), 1},
       {"ipfix_collector_set_templates_total", with(c1, "set_id", "2"), 3},
       {"ipfix_collector_set_templates_total", with(c1, "set_id", "256"), 0},
       {"ipfix_collector_set_templates_total", with(c1, "set_id", "257"), 0},
       {"ipfix_collector_set_templates_total", with(c2, "set_id", "256"), 0},
       {"ipfix_collector_last_sent_seconds", with(c1, "kind", "any"), 50},
       {"ipfix_collector_last_sent_seconds", with(c1, "kind", "template"), 100},
       {"ipfix_collector_last_sent_seconds", with(c1, "kind", "options_data"), 50},
       {"ipfix_collector_last_sent_seconds", with(c2, "kind", "any"), 1},
       {"ipfix_collector_last_sent_seconds", with(c2, "kind", "options_data"), 1},
   };
   std::map<std::string, double> unexpected = parsed.samples;
   for (const auto& e : expected) {
      const std::string key = TestSupport::sampleKey(e.name, e.labels);
      SCOPED_TRACE(key);
      ASSERT_TRUE(parsed.samples.contains(key)) << result.out;
      const double value = parsed.samples.at(key);
      if (std::string_view(e.name).ends_with("_seconds")) {
         EXPECT_GE(value, e.value - 0.05);
         EXPECT_LE(value, e.value + late + 0.05);
      } else {
         EXPECT_EQ(value, e.value);
      }
      unexpected.erase(key);
   }
   EXPECT_TRUE(unexpected.empty()) << unexpected.begin()->first;
}

// Names are the writer's octets: whatever they hold, the exposition stays
// UTF-8 that the parser accepts, with the characters the format escapes
// coming back as they were and each octet outside a valid sequence as U+FFFD.
TEST(IpfixStatsOpenMetrics, NamesOfAnyOctets) {
   const TestSupport::ScopedTableName name("toolom");
   const auto stats = Vorpa::Ipfix::collectorStatisticsFactory(name, 4);
   const std::string tracker = "ft \"q\" \\b\nl\xc3";
   // A surrogate, a code point past U+10FFFF, an overlong '/', the valid é,
   // € and U+1D11E, overlong three- and four-octet forms.
   const std::string exporter =
       "\xed\xa0\x80x\xf4\x90\x80\x80\xc0\xaf\xc3\xa9\xe2\x82\xac\xf0\x9d\x84\x9e"
       "\xe0\x80\x80\xf0\x80\x80\x80";
   stats->statsIs(Vorpa::Ipfix::CollectorStatisticsEntry(
       Vorpa::Ipfix::CollectorStatisticsKey(tracker, exporter, collector("192.0.2.1:4739"))));

   const ChildProcess::Result result =
       ChildProcess::run({ipfixStats, "--format", "openmetrics", "--table", name.str()});
   ASSERT_EQ(result.exitCode, 0) << result.err;
   const TestSupport::ParsedMetrics parsed = TestSupport::parseOpenMetrics(result.out);
   ASSERT_EQ(parsed.error, "") << result.out;
   const std::string bad = "\xef\xbf\xbd";
   const std::string key =
       TestSupport::sampleKey("ipfix_collector_messages_total",
                              {{"tracker", "ft \"q\" \\b\nl" + bad},
                               {"exporter", bad + bad + bad + "x" + bad + bad + bad + bad + bad +
                                                bad + "\xc3\xa9\xe2\x82\xac\xf0\x9d\x84\x9e" + bad +
                                                bad + bad + bad + bad + bad + bad},
                               {"collector", "192.0.2.1:4739"}});
   EXPECT_TRUE(parsed.samples.contains(key)) << result.out;
}

// --watch sleeps on the table until the agent changes it, then prints again.
TEST_F(IpfixStatsTest, WatchPrintsAgainAfterEveryChange) {
   ChildProcess watch({ipfixStats, "--watch", "--json", "--table", name.str()});
   // Messages of ft2's one collector in the next report; null once it is gone.
   const auto messagesOfFt2 = [&]() -> nlohmann::json {
      const auto line = watch.readLine();
      EXPECT_TRUE(line.has_value());
      const auto exporters = nlohmann::json::parse(line.value_or("{}"))["trackers"][1]["exporters"];
      return exporters.empty() ? nlohmann::json(nullptr)
                               : exporters[0]["collectors"][0]["messages"];
   };
   const auto waitUntilAsleep = [&] {
      ASSERT_TRUE(TestSupport::waitUntilAsleepInFutex(watch.pid()))
          << "the watch does not sleep on the table";
   };
   const SetCount one[] = {{SetId(256), 1}};
   const CollectorInfo other = collector("192.0.2.7:2055");

   EXPECT_EQ(messagesOfFt2(), 1);
   waitUntilAsleep();
   Vorpa::Ipfix::statsUpdateAfterOptionsData(*stats, "ft2", "exp9", other, 90, one);
   EXPECT_EQ(messagesOfFt2(), 2);
   waitUntilAsleep();
   stats->statsDel(Vorpa::Ipfix::CollectorStatisticsKey("ft2", "exp9", other));
   EXPECT_EQ(messagesOfFt2(), nullptr);

   watch.signal(SIGTERM);
   const ChildProcess::Result end = watch.finish();
   EXPECT_EQ(end.exitCode, 0) << "an interrupted watch ends cleanly: " << end.err;
   EXPECT_EQ(end.out, "");
}

// A restarted agent replaces the table's segment: a watch goes on with the
// new one and a one-shot run reads the new one, whether the old writer exited
// or was killed.
TEST(IpfixStatsRestart, WatchFollowsARestartedWriter) {
   for (const bool killed : {false, true}) {
      SCOPED_TRACE(killed ? "writer killed" : "writer exited");
      const TestSupport::ScopedTableName name("restart");
      auto writer = std::make_unique<StatsWriterProcess>(name, "ft-first");
      ASSERT_TRUE(writer->started());
      ChildProcess watch({ipfixStats, "--watch", "--json", "--table", name.str()});
      // The tracker of the next report that has one: a watch may also report
      // the new table before its writer filled it.
      const auto nextTracker = [&]() -> std::string {
         for (int report = 0; report < 4; ++report) {
            const auto line = watch.readLine();
            if (!line) {
               return "(watch ended)";
            }
            const auto trackers = nlohmann::json::parse(*line)["trackers"];
            if (!trackers.empty()) {
               return trackers[0]["name"];
            }
         }
         return "(no tracker)";
      };
      EXPECT_EQ(nextTracker(), "ft-first");
      writer->stop(killed);
      writer = std::make_unique<StatsWriterProcess>(name, "ft-second");
      ASSERT_TRUE(writer->started());
      EXPECT_EQ(nextTracker(), "ft-second");

      const ChildProcess::Result once = ChildProcess::run({ipfixStats, "--json", "--table", name});
      ASSERT_EQ(once.exitCode, 0) << once.err;
      EXPECT_EQ(nlohmann::json::parse(once.out)["trackers"][0]["name"], "ft-second");

      watch.signal(SIGTERM);
      const ChildProcess::Result end = watch.finish();
      EXPECT_EQ(end.exitCode, 0) << end.err;
      EXPECT_EQ(end.out, "");
   }
}

TEST(IpfixStatsErrors, OneLineAndADistinctExitCodeEach) {
   std::vector<std::unique_ptr<TestSupport::ScopedTableName>> names;
   const auto freshName = [&] {
      names.push_back(std::make_unique<TestSupport::ScopedTableName>("toolerr"));
      return names.back()->str();
   };
   std::vector<Kel::Ptr<Vorpa::Ipfix::CollectorStatistics>> writers;
   const auto statsTable = [&] {
      const std::string name = freshName();
      writers.push_back(Vorpa::Ipfix::collectorStatisticsFactory(name, 4));
      writers.back()->statsIs(Vorpa::Ipfix::CollectorStatisticsEntry(
          Vorpa::Ipfix::CollectorStatisticsKey("ft-damaged", "exp1", collector("192.0.2.1:1"))));
      return name;
   };
   std::vector<Vorpa::Table<Kel::U64, Kel::U64>> otherTables;
   const struct {
      const char* what;
      std::function<std::vector<std::string>()> args;
      int exitCode;
      const char* message;
   } cases[] = {
       {"missing",
        [&] {
           return std::vector<std::string>{"--table", freshName()};
        },
        3, "no table named"},
       {"bad name",
        [] {
           return std::vector<std::string>{"--table", "a/b"};
        },
        2, "invalid table name 'a/b'"},
       {"other layout",
        [&] {
           const std::string name = freshName();
           otherTables.push_back(Vorpa::Table<Kel::U64, Kel::U64>::create(name, 4));
           return std::vector<std::string>{"--table", name};
        },
        4, "holds other key or value types"},
       {"corrupt header",
        [&] {
           const std::string name = statsTable();
           TestSupport::SegmentBytes(name).bytes()[40] ^= 1;
           return std::vector<std::string>{"--table", name};
        },
        5, "has a corrupt header"},
       {"corrupt entry",
        [&] {
           const std::string name = statsTable();
           TestSupport::SegmentBytes bytes(name);
           bytes.bytes()[bytes.find("ft-damaged", 10)] ^= 1;
           return std::vector<std::string>{"--table", name};
        },
        5, "has 1 corrupt entries"},
   };
   for (const auto& c : cases) {
      SCOPED_TRACE(c.what);
      std::vector<std::string> args = c.args();
      args.insert(args.begin(), ipfixStats);
      const ChildProcess::Result result = ChildProcess::run(args);
      EXPECT_EQ(result.exitCode, c.exitCode);
      EXPECT_EQ(result.out, "");
      EXPECT_TRUE(result.err.starts_with("ipfix-stats: ")) << result.err;
      EXPECT_NE(result.err.find(c.message), std::string::npos) << result.err;
      EXPECT_EQ(result.err.find('\n'), result.err.size() - 1) << "one line: " << result.err;
   }
   const ChildProcess::Result usage = ChildProcess::run({ipfixStats, "--frobnicate"});
   EXPECT_EQ(usage.exitCode, 2);
}

// Names are the writer's octets, not necessarily UTF-8: the JSON report
// replaces what is not, instead of failing as a whole.
TEST(IpfixStatsJson, NamesThatAreNotUtf8) {
   using Vorpa::Ipfix::CollectorStatisticsEntry;
   using Vorpa::Ipfix::CollectorStatisticsKey;
   const CollectorStatisticsKey key("ft\xff", "exp\xc3", *CollectorInfo::parse("192.0.2.1:4739"));
   const auto trackers = IpfixStats::groupEntries({CollectorStatisticsEntry(key)});
   const auto report = IpfixStats::jsonReport({"t", 4, 0}, trackers, 10.0);
   std::string text;
   ASSERT_NO_THROW(text = IpfixStats::jsonText(report, -1));
   EXPECT_NE(text.find("\"ft\xef\xbf\xbd\""), std::string::npos) << text;
   EXPECT_NE(text.find("\"exp\xef\xbf\xbd\""), std::string::npos) << text;
}

}  // namespace
