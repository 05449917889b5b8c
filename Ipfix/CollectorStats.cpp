#include "Ipfix/CollectorStats.h"

#include <algorithm>
#include <vector>

namespace Vorpa::Ipfix {

CollectorStatistics::CollectorStatistics(Kel::Name name, CollectorStatisticsTable table)
    : name_(std::move(name)), table_(std::move(table)) {}

void CollectorStatistics::statsIs(const CollectorStatisticsEntry& entry) {
   if (table_.entryIs(entry.key(), entry)) {
      statsNotify(entry.key());
   }
}

CollectorStatisticsEntry* CollectorStatistics::statsForWrite(const CollectorStatisticsKey& key) {
   return table_.entryForWrite(key, CollectorStatisticsEntry(key));
}

void CollectorStatistics::statsCommit(const CollectorStatisticsEntry* entry) {
   table_.entryCommit(entry);
   statsNotify(entry->key());
}

std::optional<CollectorStatisticsEntry> CollectorStatistics::statsDel(
    const CollectorStatisticsKey& key) {
   std::optional<CollectorStatisticsEntry> removed = table_.entryDel(key);
   if (removed) {
      statsNotify(key);
   }
   return removed;
}

void CollectorStatistics::statsDelAll() {
   std::vector<CollectorStatisticsKey> keys;
   table_.forEach([&](const CollectorStatisticsKey& key, const CollectorStatisticsEntry&) {
      keys.push_back(key);
   });
   table_.entryDelAll();
   // In key order, as the framework's collections announce.
   std::sort(keys.begin(), keys.end());
   for (const CollectorStatisticsKey& key : keys) {
      statsNotify(key);
   }
}

void CollectorStatistics::statsNotify(const CollectorStatisticsKey& key) {
   notify(&Notifiee::onStats, key);
}

Kel::Ptr<CollectorStatistics> collectorStatisticsFactory(Kel::Name name, Kel::U32 capacity) {
   CollectorStatisticsTable table = CollectorStatisticsTable::create(name, capacity);
   return Kel::makeActive<CollectorStatistics>(std::move(name), std::move(table));
}

}  // namespace Vorpa::Ipfix
