#include "Vorpa/ChangeRing.h"

#include <cstring>

#include "Vorpa/Futex.h"

namespace Vorpa {

namespace {

ChangeHeader& changeHeaderOf(std::byte* record) {
   return *reinterpret_cast<ChangeHeader*>(record);
}

}  // namespace

void changePublish(const TableSegment& segment, ChangeKind kind, const void* key) {
   SegmentHeader& header = segment.header();
   const Geometry& g = segment.geometry();
   const Kel::U64 seq = header.changeSeq.load(std::memory_order_relaxed) + 1;
   std::byte* record = segment.changeRecord(seq);
   ChangeHeader& h = changeHeaderOf(record);
   // Sequence 0 marks the record as being rewritten for readers still on the
   // lap before.
   h.seq.store(0, std::memory_order_relaxed);
   std::atomic_thread_fence(std::memory_order_release);
   h.kind = static_cast<Kel::U32>(kind);
   if (key) {
      std::memcpy(record + g.ringKeyOffset, key, g.key.size);
   } else {
      std::memset(record + g.ringKeyOffset, 0, g.key.size);
   }
   h.seq.store(seq, std::memory_order_release);
   header.changeSeq.store(seq, std::memory_order_release);
   // Sequentially consistent store, then load: either a reader that is about
   // to sleep sees the new futex value, or this sees its sleepers flag.
   header.changeFutex.store(static_cast<Kel::U32>(seq), std::memory_order_seq_cst);
   WaiterBlock& waiters = segment.waiterBlock();
   if (waiters.sleepers.load(std::memory_order_seq_cst) != 0 &&
       waiters.sleepers.exchange(0, std::memory_order_seq_cst) != 0) {
      futexWakeAll(header.changeFutex);
   }
}

FollowStatus changeRead(const TableSegment& segment, Kel::U64 seq, ChangeKind* kind, void* key) {
   const Geometry& g = segment.geometry();
   const std::byte* record = segment.changeRecord(seq);
   const auto& h = *reinterpret_cast<const ChangeHeader*>(record);
   if (h.seq.load(std::memory_order_acquire) != seq) {
      return FollowStatus::overrun;
   }
   const Kel::U32 rawKind = h.kind;
   std::memcpy(key, record + g.ringKeyOffset, g.key.size);
   std::atomic_thread_fence(std::memory_order_acquire);
   if (h.seq.load(std::memory_order_relaxed) != seq) {
      return FollowStatus::overrun;
   }
   if (rawKind < static_cast<Kel::U32>(ChangeKind::upserted) ||
       rawKind > static_cast<Kel::U32>(ChangeKind::allRemoved)) {
      return FollowStatus::corrupt;
   }
   *kind = static_cast<ChangeKind>(rawKind);
   return FollowStatus::ok;
}

bool changeWait(const TableSegment& segment, Kel::U64 cursor, std::optional<Kel::Seconds> timeout) {
   const SegmentHeader& header = segment.header();
   const auto expected = static_cast<Kel::U32>(cursor);
   if (changeSeq(segment) != cursor) {
      return true;
   }
   segment.waiterBlock().sleepers.store(1, std::memory_order_seq_cst);
   if (header.changeFutex.load(std::memory_order_seq_cst) == expected) {
      futexWait(header.changeFutex, expected, timeout);
   }
   return changeSeq(segment) != cursor;
}

}  // namespace Vorpa
