#pragma once

#include <map>
#include <optional>
#include <vector>

#include "HwFlowTracking/RecordType.h"
#include "HwFlowTracking/Status.h"
#include "Ipfix/CollectorStats.h"
#include "Ipfix/FlowTrackingTypes.h"
#include "Nivel/Addr.h"

// The agent's whole configuration as plain values: what the configuration file
// says once it has been checked. Collections are keyed by what identifies an
// object on a switch (a tracker by its name, a flow group by its template id,
// a VRF by its id), so two configurations compare entry by entry and the
// iteration order is deterministic.
namespace Agent {

// A collector is one address (either family) and UDP port.
struct Collector {
   Nivel::IpGenAddr address;
   Nivel::Port port = 0;
   bool operator==(const Collector&) const = default;
};

struct Exporter {
   std::map<Kel::Name, Collector> collectors;
   // As the file gives them; the loader fills in a missing one with the
   // address the kernel would use towards the family's first collector. Unset
   // only for a family without collectors, which sends nothing.
   std::optional<Nivel::IpAddr> srcIpv4;
   std::optional<Nivel::Ip6Addr> srcIpv6;
   // The DSCP code point as the operator writes it (46 for EF), not the ToS byte.
   Kel::U8 dscp = 0;
   // Largest IP packet, in octets.
   Kel::U32 mtu = 1500;
   Kel::U32 templateIntervalMs = 3600000;
   Kel::Name vrfName = "default";
   bool operator==(const Exporter&) const = default;
};

// One field of a flow group's record layout.
struct FlowField {
   Ipfix::RecordType element{};
   bool flowKey = false;
   bool operator==(const FlowField&) const = default;
};

// The record layout the hardware uses for one flow group.
struct FlowGroup {
   Kel::U32 entryCount = 0;
   // In record order.
   std::vector<FlowField> fields;
   bool operator==(const FlowGroup&) const = default;
};

struct Tracker {
   FlowTracking::FtId id = 0;
   Kel::U32 activeIntervalMs = 300000;
   Kel::U32 inactiveTimeoutMs = 15000;
   std::map<Kel::Name, Exporter> exporters;
   std::map<HwFlowTracking::TemplateId, FlowGroup> flowGroups;
   bool operator==(const Tracker&) const = default;
};

// Everything of one flow-tracking type.
struct Tracking {
   // One packet out of this many is sampled.
   Kel::U32 sampleRate = 1;
   std::map<Kel::Name, Tracker> trackers;
   bool operator==(const Tracking&) const = default;
};

// The table ipfix-stats reads unless told otherwise.
inline constexpr std::string_view defaultStatisticsTable =
    Vorpa::Ipfix::defaultCollectorStatisticsTableName;

struct AgentConfig {
   // The shared-memory collector statistics table the agent writes.
   Kel::Name statisticsTable{defaultStatisticsTable};
   // Entries that table holds, when the file sets it (see StatisticsSizing.h).
   std::optional<Kel::U32> statisticsCapacity;
   // Only the types the file configures.
   std::map<FlowTracking::FlowTrackingType, Tracking> tracking;
   // Interface name to interface index.
   std::map<Nivel::IntfId, Kel::U32> interfaces;
   // VRF id to VRF name.
   std::map<Kel::U32, Kel::Name> vrfs;
   bool operator==(const AgentConfig&) const = default;
};

// The types in the order the file and the diff list them, with the file's key
// for each.
inline constexpr FlowTracking::FlowTrackingType trackingTypes[] = {
    FlowTracking::FlowTrackingType::hardware, FlowTracking::FlowTrackingType::sampled};
constexpr const char* typeKey(FlowTracking::FlowTrackingType type) {
   return type == FlowTracking::FlowTrackingType::hardware ? "hardware" : "sampled";
}

// The ToS / traffic-class byte that carries a DSCP code point: the exporter
// model holds the whole byte and the library writes it unchanged.
constexpr Nivel::DscpValue tosByte(Kel::U8 dscp) {
   return static_cast<Nivel::DscpValue>(dscp << 2);
}

static_assert(tosByte(46) == 0xB8);

}  // namespace Agent
