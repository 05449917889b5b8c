#pragma once

#include <optional>
#include <string_view>

#include "Ipfix/CollectorStatsEntry.h"
#include "Kel/Entity.h"
#include "Vorpa/TableReader.h"

namespace Vorpa::Ipfix {

// The table the agent mounts unless its configuration names another, and the
// one `ipfix-stats` reads by default.
inline constexpr std::string_view defaultCollectorStatisticsTableName = "ipfix-collector-stats";

using CollectorStatisticsTable = Vorpa::Table<CollectorStatisticsKey, CollectorStatisticsEntry>;
using CollectorStatisticsReader =
    Vorpa::TableReader<CollectorStatisticsKey, CollectorStatisticsEntry>;

// The per-collector export statistics in their shared-memory table, written by
// this agent (the table's only writer) and read by other processes. Every
// change of an entry is announced to readers through the table and to this
// entity's notifiees through onStats(key).
class CollectorStatistics : public Kel::Entity {
 public:
   // Entries the table holds unless its writer says otherwise: every
   // collector of every exporter, and the clear-time entries of the cleared
   // trackers and exporters.
   static constexpr Kel::U32 defaultCapacity = 1024;
   static constexpr Kel::U32 maxCapacity = Vorpa::maxCapacity;

   class Notifiee : public Kel::BaseNotifiee<CollectorStatistics> {
    public:
      virtual void onStats(const CollectorStatisticsKey&) {}
   };

   CollectorStatistics(Kel::Name name, CollectorStatisticsTable table);

   const Kel::Name& name() const { return name_; }

   // The current entry of `key`; writers read it back before updating it.
   std::optional<CollectorStatisticsEntry> stats(const CollectorStatisticsKey& key) const {
      return table_.entry(key);
   }
   // Inserts or replaces the entry under its key. A full table refuses a new
   // key (traced and counted by the table) and nothing is announced.
   void statsIs(const CollectorStatisticsEntry& entry);
   // The entry of `key` opened for writing in place, fresh when absent (null
   // when the table is full); readers keep seeing the old entry until
   // statsCommit() of the returned pointer.
   CollectorStatisticsEntry* statsForWrite(const CollectorStatisticsKey& key);
   void statsCommit(const CollectorStatisticsEntry* entry);
   // Removes the entry of `key` and returns it; nullopt when there is none.
   std::optional<CollectorStatisticsEntry> statsDel(const CollectorStatisticsKey& key);
   void statsDelAll();

   // The table itself: size, capacity, refusal and corruption counters,
   // iteration.
   const CollectorStatisticsTable& statsControl() const { return table_; }

 private:
   void statsNotify(const CollectorStatisticsKey& key);

   Kel::Name name_;
   CollectorStatisticsTable table_;
};

// Mounts (creates) the shared-memory table `name` as its writer.
Kel::Ptr<CollectorStatistics> collectorStatisticsFactory(
    Kel::Name name, Kel::U32 capacity = CollectorStatistics::defaultCapacity);

}  // namespace Vorpa::Ipfix
