#pragma once

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <stdexcept>
#include <string>

#include "Ipfix/CollectorStats.h"

namespace TestSupport {

// An agent's stand-in in a process of its own: it creates the statistics
// table `name` with one collector entry of tracker `tracker`, then runs until
// stopped.
class StatsWriterProcess {
 public:
   StatsWriterProcess(const std::string& name, const std::string& tracker) {
      int ready[2];
      int release[2];
      if (pipe2(ready, O_CLOEXEC) != 0 || pipe2(release, O_CLOEXEC) != 0) {
         throw std::runtime_error("pipe");
      }
      pid_ = fork();
      if (pid_ == 0) {
         close(ready[0]);
         close(release[1]);
         int code = 0;
         try {
            const auto stats = Vorpa::Ipfix::collectorStatisticsFactory(name, 16);
            stats->statsIs(
                Vorpa::Ipfix::CollectorStatisticsEntry(Vorpa::Ipfix::CollectorStatisticsKey(
                    tracker, "exp1", *Vorpa::Ipfix::CollectorInfo::parse("192.0.2.1:1"))));
            char byte = 'r';
            static_cast<void>(write(ready[1], &byte, 1));
            static_cast<void>(read(release[0], &byte, 1));
         } catch (...) {
            code = 1;
         }
         _exit(code);
      }
      close(ready[1]);
      close(release[0]);
      release_ = release[1];
      char byte = 0;
      started_ = read(ready[0], &byte, 1) == 1;
      close(ready[0]);
   }
   ~StatsWriterProcess() { stop(true); }
   StatsWriterProcess(const StatsWriterProcess&) = delete;
   StatsWriterProcess& operator=(const StatsWriterProcess&) = delete;

   bool started() const { return started_; }
   // Ends the writer: it exits on its own, or is killed as by a crash.
   void stop(bool killed) {
      if (pid_ <= 0) {
         return;
      }
      if (killed) {
         kill(pid_, SIGKILL);
      }
      close(release_);
      waitpid(pid_, nullptr, 0);
      pid_ = -1;
   }

 private:
   pid_t pid_ = -1;
   int release_ = -1;
   bool started_ = false;
};

}  // namespace TestSupport
