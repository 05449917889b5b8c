#pragma once

#include <fmt/format.h>

#include <vector>

#include "AgentConfig.h"

// What changes between two configurations, expressed as a switch's
// configuration changes: objects added, removed, or changed in some of their
// attributes. A pure function over the value types; the model writer applies
// the result and the agent logs it.
namespace Agent {

enum class ChangeKind { removed, changed, added };

enum class Subject {
   statisticsTable,
   tracking,  // everything of one flow-tracking type
   tracker,
   exporter,
   collector,
   flowGroup,
   interface,
   vrf,
};

// The attributes a change can name, spelled in messages as the file's keys.
enum class Attribute {
   name,  // of the statistics table, of a VRF
   sampleRate,
   activeInterval,
   inactiveTimeout,
   address,
   port,
   sourceIpv4,
   sourceIpv6,
   dscp,
   mtu,
   templateInterval,
   vrf,
   entries,
   fields,
   index,
};

struct Change {
   ChangeKind kind = ChangeKind::changed;
   Subject subject = Subject::statisticsTable;
   // Which object, as far as the subject needs: the type for a tracking type
   // and everything in it, the tracker for a tracker and its children, ...
   FlowTracking::FlowTrackingType type{};
   Kel::Name tracker;
   Kel::Name exporter;
   // A collector's or an interface's name.
   Kel::Name name;
   HwFlowTracking::TemplateId templateId = 0;
   Kel::U32 vrfId = 0;
   // For `changed`: which attributes, in declaration order.
   std::vector<Attribute> attributes;

   // "changed exporter hardware/ft1/exp1: dscp, mtu"
   Kel::String str() const;
   bool operator==(const Change&) const = default;
};

// The changes that turn `before` into `after`, to be applied in this order:
// all removals, then all changes, then all additions; within each, statistics
// table, tracking types, trackers and what they hold (exporters with their
// collectors, then flow groups), interfaces, VRFs, each in key order.
//
// An added or removed object comes with everything it holds: its children are
// not listed on their own. An object whose identity changes (a tracker's id)
// is removed and added, so that removal comes first. A collector whose
// address changes keeps its name and is `changed`.
std::vector<Change> diff(const AgentConfig& before, const AgentConfig& after);

}  // namespace Agent

template <>
struct fmt::formatter<Agent::Change> : fmt::formatter<std::string_view> {
   auto format(const Agent::Change& c, fmt::format_context& ctx) const {
      return fmt::formatter<std::string_view>::format(c.str(), ctx);
   }
};
