#include <fmt/format.h>
#include <gtest/gtest.h>

#include <cstring>

#include "Ipfix/CollectorStats.h"
#include "Kel/Exception.h"

namespace {

using Vorpa::Ipfix::CollectorInfo;
using Vorpa::Ipfix::CollectorStatisticsEntry;
using Vorpa::Ipfix::CollectorStatisticsKey;
using Vorpa::Ipfix::SetId;
using Vorpa::Ipfix::SetIndex;
using Set = Vorpa::Ipfix::CollectorSetStatisticsEntry;

CollectorInfo collector(const char* text) {
   return CollectorInfo::parse(text).value();
}

// Thirteen slots: a removed set's slot is the next one used; a fourteenth set
// id is refused and changes nothing.
TEST(CollectorStatsEntry, SetSlotsFillReuseAndRefuseAFourteenthId) {
   CollectorStatisticsEntry entry(CollectorStatisticsKey("t", "e", collector("192.0.2.1:4739")));
   EXPECT_EQ(entry.setEntry(SetId(256)), Set());
   for (Kel::U16 i = 0; i < 13; ++i) {
      entry.setEntryIs(Set(SetId(256 + i), i, 0));
   }
   entry.setEntryIs(Set(SetId(260), 40, 1));
   EXPECT_EQ(entry.setEntry(SetId(260)), Set(SetId(260), 40, 1));
   EXPECT_EQ(entry.indexForSetId(SetId(260)), 4) << "an existing id keeps its slot";

   EXPECT_EQ(entry.setEntryDel(SetId(260)), Set(SetId(260), 40, 1));
   EXPECT_EQ(entry.setEntryDel(SetId(260)), Set()) << "already gone";
   entry.setEntryIs(Set(SetId(300), 3, 0));
   EXPECT_EQ(entry.indexForSetId(SetId(300)), 4);
   EXPECT_EQ(entry.setEntryStorage().size(), 13u);

   const CollectorStatisticsEntry full = entry;
   EXPECT_THROW(entry.setEntryIs(Set(SetId(301), 1, 0)), Kel::RangeException);
   EXPECT_EQ(entry, full);
}

// A reader copies keys out of a table as bytes; a family byte (the key's
// first) that names neither family must be refused before anything (hash,
// text) reads the address.
TEST(CollectorStatsEntry, KeyWithAnAddressOfNoFamilyIsInvalid) {
   for (const char* collectorText : {"192.0.2.1:4739", "[2001:db8::1]:4739"}) {
      const CollectorStatisticsKey valid("ft1", "exp1", collector(collectorText));
      ASSERT_TRUE(valid.vorpaValid());
      for (const unsigned char damaged : {0, 5, 0xff}) {
         SCOPED_TRACE(fmt::format("{} family {}", collectorText, int(damaged)));
         unsigned char bytes[sizeof valid];
         std::memcpy(bytes, &valid, sizeof valid);
         bytes[0] = damaged;
         CollectorStatisticsKey key;
         std::memcpy(static_cast<void*>(&key), bytes, sizeof key);
         EXPECT_FALSE(key.vorpaValid());
         EXPECT_FALSE(CollectorStatisticsEntry(key).vorpaValid());
      }
   }
}

}  // namespace
