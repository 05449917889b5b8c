#include <fmt/format.h>
#include <gtest/gtest.h>

#include <cstring>
#include <functional>

#include "Ipfix/CollectorStatsEntry.h"

namespace {

using Vorpa::Ipfix::CollectorInfo;
using Vorpa::Ipfix::CollectorSetStatisticsEntry;
using Vorpa::Ipfix::CollectorStatisticsEntry;
using Vorpa::Ipfix::CollectorStatisticsKey;
using Vorpa::Ipfix::SetId;
using Vorpa::Ipfix::SetIndex;
using Vorpa::Ipfix::StringIndex;

template <class Error>
std::string errorText(const std::function<void()>& f) {
   try {
      f();
   } catch (const Error& e) {
      return e.what();
   }
   return "(none)";
}

CollectorInfo collector(const char* text) {
   return CollectorInfo::parse(text).value();
}

const char* const setIdAssertion =
    "(((value()==(::Nivel::IpfixConst::optionsTemplateSetId())))||((value()==(::Nivel::"
    "IpfixConst::templateSetId()))))";
const char* const setIndexRange = "SetIndex::value < SetIndex::min or > SetIndex::max not allowed";
const char* const stringIndexRange =
    "StringIndex::value < StringIndex::min or > StringIndex::max not allowed";

TEST(CollectorStatsTypes, IndexRangesAndTheirErrors) {
   const struct {
      const char* what;
      std::function<void()> make;
      const char* error;  // nullptr: in range
   } cases[] = {
       {"StringIndex 0", [] { StringIndex(0); }, nullptr},
       {"StringIndex 127", [] { StringIndex(127); }, nullptr},
       {"StringIndex 128", [] { StringIndex(128); }, stringIndexRange},
       {"StringIndex -1", [] { StringIndex(-1); }, stringIndexRange},
       {"StringIndex 126 + 1", [] { EXPECT_EQ((StringIndex(126) + 1).value(), 127); }, nullptr},
       {"StringIndex 127 += 1", [] { StringIndex(127) += 1; }, stringIndexRange},
       {"SetIndex 12", [] { SetIndex(12); }, nullptr},
       {"SetIndex 13", [] { SetIndex(13); }, setIndexRange},
       {"SetIndex 10 + 3", [] { static_cast<void>(SetIndex(10) + 3); }, setIndexRange},
       {"SetIndex 1 += -2", [] { SetIndex(1) += -2; }, setIndexRange},
   };
   for (const auto& c : cases) {
      EXPECT_EQ(errorText<Kel::RangeException>(c.make), c.error ? c.error : "(none)") << c.what;
   }
}

TEST(CollectorStatsTypes, SetIdValidity) {
   const struct {
      Kel::U16 id;
      bool valid;
   } cases[] = {{0, false}, {1, false},   {2, true},   {3, true},
                {4, false}, {255, false}, {256, true}, {65535, true}};
   for (const auto& c : cases) {
      CollectorStatisticsEntry entry;
      const auto store = [&] { entry.setEntryIs(CollectorSetStatisticsEntry(SetId(c.id), 1, 0)); };
      const auto read = [&] { entry.setEntry(SetId(c.id)); };
      const char* expected = c.valid ? "(none)" : setIdAssertion;
      EXPECT_EQ(errorText<Kel::AssertionError>(store), expected) << c.id;
      EXPECT_EQ(errorText<Kel::AssertionError>(read), expected) << c.id;
      EXPECT_EQ(entry.setEntryStorage().size(), c.valid ? 1u : 0u) << c.id;
   }
}

TEST(CollectorStatsTypes, CollectorTextForms) {
   for (const char* text : {"192.0.2.1:4739", "[2001:db8::1]:4739"}) {
      EXPECT_EQ(collector(text).stringValue(), text);
   }
   EXPECT_EQ(CollectorInfo::fromIp6AndPort(*Nivel::Ip6AndPort::parse("[2001:db8::1]:4739")),
             collector("[2001:db8::1]:4739"));
   EXPECT_EQ(CollectorInfo::fromIpAndPort(*Nivel::IpAndPort::parse("192.0.2.1:4739")),
             collector("192.0.2.1:4739"));
   EXPECT_EQ(CollectorInfo().stringValue(), "0.0.0.0:0");
   for (const char* bad : {"192.0.2.1", "192.0.2.1:70000", "2001:db8::1:4739", "[::1]4739"}) {
      EXPECT_EQ(CollectorInfo::parse(bad), std::nullopt) << bad;
   }
}

TEST(CollectorStatsTypes, KeyNamesOrderAndHash) {
   const CollectorStatisticsKey key("ft1", "exp1", collector("[2001:db8::1]:4739"));
   EXPECT_EQ(key.tracker(), "ft1");
   EXPECT_EQ(key.exporter(), "exp1");

   CollectorStatisticsKey longName;
   EXPECT_EQ(errorText<Kel::AssertionError>([&] { longName.trackerIs(std::string(129, 't')); }),
             "sz <= StringIndex::max() + 1");
   longName.trackerIs(std::string(128, 't'));
   EXPECT_EQ(longName.tracker(), std::string(128, 't'));
   longName.trackerIs("short");
   EXPECT_EQ(longName, CollectorStatisticsKey("short", "", CollectorInfo()))
       << "a shorter name leaves nothing of the longer one behind";

   const CollectorStatisticsKey ordered[] = {
       {"a", "b", collector("192.0.2.1:1")},  {"a", "b", collector("192.0.2.1:2")},
       {"a", "bc", collector("192.0.2.1:1")}, {"ab", "", collector("192.0.2.1:1")},
       {"b", "", collector("192.0.2.1:1")},
   };
   for (std::size_t i = 0; i + 1 < std::size(ordered); ++i) {
      EXPECT_LT(ordered[i], ordered[i + 1]) << i;
      EXPECT_NE(std::hash<CollectorStatisticsKey>{}(ordered[i]),
                std::hash<CollectorStatisticsKey>{}(ordered[i + 1]))
          << i;
   }
   EXPECT_EQ(std::hash<CollectorStatisticsKey>{}(CollectorStatisticsKey("a", "b", {})),
             std::hash<CollectorStatisticsKey>{}(CollectorStatisticsKey("a", "b", {})));
}

TEST(CollectorStatsTypes, SetSlotsFillReuseThroughNextIdxAndOverflow) {
   CollectorStatisticsEntry entry(CollectorStatisticsKey("t", "e", collector("192.0.2.1:4739")));
   EXPECT_EQ(entry.setEntry(SetId(256)), CollectorSetStatisticsEntry());
   EXPECT_EQ(entry.setEntry(SetId(256)).setId(), Vorpa::Ipfix::setIdInval);
   EXPECT_EQ(entry.indexForSetId(SetId(256)), 255);
   EXPECT_EQ(entry.nextIdx(), 255);

   for (Kel::U16 i = 0; i < 13; ++i) {
      entry.setEntryIs(CollectorSetStatisticsEntry(SetId(256 + i), i, 0));
   }
   EXPECT_EQ(entry.setEntryStorage().size(), 13u);
   EXPECT_EQ(entry.indexForSetId(SetId(260)), 4);
   entry.setEntryIs(CollectorSetStatisticsEntry(SetId(260), 40, 1));
   EXPECT_EQ(entry.setEntry(SetId(260)), CollectorSetStatisticsEntry(SetId(260), 40, 1))
       << "an existing id keeps its slot";

   EXPECT_EQ(entry.setEntryDel(SetId(260)), CollectorSetStatisticsEntry(SetId(260), 40, 1));
   EXPECT_EQ(entry.setEntryDel(SetId(260)), CollectorSetStatisticsEntry()) << "already gone";
   EXPECT_EQ(entry.nextIdx(), 4);
   EXPECT_EQ(entry.maybeNewIndexForSetId(SetId(300)), SetIndex(4));
   entry.setEntryIs(CollectorSetStatisticsEntry(SetId(300), 3, 0));
   EXPECT_EQ(entry.indexForSetId(SetId(300)), 4);
   EXPECT_EQ(entry.setEntryStorage().size(), 13u);

   const CollectorStatisticsEntry full = entry;
   EXPECT_EQ(errorText<Kel::RangeException>(
                 [&] { entry.setEntryIs(CollectorSetStatisticsEntry(SetId(301), 1, 0)); }),
             setIndexRange);
   EXPECT_EQ(entry, full) << "the 14th id changes nothing";

   // nextIdx wins over an earlier free slot; after it, the first free slot.
   entry.setEntryDel(SetId(258));
   entry.setEntryDel(SetId(265));
   EXPECT_EQ(entry.maybeNewIndexForSetId(SetId(400)), SetIndex(9));
   entry.setEntryIs(CollectorSetStatisticsEntry(SetId(400), 0, 0));
   EXPECT_EQ(entry.maybeNewIndexForSetId(SetId(401)), SetIndex(2));
}

// A reader copies keys out of a table as bytes; a family byte (the key's
// first) that names neither family must be refused before anything (hash,
// text) reads the address.
TEST(CollectorStatsTypes, KeyWithAnAddressOfNoFamilyIsInvalid) {
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
