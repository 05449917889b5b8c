#include "Ipfix/CollectorStatsEntry.h"

#include <charconv>
#include <cstddef>

#include "Vorpa/Hash.h"

namespace Vorpa::Ipfix {

namespace {

// Reads a text made of known literals and decimal numbers, front to back.
class TextScanner {
 public:
   explicit TextScanner(std::string_view text) : rest_(text) {}

   bool literal(std::string_view expected) {
      if (!rest_.starts_with(expected)) {
         return false;
      }
      rest_.remove_prefix(expected.size());
      return true;
   }
   template <class T>
   bool number(T& value) {
      const auto [end, ec] = std::from_chars(rest_.data(), rest_.data() + rest_.size(), value);
      if (ec != std::errc() || end == rest_.data()) {
         return false;
      }
      rest_.remove_prefix(static_cast<std::size_t>(end - rest_.data()));
      return true;
   }
   bool atEnd() const { return rest_.empty(); }

 private:
   std::string_view rest_;
};

template <class T>
Kel::U64 hashValue(const T& value, Kel::U64 hash) {
   return fnv1a(std::string_view(reinterpret_cast<const char*>(&value), sizeof value), hash);
}

}  // namespace

// The bytes of a table entry, which other processes read: a change of any of
// these is a new layout version of the table (Vorpa::layoutVersion).
struct StatisticsLayout {
   static_assert(sizeof(CollectorInfo) == 20 && alignof(CollectorInfo) == 2);
   static_assert(offsetof(CollectorInfo, family_) == 0);
   static_assert(offsetof(CollectorInfo, port_) == 2);
   static_assert(offsetof(CollectorInfo, address_) == 4);

   static_assert(sizeof(NameStorage) == 129);
   static_assert(sizeof(CollectorStatisticsKey) == 278 && alignof(CollectorStatisticsKey) == 2);
   static_assert(offsetof(CollectorStatisticsKey, collector_) == 0);
   static_assert(offsetof(CollectorStatisticsKey, trackerStorage_) == 20);
   static_assert(offsetof(CollectorStatisticsKey, exporterStorage_) == 149);

   static_assert(sizeof(CollectorSetStatisticsEntry) == 24);
   static_assert(offsetof(CollectorSetStatisticsEntry, setId_) == 0);
   static_assert(offsetof(CollectorSetStatisticsEntry, exportedFlowRecordCount_) == 8);
   static_assert(offsetof(CollectorSetStatisticsEntry, exportedTemplateCount_) == 16);
   static_assert(sizeof(SetEntryStorage) == 320);

   static_assert(sizeof(CollectorStatisticsEntry) == 672 && alignof(CollectorStatisticsEntry) == 8);
   static_assert(offsetof(CollectorStatisticsEntry, key_) == 0);
   static_assert(offsetof(CollectorStatisticsEntry, exportedMessageTotalCount_) == 280);
   static_assert(offsetof(CollectorStatisticsEntry, exportedFlowRecordTotalCount_) == 288);
   static_assert(offsetof(CollectorStatisticsEntry, exportedOctetTotalCount_) == 296);
   static_assert(offsetof(CollectorStatisticsEntry, lastSentTime_) == 304);
   static_assert(offsetof(CollectorStatisticsEntry, lastTemplateSentTime_) == 312);
   static_assert(offsetof(CollectorStatisticsEntry, lastDataRecordSentTime_) == 320);
   static_assert(offsetof(CollectorStatisticsEntry, lastOptionsDataSentTime_) == 328);
   static_assert(offsetof(CollectorStatisticsEntry, lastClearedTime_) == 336);
   static_assert(offsetof(CollectorStatisticsEntry, nextIdx_) == 344);
   static_assert(offsetof(CollectorStatisticsEntry, setEntryStorage_) == 352);
};

void SetId::validate() const {
   KEL_ASSERT_TEXT(valid(),
                   "(((value()==(::Nivel::IpfixConst::optionsTemplateSetId())))||((value()==(::"
                   "Nivel::IpfixConst::templateSetId()))))");
}

std::optional<SetId> SetId::parse(std::string_view text) {
   TextScanner scan(text);
   Kel::U16 value = 0;
   if (!scan.number(value) || !scan.atEnd()) {
      return std::nullopt;
   }
   return SetId(value);
}

Kel::String CollectorSetStatisticsEntry::string() const {
   return fmt::format(
       "Value('Vorpa::Ipfix::CollectorSetStatisticsEntry', ** {{'setId': {}, "
       "'exportedFlowRecordCount': {}, 'exportedTemplateCount': {}}})",
       setId_.value(), exportedFlowRecordCount_, exportedTemplateCount_);
}

std::optional<CollectorSetStatisticsEntry> CollectorSetStatisticsEntry::parse(
    std::string_view text) {
   TextScanner scan(text);
   Kel::U16 setId = 0;
   CollectorSetStatisticsEntry e;
   if (scan.literal("Value('Vorpa::Ipfix::CollectorSetStatisticsEntry', ** {'setId': ") &&
       scan.number(setId) && scan.literal(", 'exportedFlowRecordCount': ") &&
       scan.number(e.exportedFlowRecordCount_) && scan.literal(", 'exportedTemplateCount': ") &&
       scan.number(e.exportedTemplateCount_) && scan.literal("})") && scan.atEnd()) {
      e.setId_ = SetId(setId);
      return e;
   }
   return std::nullopt;
}

Kel::U64 CollectorSetStatisticsEntry::hash() const {
   return hashValue(exportedTemplateCount_,
                    hashValue(exportedFlowRecordCount_, hashValue(setId_.value(), fnv1a(""))));
}

Kel::U8 CollectorStatisticsEntry::indexForSetId(SetId setId) const {
   const auto used = setEntryStorage_.used();
   for (std::size_t i = 0; i < used.size(); ++i) {
      if (used[i].setId() == setId) {
         return static_cast<Kel::U8>(i);
      }
   }
   return setIdNotFound;
}

SetIndex CollectorStatisticsEntry::maybeNewIndexForSetId(SetId setId) const {
   if (const Kel::U8 own = indexForSetId(setId); own != setIdNotFound) {
      return SetIndex(own);
   }
   const auto used = setEntryStorage_.used();
   if (nextIdx_ < used.size() && used[nextIdx_].setId() == setIdInval) {
      return SetIndex(nextIdx_);
   }
   if (const Kel::U8 freed = indexForSetId(setIdInval); freed != setIdNotFound) {
      return SetIndex(freed);
   }
   // Past the last slot this raises the range error.
   return SetIndex(used.size());
}

CollectorSetStatisticsEntry CollectorStatisticsEntry::setEntry(SetId setId) const {
   setId.validate();
   const Kel::U8 index = indexForSetId(setId);
   return index == setIdNotFound ? CollectorSetStatisticsEntry()
                                 : setEntryStorage_[SetIndex(index)];
}

void CollectorStatisticsEntry::setEntryIs(const CollectorSetStatisticsEntry& entry) {
   entry.setId().validate();
   const SetIndex index = maybeNewIndexForSetId(entry.setId());
   if (index.value() == setEntryStorage_.size()) {
      setEntryStorage_.sizeIs(setEntryStorage_.size() + 1);
   }
   setEntryStorage_[index] = entry;
}

CollectorSetStatisticsEntry CollectorStatisticsEntry::setEntryDel(SetId setId) {
   const Kel::U8 index = indexForSetId(setId);
   if (index == setIdNotFound) {
      return CollectorSetStatisticsEntry();
   }
   const CollectorSetStatisticsEntry old = setEntryStorage_[SetIndex(index)];
   setEntryStorage_[SetIndex(index)] = CollectorSetStatisticsEntry();
   nextIdx_ = index;
   return old;
}

Kel::String CollectorStatisticsEntry::vorpaString() const {
   Kel::String text = fmt::format(
       "[{}] msgs: {}, flows: {}, octets: {}, last message: {:.0f}, template: {:.0f}, data: "
       "{:.0f}, options data: {:.0f}, cleared: {:.0f}",
       key_.vorpaString(), exportedMessageTotalCount_, exportedFlowRecordTotalCount_,
       exportedOctetTotalCount_, lastSentTime_, lastTemplateSentTime_, lastDataRecordSentTime_,
       lastOptionsDataSentTime_, lastClearedTime_);
   for (const CollectorSetStatisticsEntry& set : setEntryStorage_.used()) {
      if (set.setId() != setIdInval) {
         text += fmt::format(", set {}: (flows: {}, templates: {})", set.setId().value(),
                             set.exportedFlowRecordCount(), set.exportedTemplateCount());
      }
   }
   return text;
}

Kel::String CollectorStatisticsEntry::string() const {
   Kel::String sets;
   for (const CollectorSetStatisticsEntry& set : setEntryStorage_.used()) {
      sets += (sets.empty() ? "" : ", ") + set.string();
   }
   return fmt::format(
       "Value('Vorpa::Ipfix::CollectorStatisticsEntry', ** {{'key': {}, "
       "'exportedMessageTotalCount': {}, 'exportedFlowRecordTotalCount': {}, "
       "'exportedOctetTotalCount': {}, 'lastSentTime': {}, 'lastTemplateSentTime': {}, "
       "'lastDataRecordSentTime': {}, 'lastOptionsDataSentTime': {}, 'lastClearedTime': {}, "
       "'nextIdx': {}, 'setEntryStorage': [{}]}})",
       key_.string(), exportedMessageTotalCount_, exportedFlowRecordTotalCount_,
       exportedOctetTotalCount_, lastSentTime_, lastTemplateSentTime_, lastDataRecordSentTime_,
       lastOptionsDataSentTime_, lastClearedTime_, nextIdx_, sets);
}

CollectorStatisticsEntry CollectorStatisticsEntry::parse(std::string_view) {
   throw Kel::Exception("No String constructor for CollectorStatisticsEntry - has collection");
}

bool CollectorStatisticsEntry::vorpaValid() const {
   return key_.vorpaValid() && setEntryStorage_.vorpaValid() &&
          (nextIdx_ <= SetIndex::max() || nextIdx_ == noNextIdx);
}

Kel::U64 CollectorStatisticsEntry::hash() const {
   Kel::U64 h = key_.hash();
   for (const Kel::U64 total :
        {exportedMessageTotalCount_, exportedFlowRecordTotalCount_, exportedOctetTotalCount_}) {
      h = hashValue(total, h);
   }
   for (const Kel::Seconds time : {lastSentTime_, lastTemplateSentTime_, lastDataRecordSentTime_,
                                   lastOptionsDataSentTime_, lastClearedTime_}) {
      h = hashValue(time, h);
   }
   for (const CollectorSetStatisticsEntry& set : setEntryStorage_.used()) {
      h = hashValue(set.hash(), h);
   }
   return h;
}

}  // namespace Vorpa::Ipfix
