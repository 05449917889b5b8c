#pragma once

#include <string>
#include <string_view>

#include "StatsReport.h"

// The statistics in the OpenMetrics text format, which Prometheus and the
// monitoring systems compatible with it scrape. The metric names and labels
// are an interface of their own: dashboards and alerts are written against
// them, so they change only with care (the ipfix-stats manual lists them).
namespace IpfixStats {

// The HTTP content type of openMetricsReport().
inline constexpr std::string_view openMetricsContentType =
    "application/openmetrics-text; version=1.0.0; charset=utf-8";

// Per collector (labels tracker, exporter, collector) its counters, its
// per-set counters (label set_id) and the seconds since its last message of
// each kind (label kind); per table (label table) its capacity, entries and
// refused inserts. A kind of message never sent has no sample: the format
// would take NaN, but a NaN series matches no comparison and poisons
// aggregations, so an alert on it silently never fires, whereas a missing
// series is what absent() and `unless` are made for. Ends with "# EOF".
std::string openMetricsReport(const TableSummary& table, const std::vector<TrackerStats>& trackers,
                              Kel::Seconds now);

}  // namespace IpfixStats
