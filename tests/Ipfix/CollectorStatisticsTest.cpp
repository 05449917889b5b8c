#include <gtest/gtest.h>

#include <cstring>
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
