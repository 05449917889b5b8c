#include <gtest/gtest.h>

#include <optional>
#include <set>
#include <string>
#include <vector>

#include "Bexa/TaskScheduler.h"
#include "Ipfix/OptionsDataSourceFlowKeySm.h"
#include "Ipfix/OptionsDataSourceFlowTrackerTableSm.h"
#include "Ipfix/OptionsDataSourceIntfTableSm.h"
#include "Ipfix/OptionsDataSourceVrfTableSm.h"
#include "Kel/System.h"
#include "Kel/Trace.h"
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

// The octets of every record a source holds, in no particular order.
std::multiset<Bytes> contents(const FlowTracking::OptionsDataSource& source) {
   std::multiset<Bytes> all;
   for (const auto& r : source.dataRecord()) {
      all.insert(bytesOf(r));
   }
   return all;
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

TEST_F(FlowKeyTest, MixedFamiliesAreTracedAndGetNoRecord) {
   Kel::TraceCapture capture("Ipfix", 3);
   status_->hwFgStatusIs(
       flowGroup(300, {{0, R::sourceIPv4Address, true}, {1, R::destinationIPv6Address, true}}));
   status_->hwFgStatusIs(flowGroup(301, {{0, R::sourceIPv4Address, true}}));
   const auto sm = start();
   EXPECT_TRUE(capture.contains("AF mismatch at field: destinationIPv6Address"));
   EXPECT_TRUE(capture.contains("templateId: 300, NO record (incomplete template)"));
   EXPECT_EQ(sm->dataRecords(), 1u);
   EXPECT_EQ(su_.source->dataRecord().size(), 1u);
}

// Start publishes silently; later changes announce the new record, a removal
// announces nothing; every change moves the source's version.
TEST_F(FlowKeyTest, FollowsFlowGroupsAndAnnouncesOnlyNewRecords) {
   status_->hwFgStatusIs(flowGroup(256, {{0, R::sourceIPv4Address, true}}));
   const auto sm = start();
   EXPECT_EQ(su_.update->version(), 0u);
   EXPECT_EQ(su_.source->version(), 1u);
   EXPECT_EQ(su_.source->dataRecord().size(), 1u);

   const auto fg = flowGroup(257, {{0, R::sourceIPv6Address, true}});
   status_->hwFgStatusIs(fg);
   EXPECT_EQ(su_.update->version(), 1u);
   EXPECT_EQ(su_.update->dataSetId(), FlowTracking::FlowKeySm::setId());
   EXPECT_EQ(su_.update->dataRecord(), sm->dataRecord().at(257));
   EXPECT_EQ(su_.source->version(), 2u);

   // The hardware rewrites the layout and moves its generation.
   auto key = Kel::makeActive<HwFlowTracking::FtTemplateEntry>(1, R::destinationIPv6Address);
   key->flowKeyIs(true);
   fg->templateEntryIs(key);
   EXPECT_EQ(su_.update->version(), 1u) << "only a new generation counts";
   fg->genIdIs(1);
   EXPECT_EQ(su_.update->version(), 2u);
   EXPECT_EQ(bytesOf(su_.update->dataRecord()), octets({0x01, 0x01, 0, 0, 0, 0, 0, 0, 0, 0x03}));
   EXPECT_EQ(contents(*su_.source), (std::multiset<Bytes>{bytesOf(sm->dataRecord().at(256)),
                                                          bytesOf(sm->dataRecord().at(257))}));

   status_->hwFgStatusDel(257);
   EXPECT_EQ(su_.update->version(), 2u);
   EXPECT_EQ(su_.source->dataRecord().size(), 1u);
   EXPECT_EQ(su_.source->version(), 4u);
   fg->genIdIs(2);
   EXPECT_EQ(su_.source->version(), 4u) << "a removed group is no longer watched";
}

// ---------------------------------------------------------------------------
// Flow-tracker table

class FlowTrackerTableTest : public ::testing::Test {
 protected:
   Kel::Ptr<FlowTracking::FlowTrackerTableSm> start(bool withConfig = true) {
      auto sm = Kel::makePtr<FlowTracking::FlowTrackerTableSm>(
          su_.source, su_.update, hwStatus_, withConfig ? ftConfig_ : nullptr, ftStatus_,
          FlowTracking::FlowTrackingType::sampled, sched_);
      sm->handleInitialized();
      return sm;
   }

   Kel::ScopedManualClock clock_;
   Kel::Ptr<Bexa::TaskSchedulerRoot> sched_ = Kel::makePtr<Bexa::TaskSchedulerRoot>();
   SourceAndUpdate su_{OptionsDataScope::scopeTracker, 65535};
   Kel::Ptr<HwFlowTracking::Status> hwStatus_ = Kel::makeActive<HwFlowTracking::Status>();
   Kel::Ptr<HwFlowTracking::FtConfig> ftConfig_ = Kel::makeActive<HwFlowTracking::FtConfig>("ft1");
   Kel::Ptr<HwFlowTracking::FtStatus> ftStatus_ = Kel::makeActive<HwFlowTracking::FtStatus>("ft1");
};

TEST_F(FlowTrackerTableTest, EncodesTheTrackerFieldByField) {
   ftConfig_->ftIdIs(5);
   ftStatus_->activeIntervalIs(300);
   ftStatus_->inactiveTimeoutIs(15.7);
   hwStatus_->sampleRateIs(1024);
   EXPECT_EQ(bytesOf(start()->makeDataRecord()),
             octets({0, 0, 0, 5, 3, 'f', 't', '1', 0x01, 0x2C, 0, 0x0F,
                     0, 3, 0, 0, 0, 1,   0,   0,   0x04, 0,    0, 1}));
   EXPECT_EQ(bytesOf(start(false)->makeDataRecord()),
             octets({0, 0, 0, 0, 0, 0x01, 0x2C, 0, 0x0F, 0, 3, 0, 0, 0, 1, 0, 0, 0x04, 0, 0, 1}))
       << "no configuration: id 0 and an empty name";
}

TEST_F(FlowTrackerTableTest, TimeoutsMustFitSixteenBits) {
   const auto sm = start();
   ftStatus_->activeIntervalIs(65534);
   EXPECT_EQ(thrownText([&] { sm->makeDataRecord(); }), "(nothing thrown)");
   ftStatus_->activeIntervalIs(65535);
   EXPECT_EQ(thrownText([&] { sm->makeDataRecord(); }), "active.seconds() < Kel::maxU16()");
   ftStatus_->activeIntervalIs(1);
   ftStatus_->inactiveTimeoutIs(70000);
   EXPECT_EQ(thrownText([&] { sm->makeDataRecord(); }), "inactive.seconds() < Kel::maxU16()");
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

// ---------------------------------------------------------------------------
// VRF table

class VrfTableTest : public ::testing::Test {
 protected:
   Kel::Ptr<FlowTracking::VrfTableSm> start() {
      return Kel::makePtr<FlowTracking::VrfTableSm>(su_.source, su_.update, status_);
   }
   void vrfIs(Kel::U32 id, const std::string& name) {
      table_.entryIs(id, Vrf::VrfIdMap::VrfName(name));
   }

   SourceAndUpdate su_{OptionsDataScope::scopeGlobal, FlowTracking::VrfTableSm::setId()};
   Vrf::VrfIdMap::Table table_ = Vrf::VrfIdMap::Table::createAnonymous("vrfs", 64);
   Kel::Ptr<Vrf::VrfIdMap::Status> status_ =
       Vrf::VrfIdMap::statusFactory(Vrf::VrfIdMap::Reader::attach(table_));
};

TEST_F(VrfTableTest, EncodesIdAndNameAndAllowsAnEmptyName) {
   const auto sm = start();
   EXPECT_EQ(bytesOf(sm->makeDataRecord(0xFFFFFF, "")), octets({0, 0xFF, 0xFF, 0xFF, 0}));
   EXPECT_EQ(bytesOf(sm->makeDataRecord(7, "blue")), withText({0, 0, 0, 7, 4}, "blue"));
   EXPECT_EQ(thrownText([&] { sm->makeDataRecord(1, std::string(255, 'v')); }),
             "vrfName.bytes() < 255");
   EXPECT_EQ(thrownText<Kel::RangeException>([&] { vrfIs(1, std::string(101, 'v')); }),
             "VrfName::bytes > VrfName::maxLength not allowed");
   EXPECT_EQ(thrownText<Kel::RangeException>([&] { vrfIs(1, std::string(100, 'v')); }),
             "(nothing thrown)");
}

TEST_F(VrfTableTest, FollowsTheSharedMapOneVrfOrAllAtOnce) {
   vrfIs(1, "blue");
   vrfIs(2, "red");
   status_->sync();
   const auto sm = start();
   const Bytes reserved = octets({0, 0xFF, 0xFF, 0xFF, 0});
   EXPECT_EQ(contents(*su_.source),
             (std::multiset<Bytes>{reserved, withText({0, 0, 0, 1, 4}, "blue"),
                                   withText({0, 0, 0, 2, 3}, "red")}));
   EXPECT_EQ(su_.update->version(), 0u);

   vrfIs(2, "green");
   vrfIs(3, "mgmt");
   table_.entryDel(1);
   EXPECT_EQ(su_.update->version(), 0u) << "nothing is seen before the view syncs";
   status_->sync();
   EXPECT_EQ(su_.update->version(), 2u) << "the rename and the addition, not the removal";
   EXPECT_EQ(bytesOf(su_.update->dataRecord()), withText({0, 0, 0, 3, 4}, "mgmt"));
   EXPECT_EQ(contents(*su_.source),
             (std::multiset<Bytes>{reserved, withText({0, 0, 0, 2, 5}, "green"),
                                   withText({0, 0, 0, 3, 4}, "mgmt")}));
   EXPECT_EQ(sm->dataRecords(), 2u);

   table_.entryDelAll();
   vrfIs(9, "only");
   status_->sync();
   EXPECT_EQ(su_.update->version(), 2u) << "a whole-map change rebuilds without announcing";
   EXPECT_EQ(contents(*su_.source),
             (std::multiset<Bytes>{reserved, withText({0, 0, 0, 9, 4}, "only")}));
}

}  // namespace
