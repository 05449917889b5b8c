#include "Vorpa/TableSegment.h"

#include <bit>
#include <cstring>
#include <string>

#include "Vorpa/Error.h"

namespace Vorpa {

namespace {

[[noreturn]] void refuse(MountProblem problem, const Kel::Name& name, const Kel::String& why) {
   throw MountError(problem, "table '" + name + "' " + why);
}

}  // namespace

TableSegment TableSegment::create(const Kel::Name& name, const TableShape& shape, Kel::U32 capacity,
                                  Kel::U32 ringCapacity) {
   const Geometry g = Geometry::compute(capacity, ringCapacity, shape);
   return initialize(Segment::createNamed(name, g.segmentSize), shape, g);
}

TableSegment TableSegment::createAnonymous(const Kel::Name& label, const TableShape& shape,
                                           Kel::U32 capacity, Kel::U32 ringCapacity) {
   const Geometry g = Geometry::compute(capacity, ringCapacity, shape);
   return initialize(Segment::createAnonymous(label, g.segmentSize), shape, g);
}

TableSegment TableSegment::initialize(Segment segment, const TableShape& shape, const Geometry& g) {
   TableSegment t;
   t.segment_ = std::move(segment);
   t.geometry_ = g;
   // The segment starts zeroed: every slot is empty with sequence 0. Only the
   // checksums need writing, and an empty slot's is the same everywhere.
   const Kel::U64 emptyChecksum = slotChecksum(0, 0, t.slot(0) + g.storedOffset, g.stored.size);
   for (Kel::U32 i = 0; i < g.slotCount; ++i) {
      t.slotHeader(i).checksum = emptyChecksum;
   }
   const Identity id = Identity::make(shape.fingerprint, g);
   t.identityChecksum_ = id.checksum;
   // The magic goes last: a reader that opens the segment before this point
   // finds it not created yet.
   Identity& shared = t.header().identity;
   std::memcpy(reinterpret_cast<std::byte*>(&shared) + sizeof id.magic,
               reinterpret_cast<const std::byte*>(&id) + sizeof id.magic,
               sizeof id - sizeof id.magic);
   std::atomic_ref<Kel::U64>(shared.magic).store(id.magic, std::memory_order_release);
   return t;
}

TableSegment TableSegment::mount(const Kel::Name& name, const TableShape& shape) {
   return checkAndAdopt(Segment::openNamed(name), shape);
}

TableSegment TableSegment::readerView(const TableShape& shape) const {
   return checkAndAdopt(segment_.readOnlyView(), shape);
}

TableSegment TableSegment::checkAndAdopt(Segment segment, const TableShape& shape) {
   const Kel::Name& name = segment.name();
   if (segment.size() < slotsOffset) {
      refuse(MountProblem::corrupt, name, "is too small for a table header");
   }
   // The magic is read first, with acquire ordering, because the writer stores
   // it last. The checks run on a private copy: the shared bytes may change.
   auto& magic = *reinterpret_cast<Kel::U64*>(segment.data());
   const Kel::U64 published = std::atomic_ref<Kel::U64>(magic).load(std::memory_order_acquire);
   Identity id;
   std::memcpy(&id, segment.data(), sizeof id);
   id.magic = published;
   if (id.magic == 0) {
      refuse(MountProblem::missing, name, "is not created yet");
   }
   if (id.magic != segmentMagic) {
      refuse(MountProblem::corrupt, name, "has a bad magic number");
   }
   if (id.layoutVersion != layoutVersion) {
      refuse(MountProblem::otherLayout, name,
             "has layout version " + std::to_string(id.layoutVersion) + ", this program reads " +
                 std::to_string(layoutVersion));
   }
   if (id.identitySize != sizeof id || id.checksum != id.computeChecksum()) {
      refuse(MountProblem::corrupt, name, "has a corrupt header");
   }
   if (id.fingerprint != shape.fingerprint || !(id.geometry.key == shape.key) ||
       !(id.geometry.stored == shape.stored)) {
      refuse(MountProblem::otherLayout, name, "holds other key or value types");
   }
   const Geometry& stored = id.geometry;
   if (stored.capacity < 1 || stored.capacity > maxCapacity ||
       !std::has_single_bit(stored.ringCapacity) || stored.ringCapacity < 2 ||
       !(Geometry::compute(stored.capacity, stored.ringCapacity, shape) == stored) ||
       stored.segmentSize != segment.size()) {
      refuse(MountProblem::corrupt, name, "has a header that does not match its size");
   }
   TableSegment t;
   t.segment_ = std::move(segment);
   t.geometry_ = stored;
   t.identityChecksum_ = id.checksum;
   return t;
}

std::optional<Kel::U32> TableSegment::slotOf(const void* address, Kel::U64 offset) const {
   const auto* p = static_cast<const std::byte*>(address);
   const std::byte* first = slot(0) + geometry_.storedOffset + offset;
   if (p < first || p >= slot(geometry_.slotCount)) {
      return std::nullopt;
   }
   const auto distance = static_cast<Kel::U64>(p - first);
   if (distance % geometry_.slotStride != 0) {
      return std::nullopt;
   }
   return static_cast<Kel::U32>(distance / geometry_.slotStride);
}

bool TableSegment::identityIntact() const {
   Identity now;
   std::memcpy(&now, segment_.data(), sizeof now);
   return now.magic == segmentMagic && now.checksum == identityChecksum_ &&
          now.computeChecksum() == identityChecksum_ && now.geometry == geometry_;
}

}  // namespace Vorpa
