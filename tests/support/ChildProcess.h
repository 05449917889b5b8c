#pragma once

#include <fcntl.h>
#include <grp.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
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
   struct Result {
      int exitCode;
      std::string out;
      std::string err;
   };

   explicit ChildProcess(const std::vector<std::string>& args,
                         std::optional<uid_t> user = std::nullopt) {
      int out[2];
      int err[2];
      if (pipe2(out, O_CLOEXEC) != 0 || pipe2(err, O_CLOEXEC) != 0) {
         throw std::runtime_error("pipe");
      }
      std::vector<char*> argv;
      for (const std::string& a : args) {
         argv.push_back(const_cast<char*>(a.c_str()));
      }
      argv.push_back(nullptr);
      if ((pid_ = fork()) == 0) {
         dup2(out[1], STDOUT_FILENO);
         dup2(err[1], STDERR_FILENO);
         if (!user || becomeUser(*user)) {
            execv(argv[0], argv.data());
         }
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
      for (const int fd : {out_, err_}) {
         if (fd >= 0) {
            close(fd);
         }
      }
   }
   ChildProcess(const ChildProcess&) = delete;
   ChildProcess& operator=(const ChildProcess&) = delete;

   static Result run(const std::vector<std::string>& args) { return ChildProcess(args).finish(); }
   void signal(int sig) { kill(pid_, sig); }
   pid_t pid() const { return pid_; }

   // The next line of standard output without its newline; nullopt at the end.
   std::optional<std::string> readLine() {
      std::size_t nl;
      while ((nl = outBuffer_.find('\n')) == std::string::npos) {
         if (out_ < 0) {
            return std::nullopt;
         }
         readSome();
      }
      std::string line = outBuffer_.substr(0, nl);
      outBuffer_.erase(0, nl + 1);
      return line;
   }
   // Everything the program writes until it ends, then its exit status.
   Result finish() {
      while (out_ >= 0 || err_ >= 0) {
         readSome();
      }
      const int code = wait();
      return Result{code, std::exchange(outBuffer_, {}), std::exchange(errBuffer_, {})};
   }

 private:
   // Reads whichever of the open pipes has something, both watched at once so
   // that a child filling one is never stuck while we wait on the other; a
   // pipe at its end is closed and its descriptor set to -1.
   void readSome() {
      pollfd p[2] = {{out_, POLLIN, 0}, {err_, POLLIN, 0}};
      if (poll(p, 2, 60'000) < 1) {
         throw std::runtime_error("child wrote nothing in time");
      }
      const auto take = [](const pollfd& ready, int& fd, std::string& into) {
         if (fd < 0 || ready.revents == 0) {
            return;
         }
         char buf[4096];
         const ssize_t n = read(fd, buf, sizeof buf);
         if (n > 0) {
            into.append(buf, static_cast<std::size_t>(n));
         } else {
            close(std::exchange(fd, -1));
         }
      };
      take(p[0], out_, outBuffer_);
      take(p[1], err_, errBuffer_);
   }
   int wait() {
      int status = 0;
      waitpid(std::exchange(pid_, -1), &status, 0);
      return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
   }

   pid_t pid_ = -1;
   int out_ = -1;
   int err_ = -1;
   std::string outBuffer_;
   std::string errBuffer_;
};

}  // namespace TestSupport
