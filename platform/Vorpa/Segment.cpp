#include "Vorpa/Segment.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

#include "Kel/Exception.h"
#include "Vorpa/Error.h"

namespace Vorpa {

namespace {

// NAME_MAX less the leading '/'.
constexpr std::size_t maxNameLength = 254;

[[noreturn]] void throwSystem(int err, const Kel::String& what) {
   throw MountError(MountProblem::system, Kel::ErrnoException(err, what).what());
}

}  // namespace

Segment::Segment(Segment&& other) noexcept
    : fd_(std::exchange(other.fd_, -1)),
      data_(std::exchange(other.data_, nullptr)),
      size_(std::exchange(other.size_, 0)),
      writable_(other.writable_),
      name_(std::move(other.name_)) {}

Segment& Segment::operator=(Segment&& other) noexcept {
   if (this != &other) {
      release();
      fd_ = std::exchange(other.fd_, -1);
      data_ = std::exchange(other.data_, nullptr);
      size_ = std::exchange(other.size_, 0);
      writable_ = other.writable_;
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
   if (name.empty() || name.size() > maxNameLength || name.find('/') != Kel::Name::npos ||
       name == "." || name == "..") {
      throw MountError(
          MountProblem::invalidName,
          "invalid table name '" + name + "': expected 1 to 254 characters without '/'");
   }
   return "/" + name;
}

Segment Segment::map(int fd, const Kel::Name& name, std::size_t size, bool writable) {
   Segment s;
   s.fd_ = fd;
   s.name_ = name;
   s.writable_ = writable;
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
   // A segment left by an earlier writer is replaced, not reused: readers that
   // still map it keep their view of it, new readers find the new one.
   shm_unlink(object.c_str());
   const int fd = shm_open(object.c_str(), O_CREAT | O_EXCL | O_RDWR | O_CLOEXEC, 0600);
   if (fd < 0) {
      throwSystem(errno, "shm_open " + object);
   }
   if (ftruncate(fd, static_cast<off_t>(size)) != 0) {
      const int err = errno;
      close(fd);
      shm_unlink(object.c_str());
      throwSystem(err, "ftruncate " + object);
   }
   return map(fd, name, size, true);
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
   return map(fd, label, size, true);
}

Segment Segment::openNamed(const Kel::Name& name) {
   const Kel::Name object = objectName(name);
   // Read-write open, read-only mapping: a reader needs write access only to
   // the one page it later makes writable (writableRangeIs).
   const int fd = shm_open(object.c_str(), O_RDWR | O_CLOEXEC, 0);
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
   return map(fd, name, static_cast<std::size_t>(st.st_size), false);
}

Segment Segment::readOnlyView() const {
   const int fd = dup(fd_);
   if (fd < 0) {
      throwSystem(errno, "dup " + name_);
   }
   return map(fd, name_, size_, false);
}

void Segment::remove(const Kel::Name& name) {
   shm_unlink(objectName(name).c_str());
}

void Segment::writableRangeIs(std::size_t offset, std::size_t length) {
   KEL_ASSERT(offset + length <= size_);
   if (mprotect(data_ + offset, length, PROT_READ | PROT_WRITE) != 0) {
      throwSystem(errno, "mprotect " + name_);
   }
}

}  // namespace Vorpa
