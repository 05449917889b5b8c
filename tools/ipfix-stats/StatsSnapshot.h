#pragma once

#include <stdexcept>

#include "StatsReport.h"

namespace IpfixStats {

// The table cannot be read as a whole: a damaged header or entry, or an entry
// its writer left half-written.
class CorruptTable : public std::runtime_error {
 public:
   using std::runtime_error::runtime_error;
};

struct Snapshot {
   TableSummary summary;
   std::vector<TrackerStats> trackers;
};

// Every entry of the table, each one consistent, grouped for printing. Throws
// CorruptTable.
Snapshot takeSnapshot(const Vorpa::Ipfix::CollectorStatisticsReader& reader);

}  // namespace IpfixStats
