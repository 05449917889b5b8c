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
   // MountError (invalidName) unless the name is 1 to maxNameLength letters,
   // digits, '.', '_' or '-', and neither "." nor "..". Every named operation
   // checks the name this way before any system call sees it.
   static Kel::Name objectName(const Kel::Name& name);
   // NAME_MAX less the leading '/'.
   static constexpr std::size_t maxNameLength = 254;

   // Creates the named object with `size` zero bytes, mapped read-write, with
   // mode 0644 whatever the umask: its owner writes, every user may read. An
   // object an earlier writer left under the name is replaced (unlinked: its
   // readers keep their view and can tell, see nameRefersHere()), but only
   // when it belongs to this process's user; another user's object is left
   // alone and refused with MountError (system).
   static Segment createNamed(const Kel::Name& name, std::size_t size);
   static Segment createAnonymous(const Kel::Name& label, std::size_t size);
   // Opens an existing named object read-only and maps it read-only. Throws
   // MountError: missing when there is no object or it is still empty, system
   // on other failures.
   static Segment openNamed(const Kel::Name& name);
   // A read-only mapping of the same object, through a read-only descriptor
   // of its own, so that it cannot be made writable either.
   Segment readOnlyView() const;
   // Unlinks the named object; an absent one is not an error.
   static void remove(const Kel::Name& name);

   // Whether the name still refers to this object: false once the object was
   // unlinked or replaced (its writer restarted). Always true for an
   // anonymous object. Costs an open and a stat of the name; throws MountError
   // (system) when they fail for another reason than a missing name.
   bool nameRefersHere() const;

   std::byte* data() const { return data_; }
   std::size_t size() const { return size_; }
   bool writable() const { return writable_; }
   const Kel::Name& name() const { return name_; }

 private:
   static Segment map(int fd, const Kel::Name& name, std::size_t size, bool writable, bool named);
   void release() noexcept;

   int fd_ = -1;
   std::byte* data_ = nullptr;
   std::size_t size_ = 0;
   bool writable_ = false;
   bool named_ = false;
   // The object's identity, which its name is compared against.
   Kel::U64 device_ = 0;
   Kel::U64 inode_ = 0;
   Kel::Name name_;
};

}  // namespace Vorpa
