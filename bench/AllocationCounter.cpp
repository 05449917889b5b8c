#include "AllocationCounter.h"

#include <cstdlib>
#include <new>

namespace {
// Benchmarks run their loops on one thread; a plain counter keeps the cost of
// counting out of what is measured.
std::uint64_t allocations = 0;
}  // namespace

std::uint64_t allocationCount() {
   return allocations;
}

void* operator new(std::size_t size) {
   ++allocations;
   if (void* p = std::malloc(size == 0 ? 1 : size)) {
      return p;
   }
   throw std::bad_alloc();
}

void operator delete(void* p) noexcept {
   std::free(p);
}

void operator delete(void* p, std::size_t) noexcept {
   std::free(p);
}
