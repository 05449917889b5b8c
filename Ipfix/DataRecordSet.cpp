#include "Ipfix/DataRecordSet.h"

namespace FlowTracking {

bool DataRecordSet::insert(const DataRecordPtr& record) {
   if (!position_.try_emplace(record.ptr(), records_.size()).second) {
      return false;
   }
   records_.push_back(record);
   return true;
}

bool DataRecordSet::erase(const DataRecordPtr& record) {
   const auto found = position_.find(record.ptr());
   if (found == position_.end()) {
      return false;
   }
   const std::size_t at = found->second;
   position_.erase(found);
   if (at + 1 != records_.size()) {
      records_[at] = std::move(records_.back());
      position_[records_[at].ptr()] = at;
   }
   records_.pop_back();
   return true;
}

}  // namespace FlowTracking
