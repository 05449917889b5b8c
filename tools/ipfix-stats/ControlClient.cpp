#include "ControlClient.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "ControlProtocol.h"

namespace IpfixStats {

namespace {

class Socket {
 public:
   Socket() : fd_(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {}
   ~Socket() {
      if (fd_ >= 0) {
         ::close(fd_);
      }
   }
   Socket(const Socket&) = delete;
   Socket& operator=(const Socket&) = delete;
   int fd() const { return fd_; }

 private:
   int fd_;
};

Exchange failed(const char* what, const Kel::String& object = {}) {
   const int error = errno;
   return {Exchange::Outcome::failed, Kel::String(what) + object + ": " + std::strerror(error)};
}

}  // namespace

Exchange exchange(const Kel::String& path, std::string_view request, int timeoutMs) {
   sockaddr_un agent{};
   agent.sun_family = AF_UNIX;
   if (path.size() >= sizeof agent.sun_path) {
      return {Exchange::Outcome::failed, "control socket path too long: " + path};
   }
   std::memcpy(agent.sun_path, path.c_str(), path.size() + 1);

   const Socket socket;
   if (socket.fd() < 0) {
      return failed("socket");
   }
   // Binding only the family asks the kernel for a unique abstract address.
   const sa_family_t family = AF_UNIX;
   if (::bind(socket.fd(), reinterpret_cast<const sockaddr*>(&family), sizeof family) != 0) {
      return failed("bind");
   }
   // Connected, the socket also takes datagrams from the agent only.
   if (::connect(socket.fd(), reinterpret_cast<const sockaddr*>(&agent), sizeof agent) != 0 ||
       ::send(socket.fd(), request.data(), request.size(), MSG_NOSIGNAL) < 0) {
      if (errno == ENOENT || errno == ECONNREFUSED) {
         return {Exchange::Outcome::noAgent, {}};
      }
      return failed("control socket ", path);
   }
   pollfd p{socket.fd(), POLLIN, 0};
   int ready;
   do {
      ready = ::poll(&p, 1, timeoutMs);
   } while (ready < 0 && errno == EINTR);
   if (ready < 0) {
      return failed("poll");
   }
   if (ready == 0) {
      return {Exchange::Outcome::noReply, {}};
   }
   char buffer[Control::maxMessageLength];
   const ssize_t n = ::recv(socket.fd(), buffer, sizeof buffer, MSG_DONTWAIT);
   if (n < 0) {
      // The agent went away between the request and the reply.
      if (errno == ECONNREFUSED) {
         return {Exchange::Outcome::noAgent, {}};
      }
      return failed("recv");
   }
   return {Exchange::Outcome::replied, Kel::String(buffer, static_cast<std::size_t>(n))};
}

}  // namespace IpfixStats
