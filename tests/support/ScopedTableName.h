#pragma once

#include <unistd.h>

#include <atomic>
#include <string>

#include "Vorpa/Segment.h"

namespace TestSupport {

// A shared-memory table name no other test or process uses, unlinked when the
// test ends, whatever it left behind.
class ScopedTableName {
 public:
   explicit ScopedTableName(const std::string& purpose) {
      static std::atomic<int> counter{0};
      name_ = "vorpa-test-" + purpose + "-" + std::to_string(getpid()) + "-" +
              std::to_string(counter++);
   }
   ~ScopedTableName() { Vorpa::Segment::remove(name_); }
   ScopedTableName(const ScopedTableName&) = delete;
   ScopedTableName& operator=(const ScopedTableName&) = delete;

   const std::string& str() const { return name_; }
   operator const std::string&() const { return name_; }

 private:
   std::string name_;
};

}  // namespace TestSupport
