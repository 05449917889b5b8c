#pragma once

#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "Ipfix/CollectorStats.h"

// The statistics grouped per tracker and exporter, and their printed forms: a
// text listing for people and JSON for programs (OpenMetrics for monitoring
// systems is in OpenMetricsReport.h).
namespace IpfixStats {

// Fields in the order the report builds them, not sorted by name.
using Json = nlohmann::ordered_json;

struct ExporterStats {
   Kel::String name;
   // When the exporter's counters were last cleared, by a request for it or
   // for its whole tracker; 0 for never.
   Kel::Seconds cleared = 0;
   std::vector<Vorpa::Ipfix::CollectorStatisticsEntry> collectors;
};

struct TrackerStats {
   Kel::String name;
   Kel::Seconds cleared = 0;  // by a request for the whole tracker
   std::vector<ExporterStats> exporters;
};

struct TableSummary {
   Kel::String name;
   Kel::U32 capacity = 0;
   Kel::U64 insertsRefused = 0;
   // Collector entries and clear times alike.
   Kel::U64 entries = 0;
};

// Groups entries by tracker and exporter, in name order. Entries with the
// empty collector carry clear times and become the `cleared` fields.
std::vector<TrackerStats> groupEntries(std::vector<Vorpa::Ipfix::CollectorStatisticsEntry> entries);

// The per-set counts of a collector that are in use, by set id.
std::vector<Vorpa::Ipfix::CollectorSetStatisticsEntry> usedSets(
    const Vorpa::Ipfix::CollectorStatisticsEntry& e);

// Seconds from `time` to `now`, never negative; nullopt for time 0, which
// the table writes for never.
std::optional<Kel::Seconds> secondsSince(Kel::Seconds time, Kel::Seconds now);
// "3.2 s ago", or "never" for time 0.
std::string ageText(Kel::Seconds time, Kel::Seconds now);

std::string textReport(const TableSummary& table, const std::vector<TrackerStats>& trackers,
                       Kel::Seconds now);
// Ages in seconds, null for never.
Json jsonReport(const TableSummary& table, const std::vector<TrackerStats>& trackers,
                Kel::Seconds now);
// The report as text: `indent` as in Json::dump (-1 for one line). Names
// are whatever octets the table's writer stored, not necessarily UTF-8, so
// invalid sequences print as U+FFFD rather than failing the whole report.
std::string jsonText(const Json& report, int indent);

}  // namespace IpfixStats
