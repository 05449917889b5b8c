#include "ConfigLoader.h"

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <fstream>
#include <sstream>

#include "ConfigLimits.h"
#include "Ipfix/FlowTrackerTemplateSm.h"
#include "Ipfix/OptionsDataSourceIntfTableSm.h"
#include "Ipfix/OptionsDataSourceVrfTableSm.h"
#include "Kel/Trace.h"
#include "SourceAddress.h"
#include "StatisticsSizing.h"
#include "YamlReader.h"

namespace Agent {

namespace {

using FlowTracking::FlowTrackingType;

Kel::TraceHandle traceAgent("Agent");

// Octets of the data template set the library builds for the tracker's flow
// groups: one template record for each group that has entries.
Kel::U64 dataTemplateSetLength(const Tracker& tracker) {
   Kel::U64 length = 0;
   for (const auto& [id, group] : tracker.flowGroups) {
      if (group.entryCount == 0) {
         continue;
      }
      const auto enterprise = std::count_if(
          group.fields.begin(), group.fields.end(),
          [](const FlowField& f) { return Ipfix::catalogueElement(f.element).enterpriseIe(); });
      length += FlowTracking::templateRecordLength(static_cast<Kel::U32>(group.fields.size()),
                                                   static_cast<Kel::U32>(enterprise));
   }
   return length;
}

// The first collector of one address family in an exporter's list, where an
// unset source address of that family is resolved towards.
struct FirstCollector {
   Kel::Name name;
   Collector collector;
   YamlValue address;
};

// Where each name or id of one scope was first given, to report repeats.
template <class Key>
class FirstSeen {
 public:
   // False, after reporting it, when `key` was seen before.
   bool add(YamlReader& reader, const YamlValue& at, const Key& key, const Kel::String& what) {
      const auto [it, inserted] = lines_.try_emplace(key, at.line);
      if (!inserted) {
         reader.error(at, fmt::format("{} is already used at line {}", what, it->second));
      }
      return inserted;
   }

 private:
   std::map<Key, int> lines_;
};

using Destination = std::pair<Nivel::IpGenAddr, Nivel::Port>;

class Loader {
 public:
   explicit Loader(const Kel::String& fileName) : r_(fileName) {}

   LoadResult run(const Kel::String& text) {
      AgentConfig config;
      if (auto doc = r_.document(text)) {
         readRoot(*doc, config);
      }
      if (!r_.errors().empty()) {
         // In file order; errors of one line in the order they were found.
         ConfigErrors errors = r_.errors();
         std::stable_sort(
             errors.begin(), errors.end(),
             [](const ConfigError& a, const ConfigError& b) { return a.line < b.line; });
         return {std::nullopt, std::move(errors)};
      }
      return {std::move(config), {}};
   }

 private:
   void readRoot(const YamlValue& doc, AgentConfig& config) {
      const auto m = r_.mapping(
          doc, {"statistics-table", "statistics-capacity", "flow-tracking", "interfaces", "vrfs"});
      if (!m) {
         return;
      }
      if (const auto v = m->get("statistics-table")) {
         setIfRead(config.statisticsTable, statisticsTableName(*v));
      }
      const auto capacity = m->get("statistics-capacity");
      if (capacity) {
         config.statisticsCapacity =
             r_.integer(*capacity, 1, maxStatisticsCapacity, "a number of statistics entries");
      }
      if (const auto v = m->get("flow-tracking")) {
         readFlowTracking(*v, config);
         checkStatisticsCapacity(capacity ? *capacity : *v, config);
      }
      if (const auto v = m->get("interfaces")) {
         readInterfaces(*v, config);
      }
      if (const auto v = m->get("vrfs")) {
         readVrfs(*v, config);
      }
   }

   static constexpr Kel::U32 maxStatisticsCapacity = Vorpa::Ipfix::CollectorStatistics::maxCapacity;

   // Every collector must find room in the statistics table: a full table
   // refuses new entries, and the collectors past it would go without.
   void checkStatisticsCapacity(const YamlValue& at, const AgentConfig& config) {
      const Kel::U64 needed = statisticsEntries(config);
      const Kel::U64 capacity = config.statisticsCapacity.value_or(maxStatisticsCapacity);
      if (needed > capacity) {
         r_.error(at, fmt::format("the configuration needs {} statistics entries (one per "
                                  "collector, exporter and tracker); the table holds {}",
                                  needed, capacity));
      }
   }

   std::optional<Kel::String> statisticsTableName(const YamlValue& v) {
      auto name = r_.text(v, Limits::maxStatisticsTableLength);
      if (name && name->find_first_not_of("abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ"
                                          "0123456789._-") != Kel::String::npos) {
         r_.error(v, "must hold only letters, digits, '.', '_' and '-'");
         return std::nullopt;
      }
      return name;
   }

   void readFlowTracking(const YamlValue& v, AgentConfig& config) {
      const auto m = r_.mapping(v, {"hardware", "sampled"});
      if (!m) {
         return;
      }
      for (const FlowTrackingType type : trackingTypes) {
         if (const auto t = m->get(typeKey(type))) {
            readTracking(*t, config.tracking[type]);
         }
      }
   }

   void readTracking(const YamlValue& v, Tracking& tracking) {
      const auto m = r_.mapping(v, {"sample-rate", "trackers"});
      if (!m) {
         return;
      }
      if (const auto rate = m->get("sample-rate")) {
         setIfRead(tracking.sampleRate,
                   r_.integer(*rate, 1, Kel::maxU32(), "a sampling rate (one packet in N)"));
      }
      if (const auto trackers = m->get("trackers")) {
         FirstSeen<FlowTracking::FtId> ids;
         for (const YamlValue& item : r_.list(*trackers)) {
            readTracker(item, tracking, ids);
         }
      }
   }

   void readTracker(const YamlValue& v, Tracking& tracking, FirstSeen<FlowTracking::FtId>& ids) {
      const auto m = r_.mapping(v, {"name", "id", "active-interval-ms", "inactive-timeout-ms",
                                    "exporters", "flow-groups"});
      if (!m) {
         return;
      }
      Tracker tracker;
      const auto name = uniqueKeyName(*m, trackerNames_, "tracker name");
      if (const auto id = m->require("id")) {
         if (setIfRead(tracker.id, r_.integer(*id, 0, Kel::maxU32(), "a tracker id"))) {
            ids.add(r_, *id, tracker.id, fmt::format("tracker id {}", tracker.id));
         }
      }
      if (const auto t = m->get("active-interval-ms")) {
         setIfRead(tracker.activeIntervalMs, trackerTimer(*t));
      }
      if (const auto t = m->get("inactive-timeout-ms")) {
         setIfRead(tracker.inactiveTimeoutMs, trackerTimer(*t));
      }
      if (const auto exporters = m->get("exporters")) {
         FirstSeen<Kel::Name> names;
         for (const YamlValue& item : r_.list(*exporters)) {
            readExporter(item, name.value_or(""), tracker, names);
         }
      }
      if (const auto groups = m->get("flow-groups")) {
         FirstSeen<HwFlowTracking::TemplateId> templateIds;
         for (const YamlValue& item : r_.list(*groups)) {
            readFlowGroup(item, tracker, templateIds);
         }
         checkTemplateSetLength(*groups, tracker);
      }
      tracking.trackers.emplace(name.value_or(""), std::move(tracker));
   }

   // The library sends all of a tracker's data templates in one message.
   void checkTemplateSetLength(const YamlValue& groups, const Tracker& tracker) {
      const Kel::U64 length = dataTemplateSetLength(tracker);
      if (length > FlowTracking::maxTemplateSetLength) {
         r_.error(groups, fmt::format("the data templates of these flow groups take {} octets; "
                                      "one template message carries at most {}",
                                      length, FlowTracking::maxTemplateSetLength));
      }
   }

   std::optional<Kel::U64> trackerTimer(const YamlValue& v) {
      return r_.integer(v, Limits::minIntervalMs, Limits::maxTrackerTimerMs,
                        "a time in milliseconds");
   }

   void readExporter(const YamlValue& v, const Kel::Name& trackerName, Tracker& tracker,
                     FirstSeen<Kel::Name>& names) {
      const auto m = r_.mapping(v, {"name", "collectors", "source-ipv4", "source-ipv6", "dscp",
                                    "mtu", "template-interval-ms", "vrf"});
      if (!m) {
         return;
      }
      Exporter exporter;
      const auto name = uniqueKeyName(*m, names, "exporter name");
      std::optional<FirstCollector> first4;
      std::optional<FirstCollector> first6;
      if (const auto collectors = m->get("collectors")) {
         FirstSeen<Kel::Name> collectorNames;
         FirstSeen<Destination> destinations;
         for (const YamlValue& item : r_.list(*collectors)) {
            auto collector = readCollector(item, exporter, collectorNames, destinations);
            auto& first = collector && collector->collector.address.isV4() ? first4 : first6;
            if (collector && !first) {
               first = std::move(collector);
            }
         }
      }
      if (const auto src = m->get("source-ipv4")) {
         exporter.srcIpv4 = address<Nivel::IpAddr>(*src, "an IPv4 address");
      }
      if (const auto src = m->get("source-ipv6")) {
         exporter.srcIpv6 = address<Nivel::Ip6Addr>(*src, "an IPv6 address");
      }
      if (const auto dscp = m->get("dscp")) {
         setIfRead(exporter.dscp, r_.integer(*dscp, 0, Limits::maxDscp, "a DSCP code point"));
      }
      if (const auto mtu = m->get("mtu")) {
         setIfRead(exporter.mtu, r_.integer(*mtu, Limits::minMtu, Limits::maxMtu,
                                            "an MTU in octets (room for one record)"));
      }
      if (const auto interval = m->get("template-interval-ms")) {
         setIfRead(
             exporter.templateIntervalMs,
             r_.integer(*interval, Limits::minIntervalMs, Kel::maxU32(), "a time in milliseconds"));
      }
      if (const auto vrf = m->get("vrf")) {
         setIfRead(exporter.vrfName, r_.text(*vrf, Limits::maxTableNameLength));
      }
      const Kel::Name exporterName =
          fmt::format("{} of tracker {}", name.value_or(""), trackerName);
      if (first4 && !m->get("source-ipv4")) {
         if (const auto source = kernelSource(*first4, exporterName, "source-ipv4")) {
            exporter.srcIpv4 = source->v4();
         }
      }
      if (first6 && !m->get("source-ipv6")) {
         if (const auto source = kernelSource(*first6, exporterName, "source-ipv6")) {
            exporter.srcIpv6 = source->v6();
         }
      }
      tracker.exporters.emplace(name.value_or(""), std::move(exporter));
   }

   // An exporter sends a family's templates and options data only from a
   // source address; without one configured it takes the one the kernel
   // would use towards the family's first collector, as a configured one.
   std::optional<Nivel::IpGenAddr> kernelSource(const FirstCollector& first,
                                                const Kel::Name& exporterName,
                                                std::string_view sourceKey) {
      const Nivel::IpGenAddr& to = first.collector.address;
      Kel::String why;
      const auto source = kernelSourceAddress(to, first.collector.port, &why);
      if (!source) {
         r_.error(first.address,
                  fmt::format("exporter {} has no {} and no route to its collector {} at {} to "
                              "take one from: {}",
                              exporterName, sourceKey, first.name, to.str(), why));
         return std::nullopt;
      }
      KEL_TRACE(traceAgent, 3, "Exporter {}: {} {}, the kernel's choice towards collector {} at {}",
                exporterName, sourceKey, source->str(), first.name, to.str());
      return source;
   }

   // The collector as read, with its address value; nullopt when its address
   // or port could not be read.
   std::optional<FirstCollector> readCollector(const YamlValue& v, Exporter& exporter,
                                               FirstSeen<Kel::Name>& names,
                                               FirstSeen<Destination>& destinations) {
      const auto m = r_.mapping(v, {"name", "address", "port"});
      if (!m) {
         return std::nullopt;
      }
      Collector collector{{}, 4739};
      const auto name = uniqueKeyName(*m, names, "collector name");
      const auto addressValue = m->require("address");
      std::optional<Nivel::IpGenAddr> addr;
      if (addressValue) {
         addr = address<Nivel::IpGenAddr>(*addressValue, "an IPv4 or IPv6 address");
         setIfRead(collector.address, addr);
      }
      const auto port = m->get("port");
      const bool portRead =
          !port || setIfRead(collector.port, r_.integer(*port, 1, Kel::maxU16(), "a UDP port"));
      exporter.collectors.emplace(name.value_or(""), collector);
      if (!addr || !portRead) {
         return std::nullopt;
      }
      // Collectors of one exporter share its statistics key space by address.
      destinations.add(r_, *addressValue, {collector.address, collector.port},
                       fmt::format("address {} port {}", addr->str(), collector.port));
      return FirstCollector{name.value_or(""), collector, *addressValue};
   }

   void readFlowGroup(const YamlValue& v, Tracker& tracker,
                      FirstSeen<HwFlowTracking::TemplateId>& templateIds) {
      const auto m = r_.mapping(v, {"template-id", "entries", "fields"});
      if (!m) {
         return;
      }
      FlowGroup group;
      std::optional<HwFlowTracking::TemplateId> templateId;
      if (const auto id = m->require("template-id")) {
         templateId = dataTemplateId(*id);
         if (templateId) {
            templateIds.add(r_, *id, *templateId, fmt::format("template id {}", *templateId));
         }
      }
      if (const auto entries = m->require("entries")) {
         setIfRead(group.entryCount, r_.integer(*entries, 0, Kel::maxU32(), "an entry count"));
      }
      if (const auto fields = m->require("fields")) {
         const auto items = r_.list(*fields);
         if (items.empty() && (fields->node.IsNull() || fields->node.IsSequence())) {
            r_.error(*fields, "must list at least one field");
         } else if (items.size() > Limits::maxFieldsPerFlowGroup) {
            r_.error(*fields, fmt::format("must list at most {} fields, not {}",
                                          Limits::maxFieldsPerFlowGroup, items.size()));
         }
         for (const YamlValue& item : items) {
            if (auto field = flowField(item)) {
               group.fields.push_back(*field);
            }
         }
      }
      tracker.flowGroups.emplace(templateId.value_or(0), std::move(group));
   }

   std::optional<HwFlowTracking::TemplateId> dataTemplateId(const YamlValue& v) {
      if (v.node.IsScalar()) {
         const Kel::String& text = v.node.Scalar();
         Kel::U16 id = 0;
         const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), id);
         if (ec == std::errc() && end == text.data() + text.size() &&
             FlowTracking::Constants::isReservedTemplateId(id)) {
            r_.error(v, fmt::format("template id {} is reserved for the options templates; data "
                                    "template ids run from {} to {}",
                                    id, Limits::minDataTemplateId, Limits::maxDataTemplateId()));
            return std::nullopt;
         }
      }
      const auto id = r_.integer(v, Limits::minDataTemplateId, Limits::maxDataTemplateId(),
                                 "a data template id");
      if (!id) {
         return std::nullopt;
      }
      return static_cast<HwFlowTracking::TemplateId>(*id);
   }

   // A field is an element alone (no flow key) or a mapping with its flag.
   std::optional<FlowField> flowField(const YamlValue& v) {
      if (v.node.IsScalar()) {
         const auto e = element(v);
         return e ? std::optional(FlowField{*e, false}) : std::nullopt;
      }
      if (!v.node.IsMap()) {
         r_.error(v, "must be an element name or a mapping, not " + YamlReader::describe(v.node));
         return std::nullopt;
      }
      const auto m = r_.mapping(v, {"element", "flow-key"});
      if (!m) {
         return std::nullopt;
      }
      FlowField field;
      bool ok = true;
      if (const auto e = m->require("element")) {
         ok = setIfRead(field.element, element(*e));
      } else {
         ok = false;
      }
      if (const auto key = m->get("flow-key")) {
         ok = setIfRead(field.flowKey, r_.boolean(*key)) && ok;
      }
      return ok ? std::optional(field) : std::nullopt;
   }

   std::optional<Ipfix::RecordType> element(const YamlValue& v) {
      const auto text = r_.scalar(v, "an information element name or number");
      if (!text) {
         return std::nullopt;
      }
      const auto type = Ipfix::parseRecordType(*text);
      if (!type) {
         r_.error(v, "unknown information element " + YamlReader::describe(v.node));
      }
      return type;
   }

   void readInterfaces(const YamlValue& v, AgentConfig& config) {
      FirstSeen<Nivel::IntfId> names;
      FirstSeen<Kel::U32> indexes;
      for (const YamlValue& item : r_.list(v)) {
         const auto m = r_.mapping(item, {"name", "index"});
         if (!m) {
            continue;
         }
         const auto name = uniqueName(*m, names, Limits::maxTableNameLength, "interface name");
         Kel::U32 index = 0;
         if (const auto indexValue = m->require("index")) {
            if (setIfRead(index, interfaceIndex(*indexValue))) {
               indexes.add(r_, *indexValue, index, fmt::format("interface index {}", index));
            }
         }
         config.interfaces.emplace(name.value_or(""), index);
      }
   }

   std::optional<Kel::U32> interfaceIndex(const YamlValue& v) {
      const auto index = r_.integer(v, 0, Kel::maxU32(), "an interface index");
      if (!index) {
         return std::nullopt;
      }
      for (const auto& row : FlowTracking::reservedIntfs) {
         if (row.index == *index) {
            r_.error(v, fmt::format("interface index {} is reserved for the interface table's "
                                    "\"{}\" row",
                                    row.index, row.name));
            return std::nullopt;
         }
      }
      return static_cast<Kel::U32>(*index);
   }

   void readVrfs(const YamlValue& v, AgentConfig& config) {
      FirstSeen<Kel::U32> ids;
      FirstSeen<Kel::Name> names;
      for (const YamlValue& item : r_.list(v)) {
         const auto m = r_.mapping(item, {"id", "name"});
         if (!m) {
            continue;
         }
         Kel::U32 id = 0;
         if (const auto idValue = m->require("id")) {
            if (setIfRead(id, r_.integer(*idValue, 0, Kel::maxU32(), "a VRF id"))) {
               if (id == FlowTracking::reservedVrfId) {
                  r_.error(*idValue, fmt::format("VRF id {} is reserved for the VRF table's "
                                                 "unnamed row",
                                                 id));
               } else {
                  ids.add(r_, *idValue, id, fmt::format("VRF id {}", id));
               }
            }
         }
         const auto name = uniqueName(*m, names, Limits::maxTableNameLength, "VRF name");
         config.vrfs.emplace(id, name.value_or(""));
      }
   }

   // The required `name` of an object whose name is part of the statistics key.
   std::optional<Kel::Name> uniqueKeyName(const YamlMapping& m, FirstSeen<Kel::Name>& seen,
                                          const char* what) {
      return uniqueName(m, seen, Limits::maxKeyNameLength, what);
   }

   std::optional<Kel::Name> uniqueName(const YamlMapping& m, FirstSeen<Kel::Name>& seen,
                                       Kel::U32 maxLength, const char* what) {
      const auto v = m.require("name");
      if (!v) {
         return std::nullopt;
      }
      auto name = r_.text(*v, maxLength);
      if (name && !seen.add(r_, *v, *name, fmt::format("{} \"{}\"", what, *name))) {
         return std::nullopt;
      }
      return name;
   }

   template <class Addr>
   std::optional<Addr> address(const YamlValue& v, std::string_view what) {
      const auto text = r_.scalar(v, what);
      if (!text) {
         return std::nullopt;
      }
      auto addr = Addr::parse(*text);
      if (!addr) {
         r_.error(v, fmt::format("must be {}, not {}", what, YamlReader::describe(v.node)));
      }
      return addr;
   }

   // Stores a value that was read; false when it was not (the error is recorded).
   template <class T, class U>
   static bool setIfRead(T& field, const std::optional<U>& value) {
      if (value) {
         field = static_cast<T>(*value);
      }
      return value.has_value();
   }

   YamlReader r_;
   // Tracker names are unique across types: the statistics key has no type.
   FirstSeen<Kel::Name> trackerNames_;
};

}  // namespace

LoadResult parse(const Kel::String& text, const Kel::String& fileName) {
   return Loader(fileName).run(text);
}

LoadResult load(const Kel::String& path) {
   std::ifstream in(path);
   if (!in) {
      return {std::nullopt, {{path, 0, "", Kel::String("cannot read: ") + std::strerror(errno)}}};
   }
   std::ostringstream text;
   text << in.rdbuf();
   return parse(text.str(), path);
}

}  // namespace Agent
