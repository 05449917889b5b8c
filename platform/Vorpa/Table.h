#pragma once

#include <cstring>
#include <optional>

#include "Vorpa/ChangeRing.h"
#include "Vorpa/SlotAccess.h"
#include "Vorpa/Stored.h"
#include "Vorpa/TableSegment.h"
#include "Vorpa/WriterIncident.h"

namespace Vorpa {

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
   using Layout = StoredLayout<Key, Value>;
   using Stored = typename Layout::Stored;

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
   // refusal is traced and counted, and nothing changes. A value that carries
   // its key must carry `key`.
   bool entryIs(const Key& key, const Value& value) {
      if constexpr (Layout::valueIsStored) {
         KEL_ASSERT(&value.key() == &key || value.key() == key);
      }
      const Opened opened = openForWrite(key);
      if (!opened.slot) {
         return false;
      }
      slotBytesCopy(&valueAt(opened.slot), &value, sizeof(Value));
      closeAndPublish(opened.slot);
      return true;
   }

   // The entry of `key` opened for writing in place (created as `initial` when
   // absent), or null when the table is full. Readers of that entry wait until
   // entryCommit() of the returned pointer.
   Value* entryForWrite(const Key& key, const Value& initial) {
      if constexpr (Layout::valueIsStored) {
         KEL_ASSERT(initial.key() == key);
      }
      const Opened opened = openForWrite(key);
      if (!opened.slot) {
         return nullptr;
      }
      Value& value = valueAt(opened.slot);
      if (opened.created) {
         std::memcpy(&value, &initial, sizeof(Value));
      }
      return &value;
   }

   // Publishes an entry written in place. A pointer that is not an open
   // entry of this table raises noMansLandAssertion. The key of a value that
   // carries its key must not change.
   void entryCommit(const Value* value) {
      const std::optional<Kel::U32> index = segment_.slotOf(value, Layout::valueOffset());
      if (!index || !slotIsOpen(segment_.slot(*index))) {
         corruptionFound(segment_, noMansLandAssertion);
      }
      std::byte* slot = segment_.slot(*index);
      if constexpr (Layout::valueIsStored) {
         KEL_ASSERT_TEXT(keyHash(value->key()) == slotHeaderOf(slot).keyHash,
                         "entryCommit() of an entry whose key changed");
      }
      closeAndPublish(slot);
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
            const Stored& stored = storedAt(segment_.slot(i));
            f(Layout::keyOf(stored), Layout::valueOf(stored));
         }
      }
   }

 private:
   explicit Table(TableSegment segment) : segment_(std::move(segment)) {}

   const Geometry& geometry() const { return segment_.geometry(); }
   SegmentHeader& header() const { return segment_.header(); }

   Stored& storedAt(std::byte* slot) const {
      return *reinterpret_cast<Stored*>(slot + geometry().storedOffset);
   }
   Value& valueAt(std::byte* slot) const { return Layout::valueOf(storedAt(slot)); }

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
                   Layout::keyOf(storedAt(segment_.slot(i))) == key) {
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
      if constexpr (!Layout::valueIsStored) {
         std::memcpy(&storedAt(slot).key, &key, sizeof(Key));
      }
      return {slot, true};
   }

   void closeAndPublish(std::byte* slot) {
      slotClose(slot, geometry());
      changePublish(segment_, ChangeKind::upserted, &Layout::keyOf(storedAt(slot)));
   }

   Value checkedValue(Kel::U32 index) const {
      std::byte* slot = segment_.slot(index);
      if (slotComputeChecksum(slot, geometry()) != segment_.slotHeader(index).checksum) {
         corruptionFound(segment_, badChecksumAssertion);
      }
      return valueAt(slot);
   }

   TableSegment segment_;
};

}  // namespace Vorpa
