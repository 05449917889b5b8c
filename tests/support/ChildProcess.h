#pragma once

#include <grp.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace TestSupport {

// Makes this process `uid` for good, group `uid` and no supplementary groups
// (root's would go on granting access). False when it may not: only root may.
inline bool becomeUser(uid_t uid) {
   return setgroups(0, nullptr) == 0 && setresgid(uid, uid, uid) == 0 &&
          setresuid(uid, uid, uid) == 0;
}

// A program run with its standard output and error on pipes, as this
// process's user or as `user`. Reads wait on the pipes, bounded by a generous
// limit so that a broken program fails the test instead of hanging it.
class ChildProcess {
 public:
   static constexpr int pipeWaitLimitMs = 60'000;

   explicit ChildProcess(const std::vector<std::string>& args,
                         std::optional<uid_t> user = std::nullopt) {
      int out[2];
      int err[2];
      if (pipe(out) != 0 || pipe(err) != 0) {
         throw std::runtime_error("pipe");
      }
      pid_ = fork();
      if (pid_ == 0) {
         dup2(out[1], STDOUT_FILENO);
         dup2(err[1], STDERR_FILENO);
         close(out[0]);
         close(err[0]);
         std::vector<char*> argv;
         for (const std::string& a : args) {
            argv.push_back(const_cast<char*>(a.c_str()));
         }
         argv.push_back(nullptr);
         if (user && !becomeUser(*user)) {
            _exit(126);
         }
         execv(argv[0], argv.data());
         _exit(127);
      }
      close(out[1]);
      close(err[1]);
      out_ = out[0];
      err_ = err[0];
   }
   ~ChildProcess() {
      if (pid_ > 0) {
         kill(pid_, SIGKILL);
         wait();
      }
      close(out_);
      close(err_);
   }
   ChildProcess(const ChildProcess&) = delete;
   ChildProcess& operator=(const ChildProcess&) = delete;

   // The next line of standard output without its newline; nullopt at the end.
   std::optional<std::string> readLine() {
      while (true) {
         if (const auto nl = outBuffer_.find('\n'); nl != std::string::npos) {
            std::string line = outBuffer_.substr(0, nl);
            outBuffer_.erase(0, nl + 1);
            return line;
         }
         if (!readSome(out_, outBuffer_)) {
            return std::nullopt;
         }
      }
   }
   // Everything the program writes until it ends, then its exit status.
   struct Result {
      int exitCode;
      std::string out;
      std::string err;
   };
   Result finish() {
      while (readSome(out_, outBuffer_)) {
      }
      std::string err;
      while (readSome(err_, err)) {
      }
      const int code = wait();
      return Result{code, std::exchange(outBuffer_, {}), err};
   }
   void signal(int sig) { kill(pid_, sig); }
   pid_t pid() const { return pid_; }

   static Result run(const std::vector<std::string>& args) { return ChildProcess(args).finish(); }

 private:
   bool readSome(int fd, std::string& into) {
      pollfd p{fd, POLLIN, 0};
      if (poll(&p, 1, pipeWaitLimitMs) != 1) {
         throw std::runtime_error("child wrote nothing in time");
      }
      char buf[4096];
      const ssize_t n = read(fd, buf, sizeof buf);
      if (n <= 0) {
         return false;
      }
      into.append(buf, static_cast<std::size_t>(n));
      return true;
   }
   int wait() {
      int status = 0;
      waitpid(pid_, &status, 0);
      pid_ = -1;
      return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
   }

   pid_t pid_ = -1;
   int out_ = -1;
   int err_ = -1;
   std::string outBuffer_;
};

}  // namespace TestSupport
