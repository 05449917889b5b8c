#include <fmt/format.h>
#include <gtest/gtest.h>

#include <cstring>

#include "Ipfix/CollectorStats.h"

namespace {

using Vorpa::Ipfix::CollectorInfo;
using Vorpa::Ipfix::CollectorStatisticsEntry;
using Vorpa::Ipfix::CollectorStatisticsKey;

// A reader copies keys out of a table as bytes; a family byte (the key's
// first) that names neither family must be refused before anything (hash,
// text) reads the address.
TEST(CollectorStatsEntry, KeyWithAnAddressOfNoFamilyIsInvalid) {
   for (const char* collectorText : {"192.0.2.1:4739", "[2001:db8::1]:4739"}) {
      const CollectorStatisticsKey valid("ft1", "exp1",
                                         CollectorInfo::parse(collectorText).value());
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
