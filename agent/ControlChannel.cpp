#include "ControlChannel.h"

#include <fmt/format.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <utility>

#include "ControlProtocol.h"
#include "Kel/Exception.h"
#include "Kel/Trace.h"

namespace Agent {

namespace {

Kel::TraceHandle traceAgent("Agent");

// After the signal task: a stop request goes first.
constexpr Bexa::TaskPriority controlTaskPriority{2};

// Datagrams read per turn of the loop; more wake the task again on the next
// turn, so a flood of requests cannot hold the loop.
constexpr int maxRequestsPerTurn = 16;

sockaddr_un socketAddress(const Kel::String& path) {
   sockaddr_un addr{};
   addr.sun_family = AF_UNIX;
   if (path.empty() || path.size() >= sizeof addr.sun_path) {
      throw Kel::Exception("control socket path '" + path + "' is empty or too long");
   }
   std::memcpy(addr.sun_path, path.c_str(), path.size() + 1);
   return addr;
}

// The credentials the kernel attached to a received datagram. The kernel
// checks what a sender claims, so no one passes for a user they could not
// become.
std::optional<ucred> senderCredentials(msghdr& msg) {
   for (cmsghdr* c = CMSG_FIRSTHDR(&msg); c != nullptr; c = CMSG_NXTHDR(&msg, c)) {
      if (c->cmsg_level == SOL_SOCKET && c->cmsg_type == SCM_CREDENTIALS &&
          c->cmsg_len == CMSG_LEN(sizeof(ucred))) {
         ucred credentials;
         std::memcpy(&credentials, CMSG_DATA(c), sizeof credentials);
         return credentials;
      }
   }
   return std::nullopt;
}

// RAII for a descriptor opened here.
class Fd {
 public:
   explicit Fd(int fd) : fd_(fd) {}
   ~Fd() {
      if (fd_ >= 0) {
         ::close(fd_);
      }
   }
   Fd(const Fd&) = delete;
   Fd& operator=(const Fd&) = delete;
   int get() const { return fd_; }
   int release() { return std::exchange(fd_, -1); }

 private:
   int fd_;
};

}  // namespace

ControlChannel::ControlChannel(Kel::Ptr<Bexa::TaskSchedulerRoot> scheduler,
                               Control::SocketLocation location, Handler handler)
    : scheduler_(std::move(scheduler)),
      location_(std::move(location)),
      handler_(std::move(handler)),
      ownerUid_(::geteuid()) {
   KEL_ASSERT(scheduler_ && handler_);
   Fd fd(::socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
   if (fd.get() < 0) {
      throw Kel::ErrnoException(errno, "control socket");
   }
   // Before the bind, so that no datagram arrives without its sender's
   // credentials.
   const int on = 1;
   if (::setsockopt(fd.get(), SOL_SOCKET, SO_PASSCRED, &on, sizeof on) != 0) {
      throw Kel::ErrnoException(errno, "control socket credentials");
   }
   fd_ = fd.get();
   prepareDirectory();
   removeStaleSocket();
   bindSocket();
   fd.release();
   task_ = std::make_unique<Bexa::Task>(scheduler_, "AgentControl", controlTaskPriority,
                                        [this] { handleReadable(); });
   watch_ = scheduler_->fdWatchIs(fd_, task_.get());
   KEL_TRACE(traceAgent, 3, "Control socket {}", path());
}

ControlChannel::~ControlChannel() {
   watch_ = {};
   ::close(fd_);
   struct stat st {};
   if (::stat(path().c_str(), &st) == 0 && st.st_dev == fileDevice_ && st.st_ino == fileInode_) {
      ::unlink(path().c_str());
   }
}

// The default directory is the agent's own, made the way a service manager
// makes a runtime directory: for the agent's user, readable by all so that
// clients reach the socket, whose own permissions then decide. A directory
// named in the environment or on the command line belongs to whoever named
// it: it is used as it is, never made.
void ControlChannel::prepareDirectory() const {
   const Kel::String& directory = location_.directory;
   if (location_.createDirectory) {
      const mode_t previousMask = ::umask(0022);
      const int rc = ::mkdir(directory.c_str(), 0755);
      const int mkdirErrno = errno;
      ::umask(previousMask);
      if (rc != 0 && mkdirErrno != EEXIST) {
         throw Kel::ErrnoException(mkdirErrno, "create the control socket directory " + directory);
      }
   }
   struct stat st {};
   if (::stat(directory.c_str(), &st) != 0) {
      if (errno == ENOENT) {
         throw Kel::Exception("control socket directory " + directory + " does not exist");
      }
      throw Kel::ErrnoException(errno, "control socket directory " + directory);
   }
   if (!S_ISDIR(st.st_mode)) {
      throw Kel::Exception("control socket directory " + directory + " is not a directory");
   }
}

// A socket file nobody reads is what an agent that died leaves behind; one
// that accepts a connection belongs to a running agent, which keeps it.
void ControlChannel::removeStaleSocket() const {
   struct stat st {};
   if (::lstat(path().c_str(), &st) != 0) {
      if (errno == ENOENT) {
         return;
      }
      throw Kel::ErrnoException(errno, "control socket " + path());
   }
   if (!S_ISSOCK(st.st_mode)) {
      throw Kel::Exception("control socket " + path() + ": the path exists and is not a socket");
   }
   const sockaddr_un addr = socketAddress(path());
   Fd probe(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
   if (probe.get() < 0) {
      throw Kel::ErrnoException(errno, "control socket");
   }
   if (::connect(probe.get(), reinterpret_cast<const sockaddr*>(&addr), sizeof addr) == 0) {
      throw Kel::Exception("control socket " + path() +
                           " is in use: another ipfix-agent serves this statistics table");
   }
   if (errno != ECONNREFUSED) {
      throw Kel::ErrnoException(errno, "control socket " + path());
   }
   if (::unlink(path().c_str()) != 0 && errno != ENOENT) {
      throw Kel::ErrnoException(errno, "remove stale control socket " + path());
   }
   KEL_TRACE(traceAgent, 3, "Replaced the stale control socket {}", path());
}

void ControlChannel::bindSocket() {
   const sockaddr_un addr = socketAddress(path());
   // The file gets the owner's permissions only, from its creation on.
   const mode_t previousMask = ::umask(0077);
   const int rc = ::bind(fd_, reinterpret_cast<const sockaddr*>(&addr), sizeof addr);
   const int bindErrno = errno;
   ::umask(previousMask);
   if (rc != 0) {
      throw Kel::ErrnoException(bindErrno, "bind control socket " + path());
   }
   struct stat st {};
   if (::stat(path().c_str(), &st) == 0) {
      fileDevice_ = st.st_dev;
      fileInode_ = st.st_ino;
   }
}

void ControlChannel::handleReadable() {
   for (int i = 0; i < maxRequestsPerTurn; ++i) {
      char buffer[Control::maxMessageLength];
      sockaddr_un from{};
      // Room for the credentials alone: file descriptors a sender attaches
      // do not fit, so the kernel closes them instead of handing them over.
      alignas(cmsghdr) char control[CMSG_SPACE(sizeof(ucred))];
      iovec data{buffer, sizeof buffer};
      msghdr msg{};
      msg.msg_name = &from;
      msg.msg_namelen = sizeof from;
      msg.msg_iov = &data;
      msg.msg_iovlen = 1;
      msg.msg_control = control;
      msg.msg_controllen = sizeof control;
      // MSG_TRUNC makes the call return the datagram's real length.
      const ssize_t n = ::recvmsg(fd_, &msg, MSG_DONTWAIT | MSG_TRUNC | MSG_CMSG_CLOEXEC);
      if (n < 0) {
         if (errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR) {
            KEL_TRACE(traceAgent, 1, "Control socket read: {}", std::strerror(errno));
         }
         return;
      }
      const std::optional<Kel::String> refused = refusal(senderCredentials(msg));
      // A request the sender cannot be told the outcome of is not done:
      // a sender without an address of its own cannot be answered.
      if (msg.msg_namelen <= sizeof(sa_family_t)) {
         KEL_TRACE(traceAgent, 1, "Control request from an unbound socket, ignored");
         continue;
      }
      Kel::String reply;
      if (refused) {
         reply = Control::errorReply(*refused);
      } else if (static_cast<std::size_t>(n) > sizeof buffer) {
         reply = Control::errorReply(
             fmt::format("request longer than {} octets", Control::maxMessageLength));
      } else {
         try {
            reply = handler_(std::string_view(buffer, static_cast<std::size_t>(n)));
         } catch (const Kel::Exception& e) {
            reply = Control::errorReply(e.what());
         }
      }
      if (::sendto(fd_, reply.data(), reply.size(), MSG_DONTWAIT | MSG_NOSIGNAL,
                   reinterpret_cast<const sockaddr*>(&from), msg.msg_namelen) < 0) {
         KEL_TRACE(traceAgent, 1, "Control reply not sent: {}", std::strerror(errno));
      }
   }
}

// Every refusal is reported: it is either a misconfiguration or someone
// trying what they may not.
std::optional<Kel::String> ControlChannel::refusal(const std::optional<ucred>& sender) const {
   if (sender && (sender->uid == ownerUid_ || sender->uid == 0)) {
      return std::nullopt;
   }
   const Kel::String who = sender ? fmt::format("uid {} (pid {})", sender->uid, sender->pid)
                                  : Kel::String("a sender without credentials");
   KEL_TRACE(traceAgent, 1, "Refused a control request from {}", who);
   std::fprintf(stderr, "ipfix-agent: refused a control request from %s\n", who.c_str());
   return fmt::format("permission denied: only uid {} and root may send requests", ownerUid_);
}

}  // namespace Agent
