#include "Vorpa/ChangeRing.h"

#include <algorithm>
#include <cstring>
#include <ctime>

#include "Vorpa/Futex.h"

namespace Vorpa {

namespace {

Kel::U64 monotonicNs() {
   timespec ts{};
   clock_gettime(CLOCK_MONOTONIC, &ts);
   return static_cast<Kel::U64>(ts.tv_sec) * 1'000'000'000 + static_cast<Kel::U64>(ts.tv_nsec);
}

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
   header.changeSeq.store(seq, std::memory_order_seq_cst);
   // The clock is read after the sequence is published: a reader that saw the
   // sequence before this change read its clock earlier still (changeWait).
   const Kel::U64 now = monotonicNs();
   if (now - header.wakeTimeNs.load(std::memory_order_relaxed) >= wakeSpacingNs) {
      header.wakeTimeNs.store(now, std::memory_order_relaxed);
      header.wakeGeneration.fetch_add(1, std::memory_order_seq_cst);
      futexWakeAll(header.wakeGeneration);
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
   // Generation first: a wake-up after this load makes the futex wait below
   // return, and the wake time read next is the one of this generation.
   const Kel::U32 generation = header.wakeGeneration.load(std::memory_order_seq_cst);
   const Kel::U64 wokeAt = header.wakeTimeNs.load(std::memory_order_relaxed);
   const Kel::U64 now = monotonicNs();
   std::atomic_thread_fence(std::memory_order_seq_cst);
   if (header.changeSeq.load(std::memory_order_seq_cst) != cursor) {
      return true;
   }
   // Any later change reads the writer's clock after `now`. When that may
   // still fall within the spacing of the last wake-up, the writer may not
   // wake this reader for it: sleep only until it would. Twice the spacing
   // leaves room for the two processes' clock reads to interleave.
   const Kel::U64 sinceWake = now >= wokeAt ? now - wokeAt : 0;
   if (sinceWake < 2 * wakeSpacingNs) {
      const Kel::Seconds paced = static_cast<double>(2 * wakeSpacingNs - sinceWake) / 1e9;
      timeout = timeout ? std::min(*timeout, paced) : paced;
   }
   futexWait(header.wakeGeneration, generation, timeout);
   return changeSeq(segment) != cursor;
}

}  // namespace Vorpa
