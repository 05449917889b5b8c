#include <gtest/gtest.h>

#include "Ipfix/FlowTrackingTypes.h"
#include "Ipfix/Ipfix.h"
#include "Ipfix/IpfixSm.h"

namespace {

using Ipfix::ElementId;
using Ipfix::RecordType;

TEST(ElementIdColl, HoldsTheCatalogueInListingOrder) {
   auto sm = Ipfix::ipfixInitSmFactory();
   ASSERT_TRUE(sm->initialized());
   ASSERT_TRUE(sm->elementIdCollection());
   ASSERT_TRUE(sm->agentInfo());
   EXPECT_FALSE(sm->agentInfo()->multiThreaded());
   const auto& coll = *sm->elementIdCollection();

   const auto& keys = coll.elementIdCollKeys();
   ASSERT_EQ(keys.size(), 54u);
   // The deliberate out-of-order insertions.
   EXPECT_EQ(keys[33], RecordType::flowEndMilliseconds);
   EXPECT_EQ(keys[34], RecordType::flowEndReason);
   EXPECT_EQ(keys[47], RecordType::innerIpProtocol);
   EXPECT_EQ(keys[48], RecordType::innerSrcIp6);
   EXPECT_EQ(keys.back(), RecordType::broadscanTsNewLearn);

   const struct {
      RecordType type;
      ElementId expected;
   } rows[] = {
       {RecordType::octetDeltaCount, {false, RecordType(1), 8, "octetDeltaCount"}},
       {RecordType::tcpControlBits, {false, RecordType(6), 2, "tcpControlBits"}},
       {RecordType::interfaceName, {false, RecordType(82), 65535, "interfaceName"}},
       {RecordType::flowKeyIndicator, {false, RecordType(173), 8, "flowKeyIndicator"}},
       {RecordType::VRFname, {false, RecordType(236), 65535, "VRFname"}},
       {RecordType::flowTrackingType, {true, RecordType(1001), 2, "flowTrackingType"}},
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
   EXPECT_EQ(coll.elementIdColl(RecordType(1)).string(),
             "Value('Ipfix::ElementId', ** {'enterpriseIe': false, 'id': octetDeltaCount, 'len': "
             "8, 'str': octetDeltaCount})");
}

TEST(ElementIdColl, ReinsertOverwritesAndInitializeIsIdempotent) {
   auto coll = Kel::makeActive<Ipfix::ElementIdColl>();
   coll->doInitialize();
   coll->elementIdCollIs(ElementId(true, RecordType::vlanId, 4, "vlanIdWide"));
   EXPECT_EQ(coll->elementIdColl(RecordType::vlanId),
             ElementId(true, RecordType(58), 4, "vlanIdWide"));
   EXPECT_EQ(coll->elementIdCollKeys().size(), 54u);
   coll->doInitialize();
   EXPECT_EQ(coll->elementIdColl(RecordType::vlanId),
             ElementId(false, RecordType(58), 2, "vlanId"));
   coll->elementIdCollDel(RecordType::vlanId);
   coll->elementIdCollDel(RecordType::vlanId);
   EXPECT_TRUE(!coll->elementIdColl(RecordType::vlanId));
   EXPECT_EQ(coll->elementIdCollKeys().size(), 53u);
   coll->elementIdCollDelAll();
   EXPECT_TRUE(coll->elementIdCollKeys().empty());
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
