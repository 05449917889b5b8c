#pragma once

#include <optional>
#include <utility>
#include <vector>

#include "Vorpa/Table.h"

namespace Vorpa {

// What a scan of the slots found.
struct ScanResult {
   Kel::U32 entries = 0;  // live entries handed to the callback
   Kel::U32 corrupt = 0;  // slots with a bad checksum, state or value
   Kel::U32 busy = 0;     // slots the writer held open for too long
};

template <class Key>
struct Change {
   ChangeKind kind;
   Key key;  // zero for allRemoved
};

// A reader's read-only view of a table another process (or this one) writes.
// Everything it reads is copied out under the slot's sequence lock and
// checked; a corrupt segment yields errors, never a crash, and all offsets
// come from the geometry checked at mount.
template <SharedKey Key, SharedValue Value>
class TableReader {
   using Layout = StoredLayout<Key, Value>;
   using Stored = typename Layout::Stored;

 public:
   // Throws MountError.
   static TableReader mount(const Kel::Name& name) {
      return TableReader(TableSegment::mount(name, tableShape<Key, Value>()));
   }
   static TableReader attach(const Table<Key, Value>& writer) {
      return TableReader(writer.segment().readerView(tableShape<Key, Value>()));
   }

   const TableSegment& segment() const { return segment_; }
   const Kel::Name& name() const { return segment_.name(); }
   Kel::U32 capacity() const { return geometry().capacity; }
   // The writer's counters, as it last stored them.
   Kel::U32 size() const { return segment_.header().liveCount.load(std::memory_order_relaxed); }
   Kel::U64 insertRefusedCount() const {
      return segment_.header().insertRefusedCount.load(std::memory_order_relaxed);
   }
   Kel::U64 corruptionCount() const {
      return segment_.header().corruptionCount.load(std::memory_order_relaxed);
   }

   // A consistent copy of the value of `key` into `out` (meaningful only when
   // the result is ok).
   ReadStatus entry(const Key& key, Value& out) const {
      if constexpr (Layout::valueIsStored) {
         return find(key, out);
      } else {
         Stored stored;
         const ReadStatus status = find(key, stored);
         out = stored.value;
         return status;
      }
   }

   // Calls f(key, value) with a consistent copy of every live entry.
   template <class F>
   ScanResult forEach(F&& f) const {
      return scan(false, std::forward<F>(f));
   }

   // Checks every slot, the free ones included.
   ScanResult validate() const {
      return scan(true, [](const Key&, const Value&) {});
   }

   // False once the header no longer matches what was checked at mount.
   bool headerIntact() const { return segment_.identityIntact(); }

   // Whether the table's name still refers to the segment this reader
   // mounted: false once the writer restarted (it replaces the segment, which
   // this reader goes on seeing, frozen) or the segment was removed; then
   // mount() again to follow the table. Costs an open and a stat, not a
   // mount: cheap enough for every wake-up of a watching reader.
   bool live() const { return segment_.nameRefersHere(); }

   Kel::U64 changeSeq() const { return Vorpa::changeSeq(segment_); }

   // Appends the changes after `cursor` to `out` and moves `cursor` to the
   // newest. Unless ok, some changes are lost: `cursor` moves to the newest
   // all the same, and the caller rereads the whole table.
   FollowStatus changesSince(Kel::U64& cursor, std::vector<Change<Key>>& out) const {
      const Kel::U64 head = changeSeq();
      const Kel::U64 from = cursor;
      cursor = head;
      if (head < from) {
         return FollowStatus::corrupt;
      }
      if (head - from > geometry().ringCapacity) {
         return FollowStatus::overrun;
      }
      for (Kel::U64 seq = from + 1; seq <= head; ++seq) {
         Change<Key> c{};
         FollowStatus status = changeRead(segment_, seq, &c.kind, &c.key);
         if (status == FollowStatus::ok && !sharedValid(c.key)) {
            status = FollowStatus::corrupt;
         }
         if (status != FollowStatus::ok) {
            return status;
         }
         out.push_back(c);
      }
      return FollowStatus::ok;
   }

   // Sleeps until the change sequence differs from `cursor`; see changeWait.
   bool waitForChange(Kel::U64 cursor, std::optional<Kel::Seconds> timeout = std::nullopt) const {
      return changeWait(segment_, cursor, timeout);
   }

 private:
   explicit TableReader(TableSegment segment) : segment_(std::move(segment)) {}

   const Geometry& geometry() const { return segment_.geometry(); }

   ReadStatus find(const Key& key, Stored& into) const {
      const Kel::U64 hash = keyHash(key);
      const Kel::U32 mask = geometry().slotCount - 1;
      Kel::U32 i = homeSlot(hash, geometry());
      for (Kel::U32 n = 0; n < geometry().slotCount; ++n, i = (i + 1) & mask) {
         SlotView view{};
         ReadStatus status = slotPeek(segment_.slot(i), &view);
         if (status != ReadStatus::ok) {
            return status;
         }
         if (view.state == SlotState::empty) {
            return ReadStatus::notFound;
         }
         if (view.state != SlotState::live || view.keyHash != hash) {
            continue;
         }
         status = copy(i, into, view);
         if (status != ReadStatus::ok) {
            return status;
         }
         if (view.state == SlotState::live && Layout::keyOf(into) == key) {
            return ReadStatus::ok;
         }
      }
      return ReadStatus::notFound;
   }

   ReadStatus copy(Kel::U32 index, Stored& stored, SlotView& view,
                   Patience patience = Patience::wait) const {
      const ReadStatus status =
          slotCopy(segment_.slot(index), geometry(), &stored, &view, patience);
      if (status == ReadStatus::ok && view.state == SlotState::live &&
          !(sharedValid(Layout::keyOf(stored)) && sharedValid(Layout::valueOf(stored)))) {
         return ReadStatus::corrupt;
      }
      return status;
   }

   template <class F>
   ScanResult scan(bool everySlot, F&& f) const {
      ScanResult result;
      Stored stored;
      Patience patience = Patience::wait;
      for (Kel::U32 i = 0; i < geometry().slotCount; ++i) {
         SlotView view{};
         ReadStatus status = slotPeek(segment_.slot(i), &view, patience);
         if (status == ReadStatus::ok && (everySlot || view.state == SlotState::live)) {
            status = copy(i, stored, view, patience);
         }
         switch (status) {
            case ReadStatus::ok:
               if (view.state == SlotState::live) {
                  ++result.entries;
                  f(Layout::keyOf(stored), Layout::valueOf(std::as_const(stored)));
               }
               break;
            case ReadStatus::busy:
               ++result.busy;
               patience = Patience::glance;
               break;
            default:
               ++result.corrupt;
               break;
         }
      }
      return result;
   }

   TableSegment segment_;
};

}  // namespace Vorpa
