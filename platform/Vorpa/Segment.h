#pragma once

#include <cstddef>

#include "Kel/Types.h"

namespace Vorpa {

// One mapping of a shared-memory object: a POSIX shared-memory segment found by
// name, or an anonymous memory file (memfd) that only this process and its
// children see. Move-only; unmaps and closes when destroyed. The object itself
// outlives the mapping until remove() unlinks its name.
class Segment {
 public:
   Segment() = default;
   Segment(Segment&& other) noexcept;
   Segment& operator=(Segment&& other) noexcept;
   Segment(const Segment&) = delete;
   Segment& operator=(const Segment&) = delete;
   ~Segment();

   // The shared-memory object name for a table name: "/" + name. Throws
   // MountError (invalidName) for an empty name, one with '/' or one too long.
   static Kel::Name objectName(const Kel::Name& name);

   // Creates the named object (replacing one left behind by an earlier writer)
   // with `size` zero bytes, readable and writable by the owner, mapped
   // read-write.
   static Segment createNamed(const Kel::Name& name, std::size_t size);
   static Segment createAnonymous(const Kel::Name& label, std::size_t size);
   // Maps an existing named object read-only. Throws MountError: missing when
   // there is no object or it is still empty, system on other failures.
   static Segment openNamed(const Kel::Name& name);
   // A read-only mapping of the same object.
   Segment readOnlyView() const;
   // Unlinks the named object; an absent one is not an error.
   static void remove(const Kel::Name& name);

   // Makes [offset, offset + length) of a read-only view writable; the range
   // lies inside the mapping and starts on a page boundary.
   void writableRangeIs(std::size_t offset, std::size_t length);

   std::byte* data() const { return data_; }
   std::size_t size() const { return size_; }
   bool writable() const { return writable_; }
   const Kel::Name& name() const { return name_; }

 private:
   static Segment map(int fd, const Kel::Name& name, std::size_t size, bool writable);
   void release() noexcept;

   int fd_ = -1;
   std::byte* data_ = nullptr;
   std::size_t size_ = 0;
   bool writable_ = false;
   Kel::Name name_;
};

}  // namespace Vorpa
