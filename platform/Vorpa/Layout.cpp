#include "Vorpa/Layout.h"

#include <bit>

#include "Kel/Exception.h"

namespace Vorpa {

namespace {

constexpr Kel::U64 cacheLine = 64;

constexpr Kel::U64 roundUp(Kel::U64 value, Kel::U64 multiple) {
   return (value + multiple - 1) / multiple * multiple;
}

}  // namespace

Geometry Geometry::compute(Kel::U32 capacity, Kel::U32 ringCapacity, const TableShape& shape) {
   KEL_ASSERT(capacity >= 1 && capacity <= maxCapacity);
   KEL_ASSERT(ringCapacity >= 2 && std::has_single_bit(ringCapacity));
   KEL_ASSERT(std::has_single_bit(shape.key.align) && shape.key.align <= cacheLine);
   KEL_ASSERT(std::has_single_bit(shape.stored.align) && shape.stored.align <= cacheLine);
   Geometry g{};
   g.capacity = capacity;
   g.slotCount = std::bit_ceil(capacity + capacity / 4 + 1);
   g.ringCapacity = ringCapacity;
   g.key = shape.key;
   g.stored = shape.stored;
   g.storedOffset = roundUp(sizeof(SlotHeader), shape.stored.align);
   g.slotStride = roundUp(g.storedOffset + shape.stored.size, cacheLine);
   const TypeShape key = shape.key;
   g.ringKeyOffset = roundUp(sizeof(ChangeHeader), key.align);
   g.ringStride = roundUp(g.ringKeyOffset + key.size, cacheLine);
   g.ringOffset = slotsOffset + g.slotStride * g.slotCount;
   g.segmentSize = roundUp(g.ringOffset + g.ringStride * g.ringCapacity, pageSize);
   return g;
}

Identity Identity::make(Kel::U64 fingerprint, const Geometry& geometry) {
   Identity id{};
   id.magic = segmentMagic;
   id.layoutVersion = Vorpa::layoutVersion;
   id.identitySize = sizeof(Identity);
   id.fingerprint = fingerprint;
   id.geometry = geometry;
   id.checksum = id.computeChecksum();
   return id;
}

Kel::U64 Identity::computeChecksum() const {
   return Vorpa::checksum(this, offsetof(Identity, checksum), segmentMagic);
}

}  // namespace Vorpa
