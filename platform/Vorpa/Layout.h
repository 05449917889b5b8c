#pragma once

#include <atomic>
#include <cstddef>
#include <type_traits>

#include "Kel/Types.h"
#include "Vorpa/Checksum.h"

// The byte layout of a table segment, shared by the writer and every reader:
//
//   page 0     SegmentHeader: identity (immutable), counters, change sequence
//   slots      slotCount slots of slotStride bytes: SlotHeader, then the
//              stored object (the value, or key and value; see Table.h)
//   ring       ringCapacity change records: ChangeHeader, key
//
// Every offset is a pure function of the creation parameters (Geometry), so a
// reader recomputes it instead of trusting the segment. Readers map the whole
// segment read-only: nothing in it is theirs to write.
namespace Vorpa {

inline constexpr Kel::U64 segmentMagic = 0x4c42544150524f56ULL;  // "VORPATBL"
// 2: readers write nothing; the writer paces its wake-ups (ChangeRing.h).
// 3: the collector statistics key holds a fixed address layout of its own.
inline constexpr Kel::U32 layoutVersion = 3;
inline constexpr std::size_t pageSize = 4096;
inline constexpr std::size_t slotsOffset = pageSize;
inline constexpr Kel::U32 maxCapacity = 1u << 22;

enum class SlotState : Kel::U32 { empty = 0, live = 1, removed = 2 };
enum class ChangeKind : Kel::U32 { upserted = 1, removed = 2, allRemoved = 3 };

struct TypeShape {
   Kel::U32 size;
   Kel::U32 align;
   bool operator==(const TypeShape&) const = default;
};

// What a table stores: checked at mount against what the mounting process
// was built with.
struct TableShape {
   Kel::U64 fingerprint;
   TypeShape key;     // as change records hold it
   TypeShape stored;  // as slots hold it
};

struct Geometry {
   Kel::U32 capacity;      // entries the writer accepts before refusing inserts
   Kel::U32 slotCount;     // power of two, at least 5/4 of capacity: probes stay short
   Kel::U32 ringCapacity;  // power of two
   Kel::U32 reserved;      // keeps the layout free of padding bytes
   TypeShape key;
   TypeShape stored;
   Kel::U64 storedOffset;  // within a slot
   Kel::U64 slotStride;
   Kel::U64 ringKeyOffset;  // within a change record
   Kel::U64 ringStride;
   Kel::U64 ringOffset;
   Kel::U64 segmentSize;

   // Asserts that the parameters are possible; callers pass constants.
   static Geometry compute(Kel::U32 capacity, Kel::U32 ringCapacity, const TableShape& shape);
   bool operator==(const Geometry&) const = default;
};

// Written once by the writer before it publishes the magic; never changed.
struct Identity {
   Kel::U64 magic;
   Kel::U32 layoutVersion;
   Kel::U32 identitySize;
   Kel::U64 fingerprint;
   Geometry geometry;
   Kel::U64 checksum;  // over all fields above

   static Identity make(Kel::U64 fingerprint, const Geometry& geometry);
   Kel::U64 computeChecksum() const;
};
// The checksum covers every byte, so there must be no padding of unknown value.
static_assert(std::has_unique_object_representations_v<Identity>);

struct SegmentHeader {
   Identity identity;
   // Counters only the writer changes.
   alignas(64) std::atomic<Kel::U32> liveCount;
   std::atomic<Kel::U32> removedCount;
   std::atomic<Kel::U64> insertRefusedCount;
   std::atomic<Kel::U64> corruptionCount;
   // Sequence number of the newest change record.
   alignas(64) std::atomic<Kel::U64> changeSeq;
   // The futex word readers sleep on: the writer bumps it each time it wakes
   // them, and wakeTimeNs is the monotonic time of that wake-up.
   std::atomic<Kel::U32> wakeGeneration;
   std::atomic<Kel::U64> wakeTimeNs;
};
static_assert(sizeof(SegmentHeader) <= pageSize);

struct SlotHeader {
   std::atomic<Kel::U32> seq;  // odd while the writer changes the slot
   Kel::U32 state;             // a SlotState
   Kel::U64 keyHash;
   Kel::U64 checksum;  // over state, keyHash and the stored object
};
static_assert(sizeof(std::atomic<Kel::U32>) == 4 && std::atomic<Kel::U32>::is_always_lock_free);
static_assert(sizeof(SlotHeader) == 24);
static_assert(offsetof(SlotHeader, state) == 4 && offsetof(SlotHeader, keyHash) == 8 &&
              offsetof(SlotHeader, checksum) == 16);

struct ChangeHeader {
   std::atomic<Kel::U64> seq;  // the change's sequence number; 0 while rewritten
   Kel::U32 kind;              // a ChangeKind
   Kel::U32 reserved;
};
static_assert(sizeof(std::atomic<Kel::U64>) == 8 && std::atomic<Kel::U64>::is_always_lock_free);
static_assert(sizeof(ChangeHeader) == 16);
static_assert(offsetof(ChangeHeader, kind) == 8 && offsetof(ChangeHeader, reserved) == 12);

inline Kel::U64 slotChecksumSeed(Kel::U32 state, Kel::U64 keyHash) {
   return (keyHash ^ 0x5bd1e9955bd1e995ULL) * 31 + state;
}

inline Kel::U64 slotChecksum(Kel::U32 state, Kel::U64 keyHash, const void* stored,
                             Kel::U32 storedSize) {
   return checksum(stored, storedSize, slotChecksumSeed(state, keyHash));
}

}  // namespace Vorpa
