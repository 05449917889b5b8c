#include "StatsReport.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>

namespace IpfixStats {

using Vorpa::Ipfix::CollectorInfo;
using Vorpa::Ipfix::CollectorSetStatisticsEntry;
using Vorpa::Ipfix::CollectorStatisticsEntry;

namespace {

bool isClearTime(const CollectorStatisticsEntry& e) {
   return e.key().collector() == CollectorInfo();
}

// Seconds to the millisecond; the times themselves are finer than anything a
// consumer of the report needs.
Json ageJson(Kel::Seconds time, Kel::Seconds now) {
   const auto age = secondsSince(time, now);
   return age ? Json(std::round(*age * 1000) / 1000) : Json(nullptr);
}

void appendCollector(std::string& out, const CollectorStatisticsEntry& e, Kel::Seconds now) {
   out += fmt::format("    Collector {}\n", e.key().collector().stringValue());
   out += fmt::format("      messages {}, records {}, octets {}\n", e.exportedMessageTotalCount(),
                      e.exportedFlowRecordTotalCount(), e.exportedOctetTotalCount());
   out += fmt::format("      last sent {}, template {}, data {}, options data {}\n",
                      ageText(e.lastSentTime(), now), ageText(e.lastTemplateSentTime(), now),
                      ageText(e.lastDataRecordSentTime(), now),
                      ageText(e.lastOptionsDataSentTime(), now));
   for (const CollectorSetStatisticsEntry& set : usedSets(e)) {
      out += fmt::format("      set {}: records {}, templates {}\n", set.setId().value(),
                         set.exportedFlowRecordCount(), set.exportedTemplateCount());
   }
}

Json collectorJson(const CollectorStatisticsEntry& e, Kel::Seconds now) {
   Json sets = Json::array();
   for (const CollectorSetStatisticsEntry& set : usedSets(e)) {
      sets.push_back({{"setId", set.setId().value()},
                      {"records", set.exportedFlowRecordCount()},
                      {"templates", set.exportedTemplateCount()}});
   }
   return {{"collector", e.key().collector().stringValue()},
           {"messages", e.exportedMessageTotalCount()},
           {"records", e.exportedFlowRecordTotalCount()},
           {"octets", e.exportedOctetTotalCount()},
           {"lastSentSecondsAgo", ageJson(e.lastSentTime(), now)},
           {"lastTemplateSentSecondsAgo", ageJson(e.lastTemplateSentTime(), now)},
           {"lastDataRecordSentSecondsAgo", ageJson(e.lastDataRecordSentTime(), now)},
           {"lastOptionsDataSentSecondsAgo", ageJson(e.lastOptionsDataSentTime(), now)},
           {"sets", sets}};
}

}  // namespace

std::vector<TrackerStats> groupEntries(std::vector<CollectorStatisticsEntry> entries) {
   std::sort(entries.begin(), entries.end(),
             [](const auto& a, const auto& b) { return a.key() < b.key(); });
   std::vector<TrackerStats> trackers;
   for (const CollectorStatisticsEntry& e : entries) {
      const Kel::String tracker = e.key().tracker();
      const Kel::String exporter = e.key().exporter();
      if (trackers.empty() || trackers.back().name != tracker) {
         trackers.push_back(TrackerStats{tracker, 0, {}});
      }
      TrackerStats& t = trackers.back();
      if (exporter.empty() && isClearTime(e)) {
         t.cleared = e.lastClearedTime();
         continue;
      }
      if (t.exporters.empty() || t.exporters.back().name != exporter) {
         t.exporters.push_back(ExporterStats{exporter, 0, {}});
      }
      ExporterStats& x = t.exporters.back();
      if (isClearTime(e)) {
         x.cleared = e.lastClearedTime();
      } else {
         x.collectors.push_back(e);
      }
   }
   for (TrackerStats& t : trackers) {
      for (ExporterStats& x : t.exporters) {
         x.cleared = std::max(x.cleared, t.cleared);
      }
   }
   return trackers;
}

std::vector<CollectorSetStatisticsEntry> usedSets(const CollectorStatisticsEntry& e) {
   std::vector<CollectorSetStatisticsEntry> sets;
   for (const CollectorSetStatisticsEntry& set : e.setEntryStorage().used()) {
      if (set.setId() != Vorpa::Ipfix::setIdInval) {
         sets.push_back(set);
      }
   }
   return sets;
}

std::optional<Kel::Seconds> secondsSince(Kel::Seconds time, Kel::Seconds now) {
   return time == 0 ? std::nullopt : std::optional(std::max(0.0, now - time));
}

std::string ageText(Kel::Seconds time, Kel::Seconds now) {
   const auto age = secondsSince(time, now);
   return age ? fmt::format("{:.1f} s ago", *age) : "never";
}

std::string textReport(const TableSummary& table, const std::vector<TrackerStats>& trackers,
                       Kel::Seconds now) {
   std::size_t collectors = 0;
   for (const TrackerStats& t : trackers) {
      for (const ExporterStats& x : t.exporters) {
         collectors += x.collectors.size();
      }
   }
   std::string out = fmt::format("Table {}: {} collectors, capacity {}, {} inserts refused\n",
                                 table.name, collectors, table.capacity, table.insertsRefused);
   for (const TrackerStats& t : trackers) {
      out += fmt::format("Tracker {}, cleared {}\n", t.name, ageText(t.cleared, now));
      for (const ExporterStats& x : t.exporters) {
         out += fmt::format("  Exporter {}, cleared {}\n", x.name, ageText(x.cleared, now));
         for (const CollectorStatisticsEntry& e : x.collectors) {
            appendCollector(out, e, now);
         }
      }
   }
   return out;
}

Json jsonReport(const TableSummary& table, const std::vector<TrackerStats>& trackers,
                Kel::Seconds now) {
   Json trackersJson = Json::array();
   for (const TrackerStats& t : trackers) {
      Json exporters = Json::array();
      for (const ExporterStats& x : t.exporters) {
         Json collectors = Json::array();
         for (const CollectorStatisticsEntry& e : x.collectors) {
            collectors.push_back(collectorJson(e, now));
         }
         exporters.push_back({{"name", x.name},
                              {"clearedSecondsAgo", ageJson(x.cleared, now)},
                              {"collectors", collectors}});
      }
      trackersJson.push_back({{"name", t.name},
                              {"clearedSecondsAgo", ageJson(t.cleared, now)},
                              {"exporters", exporters}});
   }
   return {{"table", table.name},
           {"capacity", table.capacity},
           {"insertsRefused", table.insertsRefused},
           {"trackers", trackersJson}};
}

std::string jsonText(const Json& report, int indent) {
   return report.dump(indent, ' ', false, Json::error_handler_t::replace);
}

}  // namespace IpfixStats
