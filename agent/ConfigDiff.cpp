#include "ConfigDiff.h"

#include <fmt/ranges.h>

namespace Agent {

namespace {

const char* attributeKey(Attribute a) {
   switch (a) {
      case Attribute::name:
         return "name";
      case Attribute::sampleRate:
         return "sample-rate";
      case Attribute::activeInterval:
         return "active-interval-ms";
      case Attribute::inactiveTimeout:
         return "inactive-timeout-ms";
      case Attribute::address:
         return "address";
      case Attribute::port:
         return "port";
      case Attribute::sourceIpv4:
         return "source-ipv4";
      case Attribute::sourceIpv6:
         return "source-ipv6";
      case Attribute::dscp:
         return "dscp";
      case Attribute::mtu:
         return "mtu";
      case Attribute::templateInterval:
         return "template-interval-ms";
      case Attribute::vrf:
         return "vrf";
      case Attribute::entries:
         return "entries";
      case Attribute::fields:
         return "fields";
      case Attribute::index:
         return "index";
   }
   return "?";
}

const char* kindWord(ChangeKind k) {
   switch (k) {
      case ChangeKind::removed:
         return "removed";
      case ChangeKind::changed:
         return "changed";
      case ChangeKind::added:
         return "added";
   }
   return "?";
}

// Calls `removed(key, old)` for keys only in `before`, `both(key, old, new)`
// for keys in both, then `added(key, new)` for keys only in `after`.
template <class Map, class Removed, class Both, class Added>
void walk(const Map& before, const Map& after, Removed removed, Both both, Added added) {
   for (const auto& [key, old] : before) {
      if (const auto it = after.find(key); it == after.end()) {
         removed(key, old);
      } else {
         both(key, old, it->second);
      }
   }
   for (const auto& [key, now] : after) {
      if (!before.contains(key)) {
         added(key, now);
      }
   }
}

// Collects the changes in three lists so that the result reads removals
// first, whatever order the walk finds them in.
class Differ {
 public:
   std::vector<Change> run(const AgentConfig& before, const AgentConfig& after) {
      if (before.statisticsTable != after.statisticsTable) {
         push(ChangeKind::changed, about(Subject::statisticsTable), {Attribute::name});
      }
      walk(
          before.tracking, after.tracking,
          [&](auto type, const Tracking&) { push(ChangeKind::removed, typed(type)); },
          [&](auto type, const Tracking& old, const Tracking& now) { tracking(type, old, now); },
          [&](auto type, const Tracking&) { push(ChangeKind::added, typed(type)); });
      walk(
          before.interfaces, after.interfaces,
          [&](const auto& name, auto) { push(ChangeKind::removed, interface(name)); },
          [&](const auto& name, auto old, auto now) {
             if (old != now) {
                push(ChangeKind::changed, interface(name), {Attribute::index});
             }
          },
          [&](const auto& name, auto) { push(ChangeKind::added, interface(name)); });
      walk(
          before.vrfs, after.vrfs,
          [&](auto id, const auto&) { push(ChangeKind::removed, vrf(id)); },
          [&](auto id, const auto& old, const auto& now) {
             if (old != now) {
                push(ChangeKind::changed, vrf(id), {Attribute::name});
             }
          },
          [&](auto id, const auto&) { push(ChangeKind::added, vrf(id)); });

      std::vector<Change> all = std::move(removed_);
      all.insert(all.end(), changed_.begin(), changed_.end());
      all.insert(all.end(), added_.begin(), added_.end());
      return all;
   }

 private:
   // Which attributes differ, in declaration order.
   class Attributes {
    public:
      template <class T>
      Attributes& compare(const T& old, const T& now, Attribute a) {
         if (old != now) {
            list.push_back(a);
         }
         return *this;
      }
      std::vector<Attribute> list;
   };

   void tracking(FlowTracking::FlowTrackingType type, const Tracking& old, const Tracking& now) {
      pushIfChanged(typed(type),
                    Attributes().compare(old.sampleRate, now.sampleRate, Attribute::sampleRate));
      walk(
          old.trackers, now.trackers,
          [&](const Kel::Name& name, const Tracker&) { push(ChangeKind::removed, at(type, name)); },
          [&](const Kel::Name& name, const Tracker& o, const Tracker& n) {
             if (o.id != n.id) {
                // The id is the observation domain: a different tracker.
                push(ChangeKind::removed, at(type, name));
                push(ChangeKind::added, at(type, name));
             } else {
                tracker(at(type, name), o, n);
             }
          },
          [&](const Kel::Name& name, const Tracker&) { push(ChangeKind::added, at(type, name)); });
   }

   void tracker(const Change& where, const Tracker& old, const Tracker& now) {
      pushIfChanged(
          where,
          Attributes()
              .compare(old.activeIntervalMs, now.activeIntervalMs, Attribute::activeInterval)
              .compare(old.inactiveTimeoutMs, now.inactiveTimeoutMs, Attribute::inactiveTimeout));
      walk(
          old.exporters, now.exporters,
          [&](const Kel::Name& name, const Exporter&) {
             push(ChangeKind::removed, exporterAt(where, name));
          },
          [&](const Kel::Name& name, const Exporter& o, const Exporter& n) {
             exporter(exporterAt(where, name), o, n);
          },
          [&](const Kel::Name& name, const Exporter&) {
             push(ChangeKind::added, exporterAt(where, name));
          });
      walk(
          old.flowGroups, now.flowGroups,
          [&](auto id, const FlowGroup&) { push(ChangeKind::removed, flowGroupAt(where, id)); },
          [&](auto id, const FlowGroup& o, const FlowGroup& n) {
             pushIfChanged(flowGroupAt(where, id),
                           Attributes()
                               .compare(o.entryCount, n.entryCount, Attribute::entries)
                               .compare(o.fields, n.fields, Attribute::fields));
          },
          [&](auto id, const FlowGroup&) { push(ChangeKind::added, flowGroupAt(where, id)); });
   }

   void exporter(const Change& where, const Exporter& old, const Exporter& now) {
      pushIfChanged(where, Attributes()
                               .compare(old.srcIpv4, now.srcIpv4, Attribute::sourceIpv4)
                               .compare(old.srcIpv6, now.srcIpv6, Attribute::sourceIpv6)
                               .compare(old.dscp, now.dscp, Attribute::dscp)
                               .compare(old.mtu, now.mtu, Attribute::mtu)
                               .compare(old.templateIntervalMs, now.templateIntervalMs,
                                        Attribute::templateInterval)
                               .compare(old.vrfName, now.vrfName, Attribute::vrf));
      walk(
          old.collectors, now.collectors,
          [&](const Kel::Name& name, const Collector&) {
             push(ChangeKind::removed, collectorAt(where, name));
          },
          [&](const Kel::Name& name, const Collector& o, const Collector& n) {
             pushIfChanged(collectorAt(where, name),
                           Attributes()
                               .compare(o.address, n.address, Attribute::address)
                               .compare(o.port, n.port, Attribute::port));
          },
          [&](const Kel::Name& name, const Collector&) {
             push(ChangeKind::added, collectorAt(where, name));
          });
   }

   static Change about(Subject subject) {
      Change c{};
      c.subject = subject;
      return c;
   }
   static Change typed(FlowTracking::FlowTrackingType type) {
      Change c = about(Subject::tracking);
      c.type = type;
      return c;
   }
   static Change at(FlowTracking::FlowTrackingType type, const Kel::Name& tracker) {
      Change c = typed(type);
      c.subject = Subject::tracker;
      c.tracker = tracker;
      return c;
   }
   static Change exporterAt(Change where, const Kel::Name& exporter) {
      where.subject = Subject::exporter;
      where.exporter = exporter;
      return where;
   }
   static Change collectorAt(Change where, const Kel::Name& collector) {
      where.subject = Subject::collector;
      where.name = collector;
      return where;
   }
   static Change flowGroupAt(Change where, HwFlowTracking::TemplateId id) {
      where.subject = Subject::flowGroup;
      where.templateId = id;
      return where;
   }
   static Change interface(const Nivel::IntfId& name) {
      Change c = about(Subject::interface);
      c.name = name;
      return c;
   }
   static Change vrf(Kel::U32 id) {
      Change c = about(Subject::vrf);
      c.vrfId = id;
      return c;
   }

   void pushIfChanged(const Change& where, const Attributes& attributes) {
      if (!attributes.list.empty()) {
         push(ChangeKind::changed, where, attributes.list);
      }
   }
   void push(ChangeKind kind, Change c, std::vector<Attribute> attributes = {}) {
      c.kind = kind;
      c.attributes = std::move(attributes);
      (kind == ChangeKind::removed   ? removed_
       : kind == ChangeKind::changed ? changed_
                                     : added_)
          .push_back(std::move(c));
   }

   std::vector<Change> removed_, changed_, added_;
};

}  // namespace

Kel::String Change::str() const {
   Kel::String object;
   switch (subject) {
      case Subject::statisticsTable:
         object = "statistics table";
         break;
      case Subject::tracking:
         object = fmt::format("tracking type {}", typeKey(type));
         break;
      case Subject::tracker:
         object = fmt::format("tracker {}/{}", typeKey(type), tracker);
         break;
      case Subject::exporter:
         object = fmt::format("exporter {}/{}/{}", typeKey(type), tracker, exporter);
         break;
      case Subject::collector:
         object = fmt::format("collector {}/{}/{}/{}", typeKey(type), tracker, exporter, name);
         break;
      case Subject::flowGroup:
         object = fmt::format("flow group {}/{}/{}", typeKey(type), tracker, templateId);
         break;
      case Subject::interface:
         object = fmt::format("interface {}", name);
         break;
      case Subject::vrf:
         object = fmt::format("vrf {}", vrfId);
         break;
   }
   Kel::String text = fmt::format("{} {}", kindWord(kind), object);
   if (!attributes.empty()) {
      std::vector<const char*> keys;
      for (Attribute a : attributes) {
         keys.push_back(attributeKey(a));
      }
      text += fmt::format(": {}", fmt::join(keys, ", "));
   }
   return text;
}

std::vector<Change> diff(const AgentConfig& before, const AgentConfig& after) {
   return Differ().run(before, after);
}

}  // namespace Agent
