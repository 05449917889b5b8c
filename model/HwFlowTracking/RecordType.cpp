#include "HwFlowTracking/RecordType.h"

#include <algorithm>
#include <charconv>

namespace Ipfix {

namespace {

struct Named {
   RecordType type;
   std::string_view name;
};

constexpr Named names[] = {
    {RecordType::octetDeltaCount, "octetDeltaCount"},
    {RecordType::packetDeltaCount, "packetDeltaCount"},
    {RecordType::protocolIdentifier, "protocolIdentifier"},
    {RecordType::ipClassOfService, "ipClassOfService"},
    {RecordType::tcpControlBits, "tcpControlBits"},
    {RecordType::sourceTransportPort, "sourceTransportPort"},
    {RecordType::sourceIPv4Address, "sourceIPv4Address"},
    {RecordType::sourceIPv4PrefixLength, "sourceIPv4PrefixLength"},
    {RecordType::ingressInterface, "ingressInterface"},
    {RecordType::destinationTransportPort, "destinationTransportPort"},
    {RecordType::destinationIPv4Address, "destinationIPv4Address"},
    {RecordType::destinationIPv4PrefixLength, "destinationIPv4PrefixLength"},
    {RecordType::egressInterface, "egressInterface"},
    {RecordType::ipNextHopIPv4Address, "ipNextHopIPv4Address"},
    {RecordType::bgpSourceAsNumber, "bgpSourceAsNumber"},
    {RecordType::bgpDestinationAsNumber, "bgpDestinationAsNumber"},
    {RecordType::bgpNextHopIPv4Address, "bgpNextHopIPv4Address"},
    {RecordType::sourceIPv6Address, "sourceIPv6Address"},
    {RecordType::destinationIPv6Address, "destinationIPv6Address"},
    {RecordType::sourceIPv6PrefixLength, "sourceIPv6PrefixLength"},
    {RecordType::destinationIPv6PrefixLength, "destinationIPv6PrefixLength"},
    {RecordType::flowActiveTimeout, "flowActiveTimeout"},
    {RecordType::flowIdleTimeout, "flowIdleTimeout"},
    {RecordType::sourceMacAddress, "sourceMacAddress"},
    {RecordType::postDestinationMacAddress, "postDestinationMacAddress"},
    {RecordType::vlanId, "vlanId"},
    {RecordType::postVlanId, "postVlanId"},
    {RecordType::ipNextHopIPv6Address, "ipNextHopIPv6Address"},
    {RecordType::bgpNextHopIPv6Address, "bgpNextHopIPv6Address"},
    {RecordType::interfaceName, "interfaceName"},
    {RecordType::flowEndReason, "flowEndReason"},
    {RecordType::templateId, "templateId"},
    {RecordType::observationDomainId, "observationDomainId"},
    {RecordType::flowStartMilliseconds, "flowStartMilliseconds"},
    {RecordType::flowEndMilliseconds, "flowEndMilliseconds"},
    {RecordType::flowKeyIndicator, "flowKeyIndicator"},
    {RecordType::paddingOctets, "paddingOctets"},
    {RecordType::ingressVRFID, "ingressVRFID"},
    {RecordType::VRFname, "VRFname"},
    {RecordType::observationDomainName, "observationDomainName"},
    {RecordType::selectorAlgorithm, "selectorAlgorithm"},
    {RecordType::samplingSize, "samplingSize"},
    {RecordType::samplingPopulation, "samplingPopulation"},
    {RecordType::ingressInterfaceType, "ingressInterfaceType"},
    {RecordType::flowTrackingType, "flowTrackingType"},
    {RecordType::innerSrcIp, "innerSrcIp"},
    {RecordType::innerDstIp, "innerDstIp"},
    {RecordType::innerSrcIp6, "innerSrcIp6"},
    {RecordType::innerDstIp6, "innerDstIp6"},
    {RecordType::innerIpProtocol, "innerIpProtocol"},
    {RecordType::broadscanExportReason, "broadscanExportReason"},
    {RecordType::broadscanTsFlowStart, "broadscanTsFlowStart"},
    {RecordType::broadscanTsFlowEnd, "broadscanTsFlowEnd"},
    {RecordType::broadscanTsNewLearn, "broadscanTsNewLearn"},
};

}  // namespace

const std::vector<RecordType>& recordTypes() {
   static const std::vector<RecordType> all = [] {
      std::vector<RecordType> v;
      for (const Named& n : names) {
         v.push_back(n.type);
      }
      return v;
   }();
   return all;
}

Kel::String recordTypeString(RecordType type) {
   for (const Named& n : names) {
      if (n.type == type) {
         return Kel::String(n.name);
      }
   }
   return std::to_string(static_cast<Kel::U32>(type));
}

std::optional<RecordType> parseRecordType(std::string_view text) {
   for (const Named& n : names) {
      if (n.name == text) {
         return n.type;
      }
   }
   Kel::U32 value = 0;
   const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
   if (text.empty() || ec != std::errc() || end != text.data() + text.size()) {
      return std::nullopt;
   }
   const auto it = std::find_if(std::begin(names), std::end(names),
                                [&](const Named& n) { return n.type == RecordType(value); });
   if (it == std::end(names)) {
      return std::nullopt;
   }
   return it->type;
}

}  // namespace Ipfix
