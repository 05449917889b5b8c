#include "Ipfix/CollectorStatsUpdate.h"

#include <algorithm>
#include <vector>

#include "Kel/System.h"
#include "Kel/Trace.h"

namespace Vorpa::Ipfix {

namespace {

Kel::TraceHandle traceIpfix("Ipfix");

enum class MessageKind { optionsData, templates };

void statsUpdateAfterMessages(CollectorStatistics& stats, const CollectorStatisticsKey& key,
                              MessageKind kind, Kel::U64 messages, Kel::U64 octets,
                              std::span<const SetCount> sets) {
   CollectorStatisticsEntry entry = stats.stats(key).value_or(CollectorStatisticsEntry(key));
   const Kel::Seconds now = Kel::System::currentTime();
   entry.exportedMessageTotalCountIs(entry.exportedMessageTotalCount() + messages);
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
   statsUpdateAfterMessages(stats, CollectorStatisticsKey(tracker, exporter, collector),
                            MessageKind::optionsData, 1, octets, recordsPerSet);
}

void OptionsDataTally::messageAdd(Kel::U64 octets, std::span<const SetCount> recordsPerSet) {
   ++messages_;
   octets_ += octets;
   for (const SetCount& set : recordsPerSet) {
      const auto it = std::find_if(recordsPerSet_.begin(), recordsPerSet_.end(),
                                   [&](const SetCount& s) { return s.setId == set.setId; });
      if (it == recordsPerSet_.end()) {
         recordsPerSet_.push_back(set);
      } else {
         it->count += set.count;
      }
   }
}

void statsUpdateAfterOptionsData(CollectorStatistics& stats, const Kel::String& tracker,
                                 const Kel::String& exporter, const CollectorInfo& collector,
                                 const OptionsDataTally& tally) {
   statsUpdateAfterMessages(stats, CollectorStatisticsKey(tracker, exporter, collector),
                            MessageKind::optionsData, tally.messages(), tally.octets(),
                            tally.recordsPerSet());
}

void statsUpdateAfterTemplates(CollectorStatistics& stats, const Kel::String& tracker,
                               const Kel::String& exporter, const CollectorInfo& collector,
                               Kel::U64 octets, std::span<const SetCount> templatesPerSet) {
   statsUpdateAfterMessages(stats, CollectorStatisticsKey(tracker, exporter, collector),
                            MessageKind::templates, 1, octets, templatesPerSet);
}

void statsClear(CollectorStatistics& stats, const Kel::String& tracker,
                const Kel::String& exporter) {
   const bool everything = tracker.empty() && exporter.empty();
   std::vector<CollectorStatisticsKey> matching;
   stats.statsControl().forEach(
       [&](const CollectorStatisticsKey& key, const CollectorStatisticsEntry&) {
          if (everything && key.exporter().empty() && key.collector() == CollectorInfo()) {
             KEL_TRACE(traceIpfix, 3, "skip 'clear time' entry");
             return;
          }
          if ((!tracker.empty() && key.tracker() != tracker) ||
              (!exporter.empty() && key.exporter() != exporter)) {
             KEL_TRACE(traceIpfix, 3, "tracker \"{}\" exporter \"{}\" did not match", key.tracker(),
                       key.exporter());
             return;
          }
          matching.push_back(key);
       });
   for (const CollectorStatisticsKey& key : matching) {
      stats.statsDel(key);
      CollectorStatisticsEntry cleared(CollectorStatisticsKey(
          key.tracker(), exporter.empty() ? Kel::String() : key.exporter(), CollectorInfo()));
      cleared.lastClearedTimeIs(Kel::System::currentTime());
      stats.statsIs(cleared);
   }
}

}  // namespace Vorpa::Ipfix
