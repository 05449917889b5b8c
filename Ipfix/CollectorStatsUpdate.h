#pragma once

#include <span>
#include <vector>

#include "Ipfix/CollectorStats.h"

// How senders update the statistics, so that every writer counts alike. Times
// are the framework's current time.
namespace Vorpa::Ipfix {

// How many records (data sets) or templates (template sets) one message
// carried in the sets of one id.
struct SetCount {
   SetId setId;
   Kel::U64 count;
};

// After an options-data message of `octets` octets with `recordsPerSet` went
// to `collector`: one more message, its records and octets added to the
// totals and to each set id's flow record count, last-sent and
// options-data times now. A 14th set id raises the range error and the entry
// stays as it was.
void statsUpdateAfterOptionsData(CollectorStatistics& stats, const Kel::String& tracker,
                                 const Kel::String& exporter, const CollectorInfo& collector,
                                 Kel::U64 octets, std::span<const SetCount> recordsPerSet);

// Options-data messages sent to one collector in a row and not yet counted:
// a full transmission sends the whole cache and then counts it with one
// update of the entry, as if each message had been counted on its own.
class OptionsDataTally {
 public:
   void messageAdd(Kel::U64 octets, std::span<const SetCount> recordsPerSet);
   bool empty() const { return messages_ == 0; }
   Kel::U64 messages() const { return messages_; }
   Kel::U64 octets() const { return octets_; }
   // Records per set id, in the order the ids first appeared.
   const std::vector<SetCount>& recordsPerSet() const { return recordsPerSet_; }

 private:
   Kel::U64 messages_ = 0;
   Kel::U64 octets_ = 0;
   std::vector<SetCount> recordsPerSet_;
};

// Counts the messages of `tally` as statsUpdateAfterOptionsData would have
// counted each of them.
void statsUpdateAfterOptionsData(CollectorStatistics& stats, const Kel::String& tracker,
                                 const Kel::String& exporter, const CollectorInfo& collector,
                                 const OptionsDataTally& tally);

// After a template or options-template message: as above, but the record total
// stays, the templates are added to the template count of set id 2 or 3, and
// the template time is set instead of the options-data time.
void statsUpdateAfterTemplates(CollectorStatistics& stats, const Kel::String& tracker,
                               const Kel::String& exporter, const CollectorInfo& collector,
                               Kel::U64 octets, std::span<const SetCount> templatesPerSet);

// A clear request for `tracker` and `exporter`, each empty for every one (an
// exporter is named with its tracker): removes the matching entries, so their
// counts restart with the next message, and for each records the clear time in
// an entry of its own under (its tracker, the exporter named or the empty
// name, the empty collector). Clearing everything keeps the tracker-wide
// clear-time entries and replaces the exporters' ones by their tracker's.
void statsClear(CollectorStatistics& stats, const Kel::String& tracker,
                const Kel::String& exporter);

}  // namespace Vorpa::Ipfix
