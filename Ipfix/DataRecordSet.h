#pragma once

#include <cstddef>
#include <unordered_map>
#include <vector>

#include "Ipfix/DataRecord.h"

namespace FlowTracking {

using DataRecordPtr = Kel::Ptr<const DataRecord>;

// Records kept by identity, in no meaningful order: contiguous, because every
// message cache build walks all of them, with an index for finding one.
// Removing a record moves the last one into its place.
class DataRecordSet {
 public:
   using const_iterator = std::vector<DataRecordPtr>::const_iterator;

   const_iterator begin() const { return records_.begin(); }
   const_iterator end() const { return records_.end(); }
   std::size_t size() const { return records_.size(); }
   bool empty() const { return records_.empty(); }
   bool contains(const DataRecordPtr& record) const { return position_.contains(record.ptr()); }

   // False when the record is already in.
   bool insert(const DataRecordPtr& record);
   // False when the record is not in.
   bool erase(const DataRecordPtr& record);

 private:
   std::vector<DataRecordPtr> records_;
   std::unordered_map<const DataRecord*, std::size_t> position_;
};

}  // namespace FlowTracking
