#pragma once

#include <optional>

#include "Vorpa/Layout.h"
#include "Vorpa/Segment.h"

namespace Vorpa {

// A mapped table segment and where its parts lie. The writer creates it; a
// reader mounts it after checking its identity, then trusts only the geometry
// it checked at mount, never the header again, so a header corrupted later
// cannot lead a reader outside the mapping.
class TableSegment {
 public:
   // Writer: a new segment with every slot empty.
   static TableSegment create(const Kel::Name& name, const TableShape& shape, Kel::U32 capacity,
                              Kel::U32 ringCapacity);
   static TableSegment createAnonymous(const Kel::Name& label, const TableShape& shape,
                                       Kel::U32 capacity, Kel::U32 ringCapacity);
   // Reader: throws MountError when the segment is missing, of another layout
   // or types, or corrupt.
   static TableSegment mount(const Kel::Name& name, const TableShape& shape);
   // Reader of the same segment, mounted the same way.
   TableSegment readerView(const TableShape& shape) const;

   const Kel::Name& name() const { return segment_.name(); }
   bool writable() const { return segment_.writable(); }
   const Geometry& geometry() const { return geometry_; }

   SegmentHeader& header() const { return *reinterpret_cast<SegmentHeader*>(segment_.data()); }
   std::byte* slot(Kel::U32 index) const {
      return segment_.data() + slotsOffset + geometry_.slotStride * index;
   }
   SlotHeader& slotHeader(Kel::U32 index) const {
      return *reinterpret_cast<SlotHeader*>(slot(index));
   }
   std::byte* changeRecord(Kel::U64 seq) const {
      return segment_.data() + geometry_.ringOffset +
             geometry_.ringStride * (seq & (geometry_.ringCapacity - 1));
   }
   // The slot whose stored object has `address` at `offset` into it, or
   // nullopt for any other address.
   std::optional<Kel::U32> slotOf(const void* address, Kel::U64 offset) const;

   // False once the shared identity no longer matches the one checked at mount.
   bool identityIntact() const;
   // See Segment::nameRefersHere().
   bool nameRefersHere() const { return segment_.nameRefersHere(); }

 private:
   static TableSegment initialize(Segment segment, const TableShape& shape, const Geometry& g);
   static TableSegment checkAndAdopt(Segment segment, const TableShape& shape);

   Segment segment_;
   Geometry geometry_{};
   Kel::U64 identityChecksum_ = 0;
};

}  // namespace Vorpa
