#include <gtest/gtest.h>

#include "Ipfix/FlowTrackingTypes.h"
#include "Ipfix/Ipfix.h"
#include "Ipfix/IpfixSm.h"

namespace {

using Ipfix::ElementId;
using Ipfix::RecordType;

// The elements of the options templates are checked, as libfixbuf decodes
// them, by the template export tests.
TEST(ElementIdColl, HoldsTheCatalogue) {
   auto sm = Ipfix::ipfixInitSmFactory();
   ASSERT_TRUE(sm->initialized());
   ASSERT_TRUE(sm->agentInfo());
   EXPECT_FALSE(sm->agentInfo()->multiThreaded());
   const auto& coll = *sm->elementIdCollection();
   const struct {
      RecordType type;
      ElementId expected;
   } rows[] = {
       {RecordType::tcpControlBits, {false, RecordType(6), 2, "tcpControlBits"}},
       {RecordType::broadscanTsFlowStart, {true, RecordType(1041), 6, "broadscanTsFlowStart"}},
       {RecordType(3), {}},
       {RecordType(1030), {}},
   };
   for (const auto& r : rows) {
      SCOPED_TRACE(static_cast<unsigned>(r.type));
      EXPECT_EQ(coll.elementIdColl(r.type), r.expected);
   }
   EXPECT_TRUE(!coll.elementIdColl(RecordType(3)));
   EXPECT_FALSE(!coll.elementIdColl(RecordType(1))) << "same id as the default, other length";
}

TEST(IpfixMsgSeqNo, WrapsModulo32BitsAndRoundTripsText) {
   const struct {
      Kel::U32 a, b, sum;
   } cases[] = {
       {4294967295u, 1, 0}, {4294967290u, 10, 4}, {7, 0, 7}, {0, 4294967295u, 4294967295u}};
   for (const auto& c : cases) {
      Ipfix::IpfixMsgSeqNo n(c.a);
      EXPECT_EQ((n + Ipfix::IpfixMsgSeqNo(c.b)).value(), c.sum);
      n += Ipfix::IpfixMsgSeqNo(c.b);
      EXPECT_EQ(n.value(), c.sum);
      EXPECT_EQ(Ipfix::IpfixMsgSeqNo::parse(n.str()), n);
   }
   EXPECT_FALSE(Ipfix::IpfixMsgSeqNo::parse("4294967296").has_value());
   EXPECT_FALSE(Ipfix::IpfixMsgSeqNo::parse("-1").has_value());
   EXPECT_FALSE(Ipfix::IpfixMsgSeqNo::parse("").has_value());
}

TEST(FlowTrackingType, OnlyTwoIsHardware) {
   using FlowTracking::FlowTrackingType;
   EXPECT_EQ(FlowTracking::trackingTypeString(FlowTrackingType(2)), "Hardware");
   for (int v : {0, 1, 3, 255}) {
      EXPECT_EQ(FlowTracking::trackingTypeString(FlowTrackingType(v)), "Sampled") << v;
   }
}

TEST(RecordType, ParsesNamesAndDefinedNumbersOnly) {
   EXPECT_EQ(Ipfix::parseRecordType("VRFname"), RecordType::VRFname);
   EXPECT_EQ(Ipfix::parseRecordType("1043"), RecordType::broadscanTsNewLearn);
   EXPECT_FALSE(Ipfix::parseRecordType("1030").has_value());
   EXPECT_FALSE(Ipfix::parseRecordType("vrfname").has_value());
   EXPECT_EQ(Ipfix::recordTypes().size(), 54u);
   EXPECT_EQ(Ipfix::recordTypeString(RecordType(3)), "3");
}

}  // namespace
