#include "Ipfix/Ipfix.h"

#include <algorithm>
#include <charconv>

#include "Kel/Exception.h"
#include "Kel/Trace.h"

namespace Ipfix {

namespace {

Kel::TraceHandle traceIpfix("Ipfix");

constexpr Kel::U32 variableLength = 65535;

struct ElementRow {
   bool enterpriseIe;
   RecordType id;
   Kel::U32 len;
};

// Insertion order is listing order: flowEndReason follows
// flowEndMilliseconds and innerIpProtocol precedes innerSrcIp6 on purpose.
// tcpControlBits is two octets (the current IANA length), the three hardware
// timestamps six.
constexpr ElementRow elementRows[] = {
    {false, RecordType::octetDeltaCount, 8},
    {false, RecordType::packetDeltaCount, 8},
    {false, RecordType::protocolIdentifier, 1},
    {false, RecordType::ipClassOfService, 1},
    {false, RecordType::tcpControlBits, 2},
    {false, RecordType::sourceTransportPort, 2},
    {false, RecordType::sourceIPv4Address, 4},
    {false, RecordType::sourceIPv4PrefixLength, 1},
    {false, RecordType::ingressInterface, 4},
    {false, RecordType::destinationTransportPort, 2},
    {false, RecordType::destinationIPv4Address, 4},
    {false, RecordType::destinationIPv4PrefixLength, 1},
    {false, RecordType::egressInterface, 4},
    {false, RecordType::ipNextHopIPv4Address, 4},
    {false, RecordType::bgpSourceAsNumber, 4},
    {false, RecordType::bgpDestinationAsNumber, 4},
    {false, RecordType::bgpNextHopIPv4Address, 4},
    {false, RecordType::sourceIPv6Address, 16},
    {false, RecordType::destinationIPv6Address, 16},
    {false, RecordType::sourceIPv6PrefixLength, 1},
    {false, RecordType::destinationIPv6PrefixLength, 1},
    {false, RecordType::flowActiveTimeout, 2},
    {false, RecordType::flowIdleTimeout, 2},
    {false, RecordType::sourceMacAddress, 6},
    {false, RecordType::postDestinationMacAddress, 6},
    {false, RecordType::vlanId, 2},
    {false, RecordType::postVlanId, 2},
    {false, RecordType::ipNextHopIPv6Address, 16},
    {false, RecordType::bgpNextHopIPv6Address, 16},
    {false, RecordType::interfaceName, variableLength},
    {false, RecordType::templateId, 2},
    {false, RecordType::observationDomainId, 4},
    {false, RecordType::flowStartMilliseconds, 8},
    {false, RecordType::flowEndMilliseconds, 8},
    {false, RecordType::flowEndReason, 1},
    {false, RecordType::flowKeyIndicator, 8},
    {false, RecordType::paddingOctets, variableLength},
    {false, RecordType::ingressVRFID, 4},
    {false, RecordType::VRFname, variableLength},
    {false, RecordType::observationDomainName, variableLength},
    {false, RecordType::selectorAlgorithm, 2},
    {false, RecordType::samplingSize, 4},
    {false, RecordType::samplingPopulation, 4},
    {false, RecordType::ingressInterfaceType, 4},
    {true, RecordType::flowTrackingType, 2},
    {true, RecordType::innerSrcIp, 4},
    {true, RecordType::innerDstIp, 4},
    {true, RecordType::innerIpProtocol, 1},
    {true, RecordType::innerSrcIp6, 16},
    {true, RecordType::innerDstIp6, 16},
    {true, RecordType::broadscanExportReason, 2},
    {true, RecordType::broadscanTsFlowStart, 6},
    {true, RecordType::broadscanTsFlowEnd, 6},
    {true, RecordType::broadscanTsNewLearn, 6},
};

ElementId elementOf(const ElementRow& row) {
   return ElementId(row.enterpriseIe, row.id, row.len, recordTypeString(row.id));
}

}  // namespace

Kel::String ElementId::string() const {
   return fmt::format(
       "Value('Ipfix::ElementId', ** {{'enterpriseIe': {}, 'id': {}, 'len': {}, "
       "'str': {}}})",
       enterpriseIe_, id_, len_, str_);
}

void ElementIdColl::doInitialize() {
   KEL_TRACE(traceIpfix, 4, "ElementIdColl::doInitialize");
   for (const ElementRow& row : elementRows) {
      elementIdCollIs(elementOf(row));
   }
}

ElementId catalogueElement(RecordType type) {
   for (const ElementRow& row : elementRows) {
      if (row.id == type) {
         return elementOf(row);
      }
   }
   return ElementId();
}

ElementId ElementIdColl::elementIdColl(RecordType type) const {
   const auto it = elements_.find(type);
   return it == elements_.end() ? ElementId() : it->second;
}

void ElementIdColl::elementIdCollIs(const ElementId& e) {
   auto [it, inserted] = elements_.try_emplace(e.id(), e);
   if (inserted) {
      order_.push_back(e.id());
   } else if (it->second == e) {
      return;
   } else {
      it->second = e;
   }
   notify(&Notifiee::onElementIdColl, e.id());
}

void ElementIdColl::elementIdCollDel(RecordType type) {
   if (elements_.erase(type) == 0) {
      return;
   }
   std::erase(order_, type);
   notify(&Notifiee::onElementIdColl, type);
}

void ElementIdColl::elementIdCollDelAll() {
   while (!order_.empty()) {
      elementIdCollDel(order_.front());
   }
}

Kel::Ptr<ElementIdColl> elementIdCollFactory() {
   return Kel::makePtr<ElementIdColl>();
}

std::optional<IpfixMsgSeqNo> IpfixMsgSeqNo::parse(std::string_view text) {
   Kel::U32 value = 0;
   const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
   if (text.empty() || ec != std::errc() || end != text.data() + text.size()) {
      return std::nullopt;
   }
   return IpfixMsgSeqNo(value);
}

}  // namespace Ipfix
