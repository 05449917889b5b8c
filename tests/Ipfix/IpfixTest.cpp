#include <gtest/gtest.h>

#include "Ipfix/FlowTrackingTypes.h"
#include "Ipfix/Ipfix.h"
#include "Ipfix/IpfixSm.h"

namespace {

using Ipfix::ElementId;
using Ipfix::RecordType;

// The whole catalogue, in listing order: each element's id, length and
// enterprise flag are what collectors read in our templates.
TEST(ElementIdColl, HoldsTheCatalogueInItsOrder) {
   const struct {
      const char* name;
      bool enterprise;
      Kel::U32 id;
      Kel::U32 len;
   } rows[] = {
       {"octetDeltaCount", false, 1, 8},
       {"packetDeltaCount", false, 2, 8},
       {"protocolIdentifier", false, 4, 1},
       {"ipClassOfService", false, 5, 1},
       {"tcpControlBits", false, 6, 2},
       {"sourceTransportPort", false, 7, 2},
       {"sourceIPv4Address", false, 8, 4},
       {"sourceIPv4PrefixLength", false, 9, 1},
       {"ingressInterface", false, 10, 4},
       {"destinationTransportPort", false, 11, 2},
       {"destinationIPv4Address", false, 12, 4},
       {"destinationIPv4PrefixLength", false, 13, 1},
       {"egressInterface", false, 14, 4},
       {"ipNextHopIPv4Address", false, 15, 4},
       {"bgpSourceAsNumber", false, 16, 4},
       {"bgpDestinationAsNumber", false, 17, 4},
       {"bgpNextHopIPv4Address", false, 18, 4},
       {"sourceIPv6Address", false, 27, 16},
       {"destinationIPv6Address", false, 28, 16},
       {"sourceIPv6PrefixLength", false, 29, 1},
       {"destinationIPv6PrefixLength", false, 30, 1},
       {"flowActiveTimeout", false, 36, 2},
       {"flowIdleTimeout", false, 37, 2},
       {"sourceMacAddress", false, 56, 6},
       {"postDestinationMacAddress", false, 57, 6},
       {"vlanId", false, 58, 2},
       {"postVlanId", false, 59, 2},
       {"ipNextHopIPv6Address", false, 62, 16},
       {"bgpNextHopIPv6Address", false, 63, 16},
       {"interfaceName", false, 82, 65535},
       {"templateId", false, 145, 2},
       {"observationDomainId", false, 149, 4},
       {"flowStartMilliseconds", false, 152, 8},
       {"flowEndMilliseconds", false, 153, 8},
       {"flowEndReason", false, 136, 1},
       {"flowKeyIndicator", false, 173, 8},
       {"paddingOctets", false, 210, 65535},
       {"ingressVRFID", false, 234, 4},
       {"VRFname", false, 236, 65535},
       {"observationDomainName", false, 300, 65535},
       {"selectorAlgorithm", false, 304, 2},
       {"samplingSize", false, 309, 4},
       {"samplingPopulation", false, 310, 4},
       {"ingressInterfaceType", false, 368, 4},
       {"flowTrackingType", true, 1001, 2},
       {"innerSrcIp", true, 1024, 4},
       {"innerDstIp", true, 1025, 4},
       {"innerIpProtocol", true, 1028, 1},
       {"innerSrcIp6", true, 1026, 16},
       {"innerDstIp6", true, 1027, 16},
       {"broadscanExportReason", true, 1038, 2},
       {"broadscanTsFlowStart", true, 1041, 6},
       {"broadscanTsFlowEnd", true, 1042, 6},
       {"broadscanTsNewLearn", true, 1043, 6},
   };
   const auto sm = Ipfix::ipfixInitSmFactory();
   const auto& coll = *sm->elementIdCollection();
   ASSERT_EQ(coll.elementIdCollKeys().size(), std::size(rows));
   for (std::size_t i = 0; i < std::size(rows); ++i) {
      const auto& r = rows[i];
      SCOPED_TRACE(r.name);
      const ElementId expected(r.enterprise, RecordType(r.id), r.len, r.name);
      EXPECT_EQ(coll.elementIdCollKeys()[i], RecordType(r.id));
      EXPECT_EQ(coll.elementIdColl(RecordType(r.id)), expected);
      EXPECT_EQ(Ipfix::catalogueElement(RecordType(r.id)), expected);
   }
   // An unknown type reads as the default, which differs from element 1.
   EXPECT_TRUE(!coll.elementIdColl(RecordType(3)));
   EXPECT_TRUE(!Ipfix::catalogueElement(RecordType(1030)));
   EXPECT_FALSE(!coll.elementIdColl(RecordType(1)));
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

// A collector's counter moves by the records of each message; observers hear
// of a move only.
TEST(IpfixMsgSeqNo, CollectorCounterWrapsAndAnnouncesOnlyAMove) {
   struct Counter : FlowTracking::CollectorInfo::Notifiee {
      void onIpfixMsgSeqNo() override { ++moves; }
      int moves = 0;
   };
   const auto info = Kel::makeActive<FlowTracking::CollectorInfo>("c1");
   Counter counter;
   counter.notifierIs(info);
   info->ipfixMsgSeqNoIs(Ipfix::IpfixMsgSeqNo(4294967290u));
   EXPECT_EQ(info->ipfixMsgSeqNoInc(0).value(), 4294967290u);
   EXPECT_EQ(counter.moves, 1);
   EXPECT_EQ(info->ipfixMsgSeqNoInc(10).value(), 4u);
   EXPECT_EQ(info->ipfixMsgSeqNo().value(), 4u);
   EXPECT_EQ(counter.moves, 2);
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
