#include <gtest/gtest.h>

#include <cstring>
#include <map>
#include <new>

#include "Ipfix/CollectorStatsUpdate.h"
#include "Kel/System.h"

namespace {

using Vorpa::Ipfix::CollectorInfo;
using Vorpa::Ipfix::CollectorSetStatisticsEntry;
using Vorpa::Ipfix::CollectorStatistics;
using Vorpa::Ipfix::CollectorStatisticsEntry;
using Vorpa::Ipfix::CollectorStatisticsKey;
using Vorpa::Ipfix::CollectorStatisticsReader;
using Vorpa::Ipfix::CollectorStatisticsTable;
using Vorpa::Ipfix::SetCount;
using Vorpa::Ipfix::SetId;

CollectorInfo collector(const char* text) {
   return CollectorInfo::parse(text).value();
}

// Records the keys its entity announced.
class StatsLog : public CollectorStatistics::Notifiee {
 public:
   explicit StatsLog(const Kel::Ptr<CollectorStatistics>& stats) { notifierIs(stats); }
   void onStats(const CollectorStatisticsKey& key) override { keys.push_back(key.vorpaString()); }
   std::vector<std::string> keys;
};

class CollectorStatisticsTest : public ::testing::Test {
 protected:
   Kel::Ptr<CollectorStatistics> makeStats(Kel::U32 capacity) {
      return Kel::makeActive<CollectorStatistics>(
          "stats", CollectorStatisticsTable::createAnonymous("stats", capacity));
   }

   // What another process would read.
   CollectorStatisticsEntry readBack(const CollectorStatisticsKey& key) const {
      CollectorStatisticsEntry entry;
      EXPECT_EQ(reader.entry(key, entry), Vorpa::ReadStatus::ok) << key.vorpaString();
      return entry;
   }

   Kel::ScopedManualClock clock{1000.0};
   Kel::Ptr<CollectorStatistics> stats = makeStats(16);
   CollectorStatisticsReader reader = CollectorStatisticsReader::attach(stats->statsControl());
   StatsLog log{stats};
   const CollectorInfo c1 = collector("192.0.2.1:4739");
   const CollectorInfo c2 = collector("[2001:db8::1]:4739");
};

TEST_F(CollectorStatisticsTest, OptionsDataAndTemplateMessagesAddUp) {
   const CollectorStatisticsKey key("ft1", "exp1", c1);
   const SetCount templates[] = {{SetId(2), 3}};
   const SetCount options[] = {{SetId(3), 4}};
   const SetCount data1[] = {{SetId(256), 5}, {SetId(257), 2}};
   const SetCount data2[] = {{SetId(257), 1}};

   Vorpa::Ipfix::statsUpdateAfterTemplates(*stats, "ft1", "exp1", c1, 200, templates);
   clock.advance(0.5);
   Vorpa::Ipfix::statsUpdateAfterTemplates(*stats, "ft1", "exp1", c1, 100, options);
   clock.advance(1.0);
   Vorpa::Ipfix::statsUpdateAfterOptionsData(*stats, "ft1", "exp1", c1, 300, data1);
   clock.advance(2.0);
   Vorpa::Ipfix::statsUpdateAfterOptionsData(*stats, "ft1", "exp1", c1, 60, data2);

   const CollectorStatisticsEntry e = readBack(key);
   EXPECT_EQ(e, stats->stats(key));
   EXPECT_EQ(e.exportedMessageTotalCount(), 4u);
   EXPECT_EQ(e.exportedFlowRecordTotalCount(), 8u) << "templates are not flow records";
   EXPECT_EQ(e.exportedOctetTotalCount(), 660u);
   EXPECT_EQ(e.lastSentTime(), 1003.5);
   EXPECT_EQ(e.lastTemplateSentTime(), 1000.5);
   EXPECT_EQ(e.lastOptionsDataSentTime(), 1003.5);
   EXPECT_EQ(e.lastDataRecordSentTime(), 0.0);
   EXPECT_EQ(e.lastClearedTime(), 0.0);
   const std::vector<CollectorSetStatisticsEntry> sets(e.setEntryStorage().used().begin(),
                                                       e.setEntryStorage().used().end());
   EXPECT_EQ(sets,
             (std::vector<CollectorSetStatisticsEntry>{
                 {SetId(2), 0, 3}, {SetId(3), 0, 4}, {SetId(256), 5, 0}, {SetId(257), 3, 0}}));
   EXPECT_EQ(log.keys, std::vector<std::string>(4, key.vorpaString()));
}

TEST_F(CollectorStatisticsTest, FourteenthSetIdLeavesTheEntryAsItWas) {
   std::vector<SetCount> thirteen;
   for (Kel::U16 i = 0; i < 13; ++i) {
      thirteen.push_back({SetId(256 + i), 1});
   }
   Vorpa::Ipfix::statsUpdateAfterOptionsData(*stats, "ft1", "exp1", c1, 100, thirteen);
   const CollectorStatisticsKey key("ft1", "exp1", c1);
   const CollectorStatisticsEntry before = readBack(key);
   const SetCount fourteenth[] = {{SetId(256), 1}, {SetId(999), 1}};
   EXPECT_THROW(
       Vorpa::Ipfix::statsUpdateAfterOptionsData(*stats, "ft1", "exp1", c1, 100, fourteenth),
       Kel::RangeException);
   EXPECT_EQ(readBack(key), before);
   EXPECT_EQ(log.keys.size(), 1u);
}

TEST_F(CollectorStatisticsTest, ClearRemovesMatchingEntriesAndRecordsTheClearTime) {
   const SetCount data[] = {{SetId(256), 1}};
   const struct {
      const char* tracker;
      const char* exporter;
      CollectorInfo collector;
   } sent[] = {{"ft1", "exp1", c1}, {"ft1", "exp1", c2}, {"ft1", "exp2", c1}, {"ft2", "exp1", c1}};
   for (const auto& s : sent) {
      Vorpa::Ipfix::statsUpdateAfterOptionsData(*stats, s.tracker, s.exporter, s.collector, 10,
                                                data);
   }
   const auto keys = [&] {
      std::map<std::string, Kel::Seconds> listed;
      reader.forEach([&](const CollectorStatisticsKey& k, const CollectorStatisticsEntry& e) {
         listed[k.vorpaString()] = e.lastClearedTime();
      });
      return listed;
   };

   clock.advance(5);
   Vorpa::Ipfix::statsClear(*stats, "ft1", "exp1");
   EXPECT_EQ(keys(), (std::map<std::string, Kel::Seconds>{{"ft1 exp1 0.0.0.0:0", 1005.0},
                                                          {"ft1 exp2 192.0.2.1:4739", 0.0},
                                                          {"ft2 exp1 192.0.2.1:4739", 0.0}}));
   CollectorStatisticsEntry expectedClear(CollectorStatisticsKey("ft1", "exp1", CollectorInfo()));
   expectedClear.lastClearedTimeIs(1005.0);
   EXPECT_EQ(readBack(CollectorStatisticsKey("ft1", "exp1", {})), expectedClear)
       << "only the clear time is set";

   Vorpa::Ipfix::statsUpdateAfterOptionsData(*stats, "ft1", "exp1", c1, 10, data);
   EXPECT_EQ(readBack(CollectorStatisticsKey("ft1", "exp1", c1)).exportedMessageTotalCount(), 1u)
       << "counting restarts from zero";

   clock.advance(1);
   Vorpa::Ipfix::statsClear(*stats, "ft1", "");
   EXPECT_EQ(keys(), (std::map<std::string, Kel::Seconds>{{"ft1  0.0.0.0:0", 1006.0},
                                                          {"ft2 exp1 192.0.2.1:4739", 0.0}}));
}

TEST_F(CollectorStatisticsTest, MutatorsAnnounceOnlyRealChanges) {
   const CollectorStatisticsKey a("ft1", "exp1", c1);
   const CollectorStatisticsKey b("ft1", "exp1", c2);
   stats->statsIs(CollectorStatisticsEntry(a));
   CollectorStatisticsEntry* inPlace = stats->statsForWrite(b);
   ASSERT_NE(inPlace, nullptr);
   EXPECT_EQ(*inPlace, CollectorStatisticsEntry(b)) << "a new key starts fresh";
   inPlace->exportedMessageTotalCountIs(9);
   stats->statsCommit(inPlace);
   EXPECT_EQ(readBack(b).exportedMessageTotalCount(), 9u);

   EXPECT_EQ(stats->statsDel(CollectorStatisticsKey("nope", "", {})), std::nullopt);
   EXPECT_EQ(stats->statsDel(a), CollectorStatisticsEntry(a));
   stats->statsIs(CollectorStatisticsEntry(a));
   stats->statsDelAll();
   EXPECT_EQ(stats->statsControl().size(), 0u);
   EXPECT_EQ(log.keys,
             (std::vector<std::string>{a.vorpaString(), b.vorpaString(), a.vorpaString(),
                                       a.vorpaString(), a.vorpaString(), b.vorpaString()}))
       << "removing all announces every key, in key order";
}

TEST_F(CollectorStatisticsTest, CommitRefusesAnEntryWhoseKeyChangedInPlace) {
   const CollectorStatisticsKey key("ft1", "exp1", c1);
   CollectorStatisticsEntry* inPlace = stats->statsForWrite(key);
   ASSERT_NE(inPlace, nullptr);
   *inPlace = CollectorStatisticsEntry(CollectorStatisticsKey("ft1", "exp1", c2));
   try {
      stats->statsCommit(inPlace);
      ADD_FAILURE() << "committed";
   } catch (const Kel::AssertionError& e) {
      EXPECT_STREQ(e.what(), "entryCommit() of an entry whose key changed");
   }
   EXPECT_TRUE(log.keys.empty());
}

TEST_F(CollectorStatisticsTest, FullTableRefusesQuietly) {
   stats = makeStats(1);
   reader = CollectorStatisticsReader::attach(stats->statsControl());
   log.notifierIs(stats);
   const SetCount data[] = {{SetId(256), 1}};
   Vorpa::Ipfix::statsUpdateAfterOptionsData(*stats, "ft1", "exp1", c1, 10, data);
   Vorpa::Ipfix::statsUpdateAfterOptionsData(*stats, "ft1", "exp1", c2, 10, data);
   EXPECT_EQ(stats->statsControl().insertRefusedCount(), 1u);
   EXPECT_EQ(reader.insertRefusedCount(), 1u);
   EXPECT_EQ(log.keys.size(), 1u) << "nothing announced for the refused entry";
   EXPECT_EQ(stats->statsForWrite(CollectorStatisticsKey("ft1", "exp1", c2)), nullptr);
}

// An entry whose checksum is right but whose per-set length is impossible (a
// writer bug, or bytes of another build) is refused by readers, not used.
TEST_F(CollectorStatisticsTest, ReaderRefusesAnEntryWithAnImpossibleSetCount) {
   const CollectorStatisticsKey key("ft1", "exp1", c1);
   // The used length of the set slots is the one byte that counts 0, 1, 2 as
   // sets are added: padding (copied from temporaries) may differ anywhere
   // else.
   alignas(CollectorStatisticsEntry) unsigned char noSets[sizeof(CollectorStatisticsEntry)] = {};
   alignas(CollectorStatisticsEntry) unsigned char oneSet[sizeof(CollectorStatisticsEntry)] = {};
   alignas(CollectorStatisticsEntry) unsigned char twoSets[sizeof(CollectorStatisticsEntry)] = {};
   new (noSets) CollectorStatisticsEntry(key);
   std::memcpy(oneSet, noSets, sizeof noSets);
   std::launder(reinterpret_cast<CollectorStatisticsEntry*>(oneSet))
       ->setEntryIs(CollectorSetStatisticsEntry(SetId(256), 0, 0));
   std::memcpy(twoSets, oneSet, sizeof oneSet);
   std::launder(reinterpret_cast<CollectorStatisticsEntry*>(twoSets))
       ->setEntryIs(CollectorSetStatisticsEntry(SetId(257), 0, 0));
   std::size_t last = sizeof oneSet;
   while (last > 0 && !(noSets[last - 1] == 0 && oneSet[last - 1] == 1 && twoSets[last - 1] == 2)) {
      --last;
   }
   ASSERT_GT(last, 0u);
   oneSet[last - 1] = 200;
   CollectorStatisticsEntry impossible;
   std::memcpy(static_cast<void*>(&impossible), oneSet, sizeof oneSet);
   ASSERT_FALSE(impossible.vorpaValid());

   stats->statsIs(impossible);
   CollectorStatisticsEntry out;
   EXPECT_EQ(reader.entry(key, out), Vorpa::ReadStatus::corrupt);
   EXPECT_EQ(reader.forEach([](const auto&, const auto&) {}).corrupt, 1u);
}

}  // namespace
