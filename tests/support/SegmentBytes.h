#pragma once

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <span>
#include <stdexcept>
#include <string>

namespace TestSupport {

// A read-write mapping of a named table segment as a stray process could make
// one, for tests that damage bytes the writer never wrote.
class SegmentBytes {
 public:
   explicit SegmentBytes(const std::string& tableName) {
      fd_ = shm_open(("/" + tableName).c_str(), O_RDWR, 0);
      if (fd_ < 0) {
         throw std::runtime_error("shm_open " + tableName);
      }
      struct stat st {};
      fstat(fd_, &st);
      size_ = static_cast<std::size_t>(st.st_size);
      data_ = static_cast<unsigned char*>(
          mmap(nullptr, size_, PROT_READ | PROT_WRITE, MAP_SHARED, fd_, 0));
   }
   ~SegmentBytes() {
      munmap(data_, size_);
      close(fd_);
   }
   SegmentBytes(const SegmentBytes&) = delete;
   SegmentBytes& operator=(const SegmentBytes&) = delete;

   std::span<unsigned char> bytes() { return {data_, size_}; }

   // The offset of the first occurrence of `pattern`, or throws.
   std::size_t find(const void* pattern, std::size_t length) const {
      const void* hit = memmem(data_, size_, pattern, length);
      if (!hit) {
         throw std::runtime_error("pattern not in segment");
      }
      return static_cast<std::size_t>(static_cast<const unsigned char*>(hit) - data_);
   }

   void truncate(std::size_t size) { static_cast<void>(ftruncate(fd_, static_cast<off_t>(size))); }

 private:
   int fd_ = -1;
   unsigned char* data_ = nullptr;
   std::size_t size_ = 0;
};

}  // namespace TestSupport
