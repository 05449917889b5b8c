#include "Ipfix/CollectorStatsUpdate.h"

#include <vector>

#include "Kel/System.h"

namespace Vorpa::Ipfix {

namespace {

enum class MessageKind { optionsData, templates };

void statsUpdateAfterMessage(CollectorStatistics& stats, const CollectorStatisticsKey& key,
                             MessageKind kind, Kel::U64 octets, std::span<const SetCount> sets) {
   CollectorStatisticsEntry entry = stats.stats(key).value_or(CollectorStatisticsEntry(key));
   const Kel::Seconds now = Kel::System::currentTime();
   entry.exportedMessageTotalCountIs(entry.exportedMessageTotalCount() + 1);
   entry.exportedOctetTotalCountIs(entry.exportedOctetTotalCount() + octets);
   entry.lastSentTimeIs(now);
   if (kind == MessageKind::optionsData) {
      entry.lastOptionsDataSentTimeIs(now);
   } else {
      entry.lastTemplateSentTimeIs(now);
   }
   for (const SetCount& set : sets) {
      CollectorSetStatisticsEntry counts = entry.setEntry(set.setId);
      if (counts.setId() != set.setId) {
         counts = CollectorSetStatisticsEntry(set.setId, 0, 0);
      }
      if (kind == MessageKind::optionsData) {
         counts.exportedFlowRecordCountIs(counts.exportedFlowRecordCount() + set.count);
         entry.exportedFlowRecordTotalCountIs(entry.exportedFlowRecordTotalCount() + set.count);
      } else {
         counts.exportedTemplateCountIs(counts.exportedTemplateCount() + set.count);
      }
      entry.setEntryIs(counts);
   }
   stats.statsIs(entry);
}

}  // namespace

void statsUpdateAfterOptionsData(CollectorStatistics& stats, const Kel::String& tracker,
                                 const Kel::String& exporter, const CollectorInfo& collector,
                                 Kel::U64 octets, std::span<const SetCount> recordsPerSet) {
   statsUpdateAfterMessage(stats, CollectorStatisticsKey(tracker, exporter, collector),
                           MessageKind::optionsData, octets, recordsPerSet);
}

void statsUpdateAfterTemplates(CollectorStatistics& stats, const Kel::String& tracker,
                               const Kel::String& exporter, const CollectorInfo& collector,
                               Kel::U64 octets, std::span<const SetCount> templatesPerSet) {
   statsUpdateAfterMessage(stats, CollectorStatisticsKey(tracker, exporter, collector),
                           MessageKind::templates, octets, templatesPerSet);
}

void statsClear(CollectorStatistics& stats, const Kel::String& tracker,
                const Kel::String& exporter) {
   std::vector<CollectorStatisticsKey> matching;
   stats.statsControl().forEach(
       [&](const CollectorStatisticsKey& key, const CollectorStatisticsEntry&) {
          if (key.tracker() == tracker && (exporter.empty() || key.exporter() == exporter)) {
             matching.push_back(key);
          }
       });
   for (const CollectorStatisticsKey& key : matching) {
      stats.statsDel(key);
   }
   CollectorStatisticsEntry cleared(CollectorStatisticsKey(tracker, exporter, CollectorInfo()));
   cleared.lastClearedTimeIs(Kel::System::currentTime());
   stats.statsIs(cleared);
}

}  // namespace Vorpa::Ipfix
