#pragma once

#include <cstddef>
#include <vector>

#include "Ipfix/DataRecord.h"

namespace FlowTracking {

using DataRecordPtr = Kel::Ptr<const DataRecord>;

// Records kept by identity, in no meaningful order: contiguous, because every
// message cache build walks them all, with an index for finding one.
// Removing a record moves the last one into its place.
//
// The index is an open-addressing table of positions in the records, probed
// linearly from a hash of the record's address and at most half full: four
// octets a slot, where a node-based hash map spends several words a record on
// tables of tens of thousands of interfaces.
class DataRecordSet {
 public:
   using const_iterator = std::vector<DataRecordPtr>::const_iterator;

   const_iterator begin() const { return records_.begin(); }
   const_iterator end() const { return records_.end(); }
   std::size_t size() const { return records_.size(); }
   bool empty() const { return records_.empty(); }
   bool contains(const DataRecordPtr& record) const;

   // False when the record is already in.
   bool insert(const DataRecordPtr& record);
   // False when the record is not in.
   bool erase(const DataRecordPtr& record);

 private:
   static constexpr Kel::U32 emptySlot = ~Kel::U32(0);

   // The slot holding `record`'s position, or the empty slot that ends its
   // probe; the index must have room.
   std::size_t slotOf(const DataRecord* record) const;
   std::size_t home(const DataRecord* record) const;
   // Doubles the index (or makes the first one) and enters every record.
   void indexGrow();
   // Empties slot `hole`, moving later entries of its probe sequence back so
   // that each stays reachable from its home slot.
   void slotDel(std::size_t hole);

   std::vector<DataRecordPtr> records_;
   std::vector<Kel::U32> slot_;
};

}  // namespace FlowTracking
