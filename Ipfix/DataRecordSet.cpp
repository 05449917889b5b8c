#include "Ipfix/DataRecordSet.h"

#include <bit>
#include <cstdint>

namespace FlowTracking {

namespace {

constexpr std::size_t firstIndexSize = 16;

}  // namespace

std::size_t DataRecordSet::home(const DataRecord* record) const {
   // Fibonacci hashing: addresses share their low bits, the product's high
   // bits do not.
   const auto mixed =
       std::uint64_t(reinterpret_cast<std::uintptr_t>(record)) * 0x9E3779B97F4A7C15ull;
   return std::size_t(mixed >> (64 - std::countr_zero(slot_.size())));
}

std::size_t DataRecordSet::slotOf(const DataRecord* record) const {
   const std::size_t mask = slot_.size() - 1;
   std::size_t at = home(record);
   while (slot_[at] != emptySlot && records_[slot_[at]].ptr() != record) {
      at = (at + 1) & mask;
   }
   return at;
}

bool DataRecordSet::contains(const DataRecordPtr& record) const {
   return !slot_.empty() && slot_[slotOf(record.ptr())] != emptySlot;
}

bool DataRecordSet::insert(const DataRecordPtr& record) {
   if (contains(record)) {
      return false;
   }
   if (2 * (records_.size() + 1) > slot_.size()) {
      indexGrow();
   }
   slot_[slotOf(record.ptr())] = Kel::U32(records_.size());
   records_.push_back(record);
   return true;
}

bool DataRecordSet::erase(const DataRecordPtr& record) {
   if (!contains(record)) {
      return false;
   }
   const std::size_t slot = slotOf(record.ptr());
   const Kel::U32 at = slot_[slot];
   slotDel(slot);
   const Kel::U32 last = Kel::U32(records_.size() - 1);
   if (at != last) {
      slot_[slotOf(records_[last].ptr())] = at;
      records_[at] = std::move(records_[last]);
   }
   records_.pop_back();
   return true;
}

void DataRecordSet::indexGrow() {
   slot_.assign(slot_.empty() ? firstIndexSize : 2 * slot_.size(), emptySlot);
   for (Kel::U32 at = 0; at < records_.size(); ++at) {
      slot_[slotOf(records_[at].ptr())] = at;
   }
}

void DataRecordSet::slotDel(std::size_t hole) {
   const std::size_t mask = slot_.size() - 1;
   for (std::size_t next = (hole + 1) & mask; slot_[next] != emptySlot; next = (next + 1) & mask) {
      // An entry may fill the hole when its home is not in (hole, next]:
      // its probe then passes the hole.
      const std::size_t entryHome = home(records_[slot_[next]].ptr());
      if (((next - entryHome) & mask) >= ((next - hole) & mask)) {
         slot_[hole] = slot_[next];
         hole = next;
      }
   }
   slot_[hole] = emptySlot;
}

}  // namespace FlowTracking
