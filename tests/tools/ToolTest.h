#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <fstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "Ipfix/CollectorStats.h"
#include "support/ChildProcess.h"

// What the tests of the tools share: running them, the way they fail, and
// statistics tables written as the agent writes them.
namespace ToolTest {

using TestSupport::ChildProcess;

inline ChildProcess::Result ipfixStats(std::vector<std::string> args) {
   args.insert(args.begin(), IPFIX_STATS_PATH);
   return ChildProcess::run(args);
}

// A failure as the tools report one: exit status `code`, nothing on standard
// output, one line on standard error with `message`, after `prefix`.
inline void expectFailure(const ChildProcess::Result& r, int code, const std::string& message,
                          const std::string& prefix = "ipfix-stats: ") {
   EXPECT_EQ(r.exitCode, code) << r.err;
   EXPECT_EQ(r.out, "");
   EXPECT_TRUE(r.err.starts_with(prefix)) << r.err;
   EXPECT_NE(r.err.find(message), std::string::npos) << r.err;
   EXPECT_EQ(r.err.find('\n'), r.err.size() - 1) << "one line: " << r.err;
}

// Stops a watch, a server or an agent as its service manager would; it ends
// cleanly, without a last word on standard output. Returns standard error.
inline std::string stop(ChildProcess& process) {
   process.signal(SIGTERM);
   const ChildProcess::Result end = process.finish();
   EXPECT_EQ(end.exitCode, 0) << end.err;
   EXPECT_EQ(end.out, "");
   return end.err;
}

inline void addCollector(Vorpa::Ipfix::CollectorStatistics& stats, const std::string& tracker,
                         const std::string& exporter = "exp1") {
   stats.statsIs(Vorpa::Ipfix::CollectorStatisticsEntry(Vorpa::Ipfix::CollectorStatisticsKey(
       tracker, exporter, *Vorpa::Ipfix::CollectorInfo::parse("192.0.2.1:4739"))));
}

// An OpenMetrics exposition as prometheus_client's parser (independent of
// ours; tests/tools/openmetrics_samples.py) reads it: a line per family and
// per sample, or the parser's refusal on standard error.
inline ChildProcess::Result readOpenMetrics(const std::string& text) {
   const std::string path = ::testing::TempDir() + "openmetrics-" + std::to_string(::getpid());
   std::ofstream(path, std::ios::binary) << text;
   const ChildProcess::Result read = ChildProcess::run({PYTHON3_PATH, OPENMETRICS_PARSER, path});
   ::unlink(path.c_str());
   return read;
}

// An agent's stand-in in a process of its own: it creates the statistics
// table `name` with a collector of tracker `tracker`, then runs until it is
// killed, as by a crash (or as this process ends: it dies with its parent).
class StatsWriterProcess {
 public:
   StatsWriterProcess(const std::string& name, const std::string& tracker) {
      int ready[2];
      if (pipe2(ready, O_CLOEXEC) != 0) {
         throw std::runtime_error("pipe");
      }
      if ((pid_ = fork()) == 0) {
         prctl(PR_SET_PDEATHSIG, SIGKILL);
         try {
            const auto stats = Vorpa::Ipfix::collectorStatisticsFactory(name, 16);
            addCollector(*stats, tracker);
            static_cast<void>(write(ready[1], "r", 1));
            for (;;) {
               pause();
            }
         } catch (...) {
            _exit(1);  // the parent reads the end of the pipe
         }
      }
      close(ready[1]);
      char byte = 0;
      pollfd started{ready[0], POLLIN, 0};
      EXPECT_TRUE(poll(&started, 1, 60'000) == 1 && read(ready[0], &byte, 1) == 1)
          << "the writer did not start";
      close(ready[0]);
   }
   ~StatsWriterProcess() {
      kill(pid_, SIGKILL);
      waitpid(pid_, nullptr, 0);
   }
   StatsWriterProcess(const StatsWriterProcess&) = delete;
   StatsWriterProcess& operator=(const StatsWriterProcess&) = delete;

 private:
   pid_t pid_ = -1;
};

}  // namespace ToolTest
