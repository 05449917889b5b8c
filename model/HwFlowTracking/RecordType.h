#pragma once

#include <fmt/format.h>

#include <optional>
#include <string_view>
#include <vector>

#include "Kel/Types.h"

namespace Ipfix {

// The kinds of field the hardware puts in its flow-group records. Each value is
// the IPFIX element id under which the field is exported; for the
// enterprise-specific kinds (1001 and up) it is the enterprise element number
// without the enterprise bit.
enum class RecordType : Kel::U32 {
   octetDeltaCount = 1,
   packetDeltaCount = 2,
   protocolIdentifier = 4,
   ipClassOfService = 5,
   tcpControlBits = 6,
   sourceTransportPort = 7,
   sourceIPv4Address = 8,
   sourceIPv4PrefixLength = 9,
   ingressInterface = 10,
   destinationTransportPort = 11,
   destinationIPv4Address = 12,
   destinationIPv4PrefixLength = 13,
   egressInterface = 14,
   ipNextHopIPv4Address = 15,
   bgpSourceAsNumber = 16,
   bgpDestinationAsNumber = 17,
   bgpNextHopIPv4Address = 18,
   sourceIPv6Address = 27,
   destinationIPv6Address = 28,
   sourceIPv6PrefixLength = 29,
   destinationIPv6PrefixLength = 30,
   flowActiveTimeout = 36,
   flowIdleTimeout = 37,
   sourceMacAddress = 56,
   postDestinationMacAddress = 57,
   vlanId = 58,
   postVlanId = 59,
   ipNextHopIPv6Address = 62,
   bgpNextHopIPv6Address = 63,
   interfaceName = 82,
   flowEndReason = 136,
   templateId = 145,
   observationDomainId = 149,
   flowStartMilliseconds = 152,
   flowEndMilliseconds = 153,
   flowKeyIndicator = 173,
   paddingOctets = 210,
   ingressVRFID = 234,
   VRFname = 236,
   observationDomainName = 300,
   selectorAlgorithm = 304,
   samplingSize = 309,
   samplingPopulation = 310,
   ingressInterfaceType = 368,
   flowTrackingType = 1001,
   innerSrcIp = 1024,
   innerDstIp = 1025,
   innerSrcIp6 = 1026,
   innerDstIp6 = 1027,
   innerIpProtocol = 1028,
   broadscanExportReason = 1038,
   broadscanTsFlowStart = 1041,
   broadscanTsFlowEnd = 1042,
   broadscanTsNewLearn = 1043,
};

// Every defined record type, in ascending value.
const std::vector<RecordType>& recordTypes();

// The element name ("octetDeltaCount"); the number for an undefined value.
Kel::String recordTypeString(RecordType type);
// From an element name or a decimal value of a defined record type.
std::optional<RecordType> parseRecordType(std::string_view text);

}  // namespace Ipfix

template <>
struct fmt::formatter<Ipfix::RecordType> : fmt::formatter<std::string_view> {
   auto format(Ipfix::RecordType t, fmt::format_context& ctx) const {
      return fmt::formatter<std::string_view>::format(Ipfix::recordTypeString(t), ctx);
   }
};
