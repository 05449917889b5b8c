#include "StatsSnapshot.h"

#include <fmt/format.h>

namespace IpfixStats {

namespace {

// Scans again while the writer holds entries open; each scan already waits up
// to a millisecond for an open entry, so an entry still open after these is
// one a dead writer left behind.
constexpr int maxScans = 8;

}  // namespace

Snapshot takeSnapshot(const Vorpa::Ipfix::CollectorStatisticsReader& reader) {
   std::vector<Vorpa::Ipfix::CollectorStatisticsEntry> entries;
   Vorpa::ScanResult scan;
   for (int attempt = 0; attempt < maxScans; ++attempt) {
      entries.clear();
      scan = reader.forEach([&](const auto&, const Vorpa::Ipfix::CollectorStatisticsEntry& e) {
         entries.push_back(e);
      });
      if (scan.busy == 0 || scan.corrupt > 0) {
         break;
      }
   }
   if (!reader.headerIntact()) {
      throw CorruptTable(fmt::format("table '{}' has a corrupt header", reader.name()));
   }
   if (scan.corrupt > 0) {
      throw CorruptTable(
          fmt::format("table '{}' has {} corrupt entries", reader.name(), scan.corrupt));
   }
   if (scan.busy > 0) {
      throw CorruptTable(
          fmt::format("table '{}' has {} entries left half-written", reader.name(), scan.busy));
   }
   const TableSummary summary{reader.name(), reader.capacity(), reader.insertRefusedCount(),
                              entries.size()};
   return Snapshot{summary, groupEntries(std::move(entries))};
}

}  // namespace IpfixStats
