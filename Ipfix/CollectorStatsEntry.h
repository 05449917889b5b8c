#pragma once

#include <optional>
#include <string_view>

#include "Ipfix/CollectorStatsKey.h"

namespace Vorpa::Ipfix {

// An IPFIX set id as the statistics count it: 2 (template set), 3 (options
// template set) or 256 and above (data sets). 0 marks an unused per-set slot.
class SetId {
 public:
   static constexpr Kel::U16 templateSetId = 2;
   static constexpr Kel::U16 optionsTemplateSetId = 3;
   static constexpr Kel::U16 firstDataSetId = 256;

   constexpr SetId() = default;
   constexpr explicit SetId(Kel::U16 value) : value_(value) {}
   constexpr Kel::U16 value() const { return value_; }

   constexpr bool valid() const {
      return value_ == templateSetId || value_ == optionsTemplateSetId || value_ >= firstDataSetId;
   }
   // Raises the assertion for an id that is not valid(); its text names only
   // the two fixed ids, though data set ids pass as well.
   void validate() const;

   Kel::String string() const { return std::to_string(value_); }
   static std::optional<SetId> parse(std::string_view text);
   constexpr auto operator<=>(const SetId&) const = default;

 private:
   Kel::U16 value_ = 0;
};

inline constexpr SetId setIdInval{0};
// indexForSetId() of an id without a slot.
inline constexpr Kel::U8 setIdNotFound = 255;

// The counts of one set id sent to one collector.
class CollectorSetStatisticsEntry {
 public:
   CollectorSetStatisticsEntry() = default;
   CollectorSetStatisticsEntry(SetId setId, Kel::U64 exportedFlowRecordCount,
                               Kel::U64 exportedTemplateCount)
       : setId_(setId),
         exportedFlowRecordCount_(exportedFlowRecordCount),
         exportedTemplateCount_(exportedTemplateCount) {}

   SetId setId() const { return setId_; }
   Kel::U64 exportedFlowRecordCount() const { return exportedFlowRecordCount_; }
   Kel::U64 exportedTemplateCount() const { return exportedTemplateCount_; }
   void exportedFlowRecordCountIs(Kel::U64 n) { exportedFlowRecordCount_ = n; }
   void exportedTemplateCountIs(Kel::U64 n) { exportedTemplateCount_ = n; }

   Kel::String string() const;
   // The string() form; nullopt when it is not one.
   static std::optional<CollectorSetStatisticsEntry> parse(std::string_view text);
   Kel::U64 hash() const;
   bool operator==(const CollectorSetStatisticsEntry&) const = default;

 private:
   friend struct StatisticsLayout;

   SetId setId_;
   Kel::U64 exportedFlowRecordCount_ = 0;
   Kel::U64 exportedTemplateCount_ = 0;
};

using SetEntryStorage = IndexedArray<CollectorSetStatisticsEntry, SetIndex>;

// The export statistics of one (tracker, exporter, collector): totals, the
// times of the last messages (the framework's monotonic seconds, 0 for
// never), and per-set counts in up to 13 slots.
class CollectorStatisticsEntry {
 public:
   static constexpr Kel::U8 noNextIdx = 255;

   CollectorStatisticsEntry() = default;
   explicit CollectorStatisticsEntry(const CollectorStatisticsKey& key) : key_(key) {}

   const CollectorStatisticsKey& key() const { return key_; }
   Kel::U64 exportedMessageTotalCount() const { return exportedMessageTotalCount_; }
   Kel::U64 exportedFlowRecordTotalCount() const { return exportedFlowRecordTotalCount_; }
   Kel::U64 exportedOctetTotalCount() const { return exportedOctetTotalCount_; }
   Kel::Seconds lastSentTime() const { return lastSentTime_; }
   Kel::Seconds lastTemplateSentTime() const { return lastTemplateSentTime_; }
   Kel::Seconds lastDataRecordSentTime() const { return lastDataRecordSentTime_; }
   Kel::Seconds lastOptionsDataSentTime() const { return lastOptionsDataSentTime_; }
   Kel::Seconds lastClearedTime() const { return lastClearedTime_; }
   Kel::U8 nextIdx() const { return nextIdx_; }
   const SetEntryStorage& setEntryStorage() const { return setEntryStorage_; }

   void exportedMessageTotalCountIs(Kel::U64 n) { exportedMessageTotalCount_ = n; }
   void exportedFlowRecordTotalCountIs(Kel::U64 n) { exportedFlowRecordTotalCount_ = n; }
   void exportedOctetTotalCountIs(Kel::U64 n) { exportedOctetTotalCount_ = n; }
   void lastSentTimeIs(Kel::Seconds t) { lastSentTime_ = t; }
   void lastTemplateSentTimeIs(Kel::Seconds t) { lastTemplateSentTime_ = t; }
   void lastDataRecordSentTimeIs(Kel::Seconds t) { lastDataRecordSentTime_ = t; }
   void lastOptionsDataSentTimeIs(Kel::Seconds t) { lastOptionsDataSentTime_ = t; }
   void lastClearedTimeIs(Kel::Seconds t) { lastClearedTime_ = t; }

   // The used slot holding `setId`, or setIdNotFound.
   Kel::U8 indexForSetId(SetId setId) const;
   // The slot setEntryIs() would use for `setId`: its own, else a freed one
   // (nextIdx first), else a new one. Raises Kel::RangeException when all 13
   // hold other ids.
   SetIndex maybeNewIndexForSetId(SetId setId) const;
   // The counts of `setId`, all zero (set id 0 included) without a slot.
   CollectorSetStatisticsEntry setEntry(SetId setId) const;
   void setEntryIs(const CollectorSetStatisticsEntry& entry);
   // Frees the slot of `setId` and remembers it for reuse; returns the old
   // counts, all zero without a slot.
   CollectorSetStatisticsEntry setEntryDel(SetId setId);

   // "[tracker exporter collector] msgs: ..., cleared: ..., set 2: (...)"
   Kel::String vorpaString() const;
   Kel::String string() const;
   // Always throws Kel::Exception: the entry holds a collection.
   static CollectorStatisticsEntry parse(std::string_view text);

   // False for lengths and indices that no writer stores.
   bool vorpaValid() const;
   Kel::U64 hash() const;
   bool operator==(const CollectorStatisticsEntry&) const = default;

 private:
   friend struct StatisticsLayout;

   CollectorStatisticsKey key_;
   Kel::U64 exportedMessageTotalCount_ = 0;
   Kel::U64 exportedFlowRecordTotalCount_ = 0;
   Kel::U64 exportedOctetTotalCount_ = 0;
   Kel::Seconds lastSentTime_ = 0;
   Kel::Seconds lastTemplateSentTime_ = 0;
   Kel::Seconds lastDataRecordSentTime_ = 0;
   Kel::Seconds lastOptionsDataSentTime_ = 0;
   Kel::Seconds lastClearedTime_ = 0;
   Kel::U8 nextIdx_ = noNextIdx;
   SetEntryStorage setEntryStorage_;
};

}  // namespace Vorpa::Ipfix

template <>
struct std::hash<Vorpa::Ipfix::SetId> {
   std::size_t operator()(Vorpa::Ipfix::SetId id) const noexcept { return id.value(); }
};

template <>
struct std::hash<Vorpa::Ipfix::CollectorSetStatisticsEntry> {
   std::size_t operator()(const Vorpa::Ipfix::CollectorSetStatisticsEntry& e) const noexcept {
      return e.hash();
   }
};

template <>
struct std::hash<Vorpa::Ipfix::CollectorStatisticsEntry> {
   std::size_t operator()(const Vorpa::Ipfix::CollectorStatisticsEntry& e) const noexcept {
      return e.hash();
   }
};
