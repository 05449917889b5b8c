#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <optional>
#include <stdexcept>
#include <string>

namespace TestSupport {

// An environment variable set (or, given nullptr, unset) for the scope; the
// previous value comes back at the end.
class ScopedVariable {
 public:
   ScopedVariable(std::string name, const char* value) : name_(std::move(name)) {
      if (const char* previous = ::getenv(name_.c_str())) {
         previous_ = previous;
      }
      set(value);
   }
   ~ScopedVariable() { set(previous_ ? previous_->c_str() : nullptr); }
   ScopedVariable(const ScopedVariable&) = delete;
   ScopedVariable& operator=(const ScopedVariable&) = delete;

 private:
   void set(const char* value) {
      if (value) {
         ::setenv(name_.c_str(), value, 1);
      } else {
         ::unsetenv(name_.c_str());
      }
   }

   std::string name_;
   std::optional<std::string> previous_;
};

// A runtime directory of the test's own, named in RUNTIME_DIRECTORY so that
// the agents and tools it starts put and find their control sockets there,
// never in /run. Removed with what it holds at the end.
class ScopedRuntimeDirectory {
 public:
   ScopedRuntimeDirectory() : path_(made()), variable_("RUNTIME_DIRECTORY", path_.c_str()) {}
   ~ScopedRuntimeDirectory() {
      std::error_code ignored;
      std::filesystem::remove_all(path_, ignored);
   }
   ScopedRuntimeDirectory(const ScopedRuntimeDirectory&) = delete;
   ScopedRuntimeDirectory& operator=(const ScopedRuntimeDirectory&) = delete;

   const std::string& path() const { return path_; }
   // Where the agent serving `table` listens.
   std::string socketOf(const std::string& table) const {
      return path_ + "/ipfix-agent." + table + ".sock";
   }

 private:
   static std::string made() {
      std::string path = ::testing::TempDir() + "ipfix-run-XXXXXX";
      if (::mkdtemp(path.data()) == nullptr) {
         throw std::runtime_error("mkdtemp " + path);
      }
      return path;
   }

   std::string path_;
   ScopedVariable variable_;
};

}  // namespace TestSupport
