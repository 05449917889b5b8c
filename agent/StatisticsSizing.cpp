#include "StatisticsSizing.h"

#include <algorithm>

namespace Agent {

Kel::U64 statisticsEntries(const AgentConfig& config) {
   Kel::U64 entries = 0;
   for (const auto& [type, tracking] : config.tracking) {
      for (const auto& [trackerName, tracker] : tracking.trackers) {
         ++entries;
         for (const auto& [exporterName, exporter] : tracker.exporters) {
            entries += 1 + exporter.collectors.size();
         }
      }
   }
   return entries;
}

Kel::U32 statisticsCapacity(const AgentConfig& config) {
   using Vorpa::Ipfix::CollectorStatistics;
   if (config.statisticsCapacity) {
      return *config.statisticsCapacity;
   }
   const Kel::U64 roomy =
       std::max<Kel::U64>(CollectorStatistics::defaultCapacity, 2 * statisticsEntries(config));
   return static_cast<Kel::U32>(std::min<Kel::U64>(roomy, CollectorStatistics::maxCapacity));
}

}  // namespace Agent
