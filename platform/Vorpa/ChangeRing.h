#pragma once

#include <optional>

#include "Vorpa/TableSegment.h"

// The change ring: every write, removal and clearing appends a record with the
// key it concerns and the next global sequence number. Readers remember the
// last sequence they consumed and read the records after it; a reader that
// falls more than the ring's capacity behind is told so and resynchronises
// from the slots. Readers sleep on a futex until the sequence moves.
//
// Readers map the segment read-only, so the writer cannot know whether any of
// them sleeps, and a wake-up is a system call that costs many times a write.
// The writer therefore wakes readers at most once per wakeSpacingNs: the first
// change after a quiet spell wakes them at once, later ones in a burst within
// that spacing. A reader that goes to sleep shortly after a wake-up sleeps no
// longer than until the writer would wake it again, and finds then the changes
// the writer did not wake it for.
namespace Vorpa {

inline constexpr Kel::U64 wakeSpacingNs = 10'000'000;

// Writer: appends one record (`key` may be null for allRemoved) and wakes
// sleeping readers.
void changePublish(const TableSegment& segment, ChangeKind kind, const void* key);

enum class FollowStatus {
   ok,
   overrun,  // records were overwritten before the reader read them
   corrupt,  // a record or the sequence contradicts itself
};

// Reader: the record with sequence number `seq`, its key copied to `key`.
FollowStatus changeRead(const TableSegment& segment, Kel::U64 seq, ChangeKind* kind, void* key);

// Reader: the newest sequence number.
inline Kel::U64 changeSeq(const TableSegment& segment) {
   return segment.header().changeSeq.load(std::memory_order_acquire);
}

// Reader: waits until the sequence differs from `cursor`, or the timeout (none:
// no limit) passes, or a signal arrives. True when it differs.
bool changeWait(const TableSegment& segment, Kel::U64 cursor, std::optional<Kel::Seconds> timeout);

}  // namespace Vorpa
