#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "support/ChildProcess.h"
#include "support/ScopedRuntimeDirectory.h"

// The service units, as systemd reads them: `systemd-analyze verify` accepts
// each one without a warning, with the commands it starts and the manual
// pages it names. Where systemd-analyze is missing or cannot verify a unit at
// all (no systemd on the machine, or one that a container keeps from
// working), the test is skipped and says why.
namespace {

using TestSupport::ChildProcess;
namespace fs = std::filesystem;

std::string readFile(const fs::path& path) {
   std::ifstream in(path);
   std::stringstream text;
   text << in.rdbuf();
   return text.str();
}

std::string replaced(std::string text, const std::string& from, const std::string& to) {
   for (std::size_t at = text.find(from); at != std::string::npos;
        at = text.find(from, at + to.size())) {
      text.replace(at, from.size(), to);
   }
   return text;
}

// A directory of the test's own: the units to verify, with the commands they
// start at their installed paths replaced by the built programs (verify
// checks that they exist), and a manual tree holding the pages they name.
class UnitTree {
 public:
   UnitTree() {
      fs::create_directories(root_ / "man" / "man5");
      fs::create_directories(root_ / "man" / "man8");
      for (const char* page : {"ipfix-agent.8", "ipfix-stats.8", "ipfix-agent.yaml.5"}) {
         const fs::path source = fs::path(MAN_DIR) / page;
         fs::create_symlink(source,
                            root_ / "man" / ("man" + source.extension().string().substr(1)) / page);
      }
   }
   ~UnitTree() { fs::remove_all(root_); }

   fs::path unit(const std::string& name, const std::string& text) const {
      std::ofstream(root_ / name) << text;
      return root_ / name;
   }
   fs::path systemdUnit(const std::string& name) const {
      std::string text = readFile(fs::path(SYSTEMD_DIR) / name);
      text = replaced(text, "/usr/sbin/ipfix-agent", IPFIX_AGENT_PATH);
      return unit(name, replaced(text, "/usr/bin/ipfix-stats", IPFIX_STATS_PATH));
   }
   std::string manPath() const { return (root_ / "man").string(); }

 private:
   fs::path root_ = ::testing::TempDir() + "/units-" + std::to_string(::getpid());
};

ChildProcess::Result verify(const fs::path& unit) {
   return ChildProcess::run({SYSTEMD_ANALYZE_PATH, "verify", unit.string()});
}

TEST(SystemdUnits, VerifyWithoutWarnings) {
   if (std::string(SYSTEMD_ANALYZE_PATH).empty()) {
      GTEST_SKIP() << "systemd-analyze is not installed";
   }
   const UnitTree tree;
   const TestSupport::ScopedVariable manPath("MANPATH", tree.manPath().c_str());
   const ChildProcess::Result probe =
       verify(tree.unit("probe.service", "[Service]\nExecStart=/bin/true\n"));
   if (probe.exitCode != 0 || !probe.err.empty()) {
      GTEST_SKIP() << "systemd-analyze verify does not work on this machine: " << probe.err;
   }
   for (const char* name : {"ipfix-agent.service", "ipfix-stats-metrics.service"}) {
      SCOPED_TRACE(name);
      const ChildProcess::Result result = verify(tree.systemdUnit(name));
      EXPECT_EQ(result.exitCode, 0);
      EXPECT_EQ(result.err, "");
   }
}

}  // namespace
