#pragma once

#include <concepts>
#include <cstring>
#include <functional>
#include <optional>
#include <type_traits>

#include "Vorpa/ChangeRing.h"
#include "Vorpa/Fingerprint.h"
#include "Vorpa/SlotAccess.h"
#include "Vorpa/TableSegment.h"
#include "Vorpa/WriterIncident.h"

namespace Vorpa {

// Keys and values are copied byte-wise into shared memory and read back by
// other processes.
template <class T>
concept SharedValue = std::is_trivially_copyable_v<T> && std::is_default_constructible_v<T>;

template <class K>
concept SharedKey = SharedValue<K> && std::equality_comparable<K> && requires(const K& k) {
   { std::hash<K>{}(k) } -> std::convertible_to<std::size_t>;
};

// A type read from another process's memory may say what a valid value is
// (lengths within their arrays, indices within range) through vorpaValid();
// readers refuse a value that fails it as corrupt.
template <class T>
bool sharedValid(const T& v) {
   if constexpr (requires {
                    { v.vorpaValid() } -> std::same_as<bool>;
                 }) {
      return v.vorpaValid();
   } else {
      return true;
   }
}

// The key's hash spread over all 64 bits, so that the top bits pick the slot.
template <class Key>
Kel::U64 keyHash(const Key& key) {
   return static_cast<Kel::U64>(std::hash<Key>{}(key)) * 0x9e3779b97f4a7c15ULL;
}

inline Kel::U32 homeSlot(Kel::U64 hash, const Geometry& g) {
   return static_cast<Kel::U32>(hash >> 32) & (g.slotCount - 1);
}

template <class Key, class Value>
TableShape tableShape() {
   return TableShape{typeFingerprint<Key, Value>(), TypeShape{sizeof(Key), alignof(Key)},
                     TypeShape{sizeof(Value), alignof(Value)}};
}

inline constexpr Kel::U32 defaultRingCapacity = 1024;

// The writer's side of a fixed-capacity key/value table in shared memory:
// open addressing with linear probing, each slot under a sequence lock with a
// checksum, and a ring of change records that readers follow
// (TableReader). One writer per table; it is not thread-safe.
//
// A removed entry leaves a `removed` marker so that probes for keys behind it
// go on; the marker becomes `empty` again as soon as the slot after it is
// empty, which keeps markers from piling up without moving live entries
// (moving them would let a concurrent reader miss a key).
template <SharedKey Key, SharedValue Value>
class Table {
 public:
   static Table create(const Kel::Name& name, Kel::U32 capacity,
                       Kel::U32 ringCapacity = defaultRingCapacity) {
      return Table(TableSegment::create(name, tableShape<Key, Value>(), capacity, ringCapacity));
   }
   // In a memory file of this process only (and its children): for tests.
   static Table createAnonymous(const Kel::Name& label, Kel::U32 capacity,
                                Kel::U32 ringCapacity = defaultRingCapacity) {
      return Table(
          TableSegment::createAnonymous(label, tableShape<Key, Value>(), capacity, ringCapacity));
   }

   const TableSegment& segment() const { return segment_; }
   const Kel::Name& name() const { return segment_.name(); }
   Kel::U32 capacity() const { return geometry().capacity; }
   Kel::U32 size() const { return header().liveCount.load(std::memory_order_relaxed); }
   Kel::U64 insertRefusedCount() const {
      return header().insertRefusedCount.load(std::memory_order_relaxed);
   }
   Kel::U64 corruptionCount() const {
      return header().corruptionCount.load(std::memory_order_relaxed);
   }
   Kel::U64 changeSeq() const { return header().changeSeq.load(std::memory_order_relaxed); }

   // Inserts or replaces. False when the table is full and `key` is new: the
   // refusal is traced and counted, and nothing changes.
   bool entryIs(const Key& key, const Value& value) {
      const Opened opened = openForWrite(key);
      if (!opened.slot) {
         return false;
      }
      std::memcpy(opened.slot + geometry().valueOffset, &value, sizeof(Value));
      closeAndPublish(opened.slot);
      return true;
   }

   // The entry of `key` opened for writing in place (created as `initial` when
   // absent), or null when the table is full. Readers of that entry wait until
   // entryCommit() of the returned pointer.
   Value* entryForWrite(const Key& key, const Value& initial) {
      const Opened opened = openForWrite(key);
      if (!opened.slot) {
         return nullptr;
      }
      std::byte* value = opened.slot + geometry().valueOffset;
      if (opened.created) {
         std::memcpy(value, &initial, sizeof(Value));
      }
      return reinterpret_cast<Value*>(value);
   }

   // Publishes an entry written in place. A pointer that is not an open
   // entry of this table raises noMansLandAssertion.
   void entryCommit(const Value* value) {
      const std::optional<Kel::U32> index = segment_.slotOfValue(value);
      if (!index || !slotIsOpen(segment_.slot(*index))) {
         corruptionFound(segment_, noMansLandAssertion);
      }
      closeAndPublish(segment_.slot(*index));
   }

   // The current value, checked against its checksum (badChecksumAssertion).
   std::optional<Value> entry(const Key& key) const {
      const std::optional<Kel::U32> index = find(key, keyHash(key)).found;
      if (!index) {
         return std::nullopt;
      }
      return checkedValue(*index);
   }

   // Removes `key` and returns its value; nullopt (and no change) when absent.
   std::optional<Value> entryDel(const Key& key) {
      const std::optional<Kel::U32> index = find(key, keyHash(key)).found;
      if (!index) {
         return std::nullopt;
      }
      const Value old = checkedValue(*index);
      const Kel::U32 mask = geometry().slotCount - 1;
      if (stateOf((*index + 1) & mask) == SlotState::empty) {
         stateIs(*index, SlotState::empty);
         for (Kel::U32 i = (*index - 1) & mask; stateOf(i) == SlotState::removed;
              i = (i - 1) & mask) {
            stateIs(i, SlotState::empty);
            countIs(header().removedCount, -1);
         }
      } else {
         stateIs(*index, SlotState::removed);
         countIs(header().removedCount, +1);
      }
      countIs(header().liveCount, -1);
      changePublish(segment_, ChangeKind::removed, &key);
      return old;
   }

   void entryDelAll() {
      for (Kel::U32 i = 0; i < geometry().slotCount; ++i) {
         if (stateOf(i) != SlotState::empty) {
            stateIs(i, SlotState::empty);
         }
      }
      header().liveCount.store(0, std::memory_order_relaxed);
      header().removedCount.store(0, std::memory_order_relaxed);
      changePublish(segment_, ChangeKind::allRemoved, nullptr);
   }

   // Calls f(key, value) for every entry, in slot order. `f` must not change
   // the table.
   template <class F>
   void forEach(F&& f) const {
      for (Kel::U32 i = 0; i < geometry().slotCount; ++i) {
         if (stateOf(i) == SlotState::live) {
            const std::byte* slot = segment_.slot(i);
            f(*reinterpret_cast<const Key*>(slot + geometry().keyOffset),
              *reinterpret_cast<const Value*>(slot + geometry().valueOffset));
         }
      }
   }

 private:
   explicit Table(TableSegment segment) : segment_(std::move(segment)) {}

   const Geometry& geometry() const { return segment_.geometry(); }
   SegmentHeader& header() const { return segment_.header(); }

   SlotState stateOf(Kel::U32 index) const {
      const Kel::U32 state = segment_.slotHeader(index).state;
      if (state > static_cast<Kel::U32>(SlotState::removed)) {
         corruptionFound(segment_, badChecksumAssertion);
      }
      return static_cast<SlotState>(state);
   }

   void stateIs(Kel::U32 index, SlotState state) {
      std::byte* slot = segment_.slot(index);
      slotOpen(slot);
      slotHeaderOf(slot).state = static_cast<Kel::U32>(state);
      slotClose(slot, geometry());
   }

   static void countIs(std::atomic<Kel::U32>& counter, int delta) {
      counter.store(counter.load(std::memory_order_relaxed) + delta, std::memory_order_relaxed);
   }

   struct Probe {
      std::optional<Kel::U32> found;
      std::optional<Kel::U32> free;  // the first slot a new key may take
   };

   Probe find(const Key& key, Kel::U64 hash) const {
      Probe p;
      const Kel::U32 mask = geometry().slotCount - 1;
      Kel::U32 i = homeSlot(hash, geometry());
      for (Kel::U32 n = 0; n < geometry().slotCount; ++n, i = (i + 1) & mask) {
         switch (stateOf(i)) {
            case SlotState::empty:
               p.free = p.free.value_or(i);
               return p;
            case SlotState::removed:
               p.free = p.free.value_or(i);
               break;
            case SlotState::live:
               if (segment_.slotHeader(i).keyHash == hash &&
                   *reinterpret_cast<const Key*>(segment_.slot(i) + geometry().keyOffset) == key) {
                  p.found = i;
                  return p;
               }
               break;
         }
      }
      return p;
   }

   struct Opened {
      std::byte* slot;  // null when the table is full
      bool created;
   };

   // Opens the slot of `key`, taking a free one for a new key.
   Opened openForWrite(const Key& key) {
      const Kel::U64 hash = keyHash(key);
      const Probe p = find(key, hash);
      if (p.found) {
         std::byte* slot = segment_.slot(*p.found);
         slotOpen(slot);
         return {slot, false};
      }
      if (size() >= capacity() || !p.free) {
         insertRefused(segment_);
         return {nullptr, false};
      }
      std::byte* slot = segment_.slot(*p.free);
      if (stateOf(*p.free) == SlotState::removed) {
         countIs(header().removedCount, -1);
      }
      countIs(header().liveCount, +1);
      slotOpen(slot);
      SlotHeader& h = slotHeaderOf(slot);
      h.state = static_cast<Kel::U32>(SlotState::live);
      h.keyHash = hash;
      std::memcpy(slot + geometry().keyOffset, &key, sizeof(Key));
      return {slot, true};
   }

   void closeAndPublish(std::byte* slot) {
      slotClose(slot, geometry());
      changePublish(segment_, ChangeKind::upserted, slot + geometry().keyOffset);
   }

   Value checkedValue(Kel::U32 index) const {
      const std::byte* slot = segment_.slot(index);
      if (slotComputeChecksum(slot, geometry()) != segment_.slotHeader(index).checksum) {
         corruptionFound(segment_, badChecksumAssertion);
      }
      Value v;
      std::memcpy(&v, slot + geometry().valueOffset, sizeof(Value));
      return v;
   }

   TableSegment segment_;
};

}  // namespace Vorpa
