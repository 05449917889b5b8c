#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <string>
#include <utility>
#include <vector>

namespace TestSupport {

// The agent as an operator runs it: a process with a configuration file,
// sending to collectors that are real UDP sockets of this test.
class AgentProcess {
 public:
   AgentProcess(const std::string& configPath, const std::string& table) {
      errPath_ = configPath + ".stderr";
      pid_ = fork();
      if (pid_ == 0) {
         const int err = open(errPath_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
         dup2(err, 2);
         execl(IPFIX_AGENT_PATH, "ipfix-agent", "--config", configPath.c_str(), "--stats-table",
               table.c_str(), nullptr);
         _exit(127);
      }
   }
   ~AgentProcess() {
      if (pid_ > 0) {
         kill(pid_, SIGKILL);
         waitpid(pid_, nullptr, 0);
      }
      unlink(errPath_.c_str());
   }
   void signal(int sig) const { kill(pid_, sig); }
   bool running() const { return waitpid(pid_, nullptr, WNOHANG) == 0; }
   // Waits for the exit and returns the exit status.
   int wait() {
      int status = 0;
      waitpid(pid_, &status, 0);
      pid_ = -1;
      return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
   }
   std::string stderrText() const {
      std::ifstream in(errPath_);
      return {std::istreambuf_iterator<char>(in), {}};
   }

 private:
   pid_t pid_ = -1;
   std::string errPath_;
};

inline std::string tempPath(const char* name) {
   return ::testing::TempDir() + "/" + name + "-" + std::to_string(getpid());
}

inline void writeFile(const std::string& path, const std::string& text) {
   std::ofstream(path) << text;
}

// A hardware tracker ft1 (id 9) with one exporter e1 sending from 127.0.0.1
// to `collectors` (name, port on 127.0.0.1), one flow group, interface
// Ethernet1 (and `extraInterface`, a line of the interface list) and VRF blue.
inline std::string config(const std::vector<std::pair<std::string, int>>& collectors,
                          const std::string& extraInterface = "") {
   std::string c = R"(flow-tracking:
  hardware:
    sample-rate: 512
    trackers:
      - name: ft1
        id: 9
        exporters:
          - name: e1
            source-ipv4: 127.0.0.1
            dscp: 46
            template-interval-ms: 60000
            collectors:
)";
   for (const auto& [name, port] : collectors) {
      c += "              - { name: " + name +
           ", address: 127.0.0.1, port: " + std::to_string(port) + " }\n";
   }
   c += R"(        flow-groups:
          - template-id: 300
            entries: 10
            fields: [ { element: sourceIPv4Address, flow-key: true }, octetDeltaCount ]
interfaces:
  - { name: Ethernet1, index: 1 }
)" + extraInterface +
        R"(vrfs:
  - { id: 1, name: blue }
)";
   return c;
}

}  // namespace TestSupport
