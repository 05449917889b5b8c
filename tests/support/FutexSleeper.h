#pragma once

#include <sched.h>
#include <sys/syscall.h>
#include <sys/types.h>

#include <chrono>
#include <fstream>
#include <string>

namespace TestSupport {

// Waits until process `pid` sleeps in a futex wait, as a reader asleep on a
// table does, for at most `limit`. True when it does. Readers write nothing
// to the table, so the kernel's view of the process is what tells.
inline bool waitUntilAsleepInFutex(pid_t pid,
                                   std::chrono::seconds limit = std::chrono::seconds(60)) {
   const auto deadline = std::chrono::steady_clock::now() + limit;
   const std::string path = "/proc/" + std::to_string(pid) + "/syscall";
   while (std::chrono::steady_clock::now() < deadline) {
      std::ifstream in(path);
      long number = -1;
      if (in >> number && number == SYS_futex) {
         return true;
      }
      sched_yield();
   }
   return false;
}

}  // namespace TestSupport
