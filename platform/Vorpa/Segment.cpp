#include "Vorpa/Segment.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <string>
#include <utility>

#include "Kel/Exception.h"
#include "Vorpa/Error.h"

namespace Vorpa {

namespace {

// Owner reads and writes, everyone else reads: readers of any user may watch
// the statistics, and only the writer's user can change them.
constexpr mode_t objectMode = 0644;

[[noreturn]] void throwSystem(int err, const Kel::String& what) {
   throw MountError(MountProblem::system, Kel::ErrnoException(err, what).what());
}

bool isNameChar(char c) {
   return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '.' ||
          c == '_' || c == '-';
}

// A rejected name as it can be printed on one line.
Kel::String shown(const Kel::Name& name) {
   Kel::String text;
   for (const char c : name) {
      if (c >= 0x20 && c < 0x7f) {
         text += c;
      } else {
         char escaped[5];
         std::snprintf(escaped, sizeof escaped, "\\x%02x", static_cast<unsigned char>(c));
         text += escaped;
      }
   }
   return text;
}

// The status of a shared-memory object, or the errno of opening it (status
// then empty). A failing fstat throws.
struct ObjectStatus {
   int openErrno = 0;
   struct stat st {};
};

ObjectStatus objectStatus(const Kel::Name& object) {
   ObjectStatus status;
   const int fd = shm_open(object.c_str(), O_RDONLY | O_CLOEXEC, 0);
   if (fd < 0) {
      status.openErrno = errno;
      return status;
   }
   const bool statted = fstat(fd, &status.st) == 0;
   const int err = errno;
   close(fd);
   if (!statted) {
      throwSystem(err, "fstat " + object);
   }
   return status;
}

// The writer replaces what an earlier writer left under the name, but not
// what another user's process created there: that table is not its own.
void refuseForeignObject(const Kel::Name& object, const Kel::Name& name) {
   const ObjectStatus status = objectStatus(object);
   if (status.openErrno == ENOENT) {
      return;
   }
   if (status.openErrno == EACCES) {
      throw MountError(
          MountProblem::system,
          "table '" + name + "' exists and this user may not read it: not replacing it");
   }
   if (status.openErrno != 0) {
      throwSystem(status.openErrno, "shm_open " + object);
   }
   if (status.st.st_uid != geteuid()) {
      throw MountError(MountProblem::system,
                       "table '" + name + "' belongs to user " + std::to_string(status.st.st_uid) +
                           ", not to user " + std::to_string(geteuid()) + ": not replacing it");
   }
}

}  // namespace

Segment::Segment(Segment&& other) noexcept
    : fd_(std::exchange(other.fd_, -1)),
      data_(std::exchange(other.data_, nullptr)),
      size_(std::exchange(other.size_, 0)),
      writable_(other.writable_),
      named_(other.named_),
      device_(other.device_),
      inode_(other.inode_),
      name_(std::move(other.name_)) {}

Segment& Segment::operator=(Segment&& other) noexcept {
   if (this != &other) {
      release();
      fd_ = std::exchange(other.fd_, -1);
      data_ = std::exchange(other.data_, nullptr);
      size_ = std::exchange(other.size_, 0);
      writable_ = other.writable_;
      named_ = other.named_;
      device_ = other.device_;
      inode_ = other.inode_;
      name_ = std::move(other.name_);
   }
   return *this;
}

Segment::~Segment() {
   release();
}

void Segment::release() noexcept {
   if (data_) {
      munmap(data_, size_);
      data_ = nullptr;
   }
   if (fd_ >= 0) {
      close(fd_);
      fd_ = -1;
   }
}

Kel::Name Segment::objectName(const Kel::Name& name) {
   if (name.empty() || name.size() > maxNameLength || name == "." || name == ".." ||
       !std::all_of(name.begin(), name.end(), isNameChar)) {
      throw MountError(MountProblem::invalidName,
                       "invalid table name '" + shown(name) + "': expected 1 to " +
                           std::to_string(maxNameLength) +
                           " letters, digits, '.', '_' or '-', and not '.' or '..'");
   }
   return "/" + name;
}

Segment Segment::map(int fd, const Kel::Name& name, std::size_t size, bool writable, bool named) {
   Segment s;
   s.fd_ = fd;
   s.name_ = name;
   s.writable_ = writable;
   s.named_ = named;
   struct stat st {};
   if (fstat(fd, &st) != 0) {
      throwSystem(errno, "fstat " + name);
   }
   s.device_ = st.st_dev;
   s.inode_ = st.st_ino;
   void* p = mmap(nullptr, size, writable ? PROT_READ | PROT_WRITE : PROT_READ, MAP_SHARED, fd, 0);
   if (p == MAP_FAILED) {
      throwSystem(errno, "mmap " + name);
   }
   s.data_ = static_cast<std::byte*>(p);
   s.size_ = size;
   return s;
}

Segment Segment::createNamed(const Kel::Name& name, std::size_t size) {
   const Kel::Name object = objectName(name);
   refuseForeignObject(object, name);
   // A segment left by an earlier writer is replaced, not reused: readers that
   // still map it keep their view of it and can tell that the name moved on;
   // new readers find the new one.
   if (shm_unlink(object.c_str()) != 0 && errno != ENOENT) {
      throwSystem(errno, "shm_unlink " + object);
   }
   const int fd = shm_open(object.c_str(), O_CREAT | O_EXCL | O_RDWR | O_CLOEXEC, objectMode);
   if (fd < 0) {
      const int err = errno;
      if (err == EEXIST) {
         throw MountError(MountProblem::system,
                          "table '" + name + "' was created by another process meanwhile");
      }
      throwSystem(err, "shm_open " + object);
   }
   // shm_open applies the umask to the mode; readers of other users need its
   // read bits whatever the umask is.
   const char* step = fchmod(fd, objectMode) != 0                    ? "fchmod "
                      : ftruncate(fd, static_cast<off_t>(size)) != 0 ? "ftruncate "
                                                                     : nullptr;
   if (step) {
      const int err = errno;
      close(fd);
      shm_unlink(object.c_str());
      throwSystem(err, step + object);
   }
   return map(fd, name, size, true, true);
}

Segment Segment::createAnonymous(const Kel::Name& label, std::size_t size) {
   const int fd = memfd_create(label.c_str(), MFD_CLOEXEC);
   if (fd < 0) {
      throwSystem(errno, "memfd_create " + label);
   }
   if (ftruncate(fd, static_cast<off_t>(size)) != 0) {
      const int err = errno;
      close(fd);
      throwSystem(err, "ftruncate " + label);
   }
   return map(fd, label, size, true, false);
}

Segment Segment::openNamed(const Kel::Name& name) {
   const Kel::Name object = objectName(name);
   const int fd = shm_open(object.c_str(), O_RDONLY | O_CLOEXEC, 0);
   if (fd < 0) {
      const int err = errno;
      if (err == ENOENT) {
         throw MountError(MountProblem::missing, "no table named '" + name + "'");
      }
      throwSystem(err, "shm_open " + object);
   }
   struct stat st {};
   if (fstat(fd, &st) != 0) {
      const int err = errno;
      close(fd);
      throwSystem(err, "fstat " + object);
   }
   if (st.st_size == 0) {
      close(fd);
      throw MountError(MountProblem::missing, "table '" + name + "' is not created yet");
   }
   return map(fd, name, static_cast<std::size_t>(st.st_size), false, true);
}

Segment Segment::readOnlyView() const {
   // Reopening the descriptor's /proc link opens the same object anew, with
   // read-only access of its own, where dup() would share the writer's.
   const Kel::String link = "/proc/self/fd/" + std::to_string(fd_);
   const int fd = open(link.c_str(), O_RDONLY | O_CLOEXEC);
   if (fd < 0) {
      throwSystem(errno, "open " + link + " for " + name_);
   }
   return map(fd, name_, size_, false, named_);
}

void Segment::remove(const Kel::Name& name) {
   shm_unlink(objectName(name).c_str());
}

bool Segment::nameRefersHere() const {
   if (!named_) {
      return true;
   }
   const Kel::Name object = objectName(name_);
   const ObjectStatus status = objectStatus(object);
   if (status.openErrno == ENOENT) {
      return false;
   }
   if (status.openErrno != 0) {
      throwSystem(status.openErrno, "shm_open " + object);
   }
   return status.st.st_dev == device_ && status.st.st_ino == inode_;
}

}  // namespace Vorpa
