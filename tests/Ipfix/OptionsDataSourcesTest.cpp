#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

#include "Ipfix/OptionsDataSourceFlowKeySm.h"
#include "Ipfix/OptionsDataSourceIntfTableSm.h"
#include "support/ThrownText.h"

namespace {

// Octets in a string, which compares and prints them readily.
using Bytes = std::string;

Bytes octets(std::initializer_list<int> values) {
   Bytes b;
   for (const int v : values) {
      b.push_back(static_cast<char>(v));
   }
   return b;
}
using FlowTracking::DataRecordPtr;
using FlowTracking::OptionsDataScope;
using R = Ipfix::RecordType;

Bytes bytesOf(const DataRecordPtr& record) {
   return record->data();
}

Bytes withText(std::initializer_list<int> head, const std::string& text) {
   return octets(head) + text;
}

Bytes intfRecord(Kel::U32 index, const std::string& name) {
   return withText({Kel::U8(index >> 24), Kel::U8(index >> 16), Kel::U8(index >> 8), Kel::U8(index),
                    Kel::U8(name.size())},
                   name);
}

// A data source and the update of its scope, as the managers hand them to
// each source.
struct SourceAndUpdate {
   explicit SourceAndUpdate(OptionsDataScope scope, FlowTracking::TemplateId setId)
       : coll(Kel::makeActive<FlowTracking::OptionsDataSourceColl>(scope)),
         source(coll->sourceIs("source", setId)),
         update(Kel::makeActive<FlowTracking::OptionsDataUpdate>(scope)) {}
   Kel::Ptr<FlowTracking::OptionsDataSourceColl> coll;
   Kel::Ptr<FlowTracking::OptionsDataSource> source;
   Kel::Ptr<FlowTracking::OptionsDataUpdate> update;
};

// ---------------------------------------------------------------------------
// Flow keys

struct Field {
   Kel::U32 position;
   R element;
   bool flowKey;
};

Kel::Ptr<HwFlowTracking::FgStatus> flowGroup(HwFlowTracking::TemplateId id,
                                             const std::vector<Field>& fields) {
   auto fg = Kel::makeActive<HwFlowTracking::FgStatus>(id);
   for (const Field& f : fields) {
      auto e = Kel::makeActive<HwFlowTracking::FtTemplateEntry>(f.position, f.element);
      e->flowKeyIs(f.flowKey);
      fg->templateEntryIs(e);
   }
   fg->entryCountIs(16);
   return fg;
}

class FlowKeyTest : public ::testing::Test {
 protected:
   Kel::Ptr<FlowTracking::FlowKeySm> start() {
      return Kel::makePtr<FlowTracking::FlowKeySm>(su_.source, su_.update, status_);
   }

   SourceAndUpdate su_{OptionsDataScope::scopeTracker, FlowTracking::FlowKeySm::setId()};
   Kel::Ptr<HwFlowTracking::FtStatus> status_ = Kel::makeActive<HwFlowTracking::FtStatus>("ft1");
};

TEST_F(FlowKeyTest, IndicatorBitsFollowPositionsIn32BitsSignExtended) {
   struct Case {
      const char* name;
      std::vector<Field> fields;
      std::optional<Kel::U64> indicator;  // nullopt: no record
   };
   const Case cases[] = {
       {"keys at 0 and 2",
        {{0, R::sourceIPv4Address, true},
         {1, R::octetDeltaCount, false},
         {2, R::destinationIPv4Address, true}},
        0x5},
       {"no key", {{0, R::octetDeltaCount, false}}, 0x0},
       {"key at 31 sets bits 31 to 63", {{31, R::protocolIdentifier, true}}, 0xFFFFFFFF80000000},
       {"key at 33 aliases onto bit 1", {{33, R::protocolIdentifier, true}}, 0x2},
       {"IPv6 only", {{0, R::sourceIPv6Address, true}, {1, R::destinationIPv6Address, true}}, 0x3},
       {"IPv4 then IPv6",
        {{0, R::sourceIPv4Address, true}, {1, R::destinationIPv6Address, true}},
        std::nullopt},
       {"IPv6 then IPv4",
        {{0, R::sourceIPv6Address, false}, {1, R::destinationIPv4Address, false}},
        std::nullopt},
   };
   const auto sm = start();
   HwFlowTracking::TemplateId id = 256;
   for (const Case& c : cases) {
      SCOPED_TRACE(c.name);
      status_->hwFgStatusIs(flowGroup(id, c.fields));
      const DataRecordPtr record = sm->makeDataRecord(id);
      if (!c.indicator) {
         EXPECT_EQ(record, nullptr);
      } else {
         ASSERT_NE(record, nullptr);
         Bytes expected = octets({id >> 8, id & 0xFF});
         for (int shift = 56; shift >= 0; shift -= 8) {
            expected.push_back(static_cast<char>(*c.indicator >> shift));
         }
         EXPECT_EQ(bytesOf(record), expected);
      }
      ++id;
   }
   EXPECT_EQ(sm->makeDataRecord(999), nullptr) << "absent template";
}

// ---------------------------------------------------------------------------
// Interface table

class InterfaceTableTest : public ::testing::Test {
 protected:
   Kel::Ptr<FlowTracking::InterfaceTableSm> start() {
      return Kel::makePtr<FlowTracking::InterfaceTableSm>(su_.source, su_.update, map_);
   }

   SourceAndUpdate su_{OptionsDataScope::scopeGlobal, FlowTracking::InterfaceTableSm::setId()};
   Kel::Ptr<FlowTracking::IntfIndexMap> map_ = Kel::makeActive<FlowTracking::IntfIndexMap>();
};

TEST_F(InterfaceTableTest, NamesMustBeShortFormAndNotEmpty) {
   const auto sm = start();
   EXPECT_EQ(bytesOf(sm->makeDataRecord("Ethernet1", 17)), intfRecord(17, "Ethernet1"));
   EXPECT_EQ(sm->makeDataRecord("Ethernet1", 17)->dataLen(), 14u);
   EXPECT_EQ(sm->makeDataRecord(std::string(254, 'x'), 1)->dataLen(), 259u);
   EXPECT_EQ(thrownText([&] { sm->makeDataRecord(std::string(255, 'x'), 1); }),
             "intfNameLen < 255");
   EXPECT_EQ(thrownText([&] { sm->makeDataRecord("", 1); }), "pos + sizeof( U8 ) < max");
}

}  // namespace
