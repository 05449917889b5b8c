#include "OpenMetricsReport.h"

#include <fmt/format.h>

#include "Utf8.h"

namespace IpfixStats {

using Vorpa::Ipfix::CollectorSetStatisticsEntry;
using Vorpa::Ipfix::CollectorStatisticsEntry;

namespace {

// A label value: UTF-8, with the three characters the format escapes escaped.
std::string labelValue(std::string_view raw) {
   std::string out;
   for (const char c : validUtf8(raw)) {
      switch (c) {
         case '\\':
            out += "\\\\";
            break;
         case '"':
            out += "\\\"";
            break;
         case '\n':
            out += "\\n";
            break;
         default:
            out += c;
      }
   }
   return out;
}

struct Family {
   std::string_view name;
   std::string_view type;
   std::string_view help;
   // Only for names that end in _<unit>, as the format requires.
   std::string_view unit = "";
};

void appendFamily(std::string& out, const Family& f) {
   out += fmt::format("# TYPE {} {}\n", f.name, f.type);
   if (!f.unit.empty()) {
      out += fmt::format("# UNIT {} {}\n", f.name, f.unit);
   }
   out += fmt::format("# HELP {} {}\n", f.name, f.help);
}

// A counter's sample carries the _total suffix; a gauge's the family name.
std::string sampleName(const Family& f) {
   return f.type == "counter" ? fmt::format("{}_total", f.name) : std::string(f.name);
}

// A collector's labels, in the order of its key.
struct CollectorSeries {
   std::string labels;
   const CollectorStatisticsEntry* entry;
};

std::vector<CollectorSeries> collectorSeries(const std::vector<TrackerStats>& trackers) {
   std::vector<CollectorSeries> series;
   for (const TrackerStats& t : trackers) {
      for (const ExporterStats& x : t.exporters) {
         for (const CollectorStatisticsEntry& e : x.collectors) {
            series.push_back(
                {fmt::format("tracker=\"{}\",exporter=\"{}\",collector=\"{}\"", labelValue(t.name),
                             labelValue(x.name), labelValue(e.key().collector().stringValue())),
                 &e});
         }
      }
   }
   return series;
}

const Family capacityFamily{"ipfix_table_capacity", "gauge",
                            "Entries the collector statistics table holds at most."};
const Family entriesFamily{
    "ipfix_table_entries", "gauge",
    "Entries in use in the collector statistics table: one per collector, and the clear times "
    "of exporters and trackers."};
const Family refusedFamily{"ipfix_table_inserts_refused", "counter",
                           "Entries the collector statistics table refused because it was full."};

struct CollectorCounter {
   Family family;
   Kel::U64 (CollectorStatisticsEntry::*value)() const;
};
const CollectorCounter collectorCounters[] = {
    {{"ipfix_collector_messages", "counter", "IPFIX messages sent to the collector."},
     &CollectorStatisticsEntry::exportedMessageTotalCount},
    {{"ipfix_collector_records", "counter", "Data records sent to the collector."},
     &CollectorStatisticsEntry::exportedFlowRecordTotalCount},
    {{"ipfix_collector_octets", "counter", "Octets of IPFIX messages sent to the collector."},
     &CollectorStatisticsEntry::exportedOctetTotalCount},
};

struct SetCounter {
   Family family;
   Kel::U64 (CollectorSetStatisticsEntry::*value)() const;
};
const SetCounter setCounters[] = {
    {{"ipfix_collector_set_records", "counter",
      "Data records sent to the collector in sets of this set id."},
     &CollectorSetStatisticsEntry::exportedFlowRecordCount},
    {{"ipfix_collector_set_templates", "counter",
      "Template records sent to the collector in sets of this set id."},
     &CollectorSetStatisticsEntry::exportedTemplateCount},
};

const Family lastSentFamily{
    "ipfix_collector_last_sent_seconds", "gauge",
    "Seconds since the last message to the collector: of any kind, or with templates, data "
    "records or options data records. No sample for a kind never sent.",
    "seconds"};
struct MessageKind {
   std::string_view label;
   Kel::Seconds (CollectorStatisticsEntry::*time)() const;
};
const MessageKind messageKinds[] = {
    {"any", &CollectorStatisticsEntry::lastSentTime},
    {"template", &CollectorStatisticsEntry::lastTemplateSentTime},
    {"data", &CollectorStatisticsEntry::lastDataRecordSentTime},
    {"options_data", &CollectorStatisticsEntry::lastOptionsDataSentTime},
};

}  // namespace

std::string openMetricsReport(const TableSummary& table, const std::vector<TrackerStats>& trackers,
                              Kel::Seconds now) {
   std::string out;
   const std::string tableLabel = fmt::format("table=\"{}\"", labelValue(table.name));
   const auto tableSample = [&](const Family& f, Kel::U64 value) {
      appendFamily(out, f);
      out += fmt::format("{}{{{}}} {}\n", sampleName(f), tableLabel, value);
   };
   tableSample(capacityFamily, table.capacity);
   tableSample(entriesFamily, table.entries);
   tableSample(refusedFamily, table.insertsRefused);

   // Every sample of a family comes together, as the format requires.
   const std::vector<CollectorSeries> collectors = collectorSeries(trackers);
   for (const CollectorCounter& counter : collectorCounters) {
      appendFamily(out, counter.family);
      for (const CollectorSeries& c : collectors) {
         out += fmt::format("{}{{{}}} {}\n", sampleName(counter.family), c.labels,
                            (c.entry->*counter.value)());
      }
   }
   for (const SetCounter& counter : setCounters) {
      appendFamily(out, counter.family);
      for (const CollectorSeries& c : collectors) {
         for (const CollectorSetStatisticsEntry& set : usedSets(*c.entry)) {
            out += fmt::format("{}{{{},set_id=\"{}\"}} {}\n", sampleName(counter.family), c.labels,
                               set.setId().value(), (set.*counter.value)());
         }
      }
   }
   appendFamily(out, lastSentFamily);
   for (const CollectorSeries& c : collectors) {
      for (const MessageKind& kind : messageKinds) {
         if (const auto age = secondsSince((c.entry->*kind.time)(), now)) {
            out += fmt::format("{}{{{},kind=\"{}\"}} {:.3f}\n", lastSentFamily.name, c.labels,
                               kind.label, *age);
         }
      }
   }
   out += "# EOF\n";
   return out;
}

}  // namespace IpfixStats
