#pragma once

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <optional>
#include <stdexcept>
#include <string>

namespace TestSupport {

// A Unix datagram socket of this test, bound to an abstract address of its
// own unless `bound` is false; closed at the end of the scope.
class DatagramSocket {
 public:
   explicit DatagramSocket(bool bound = true)
       : fd_(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
      const sa_family_t family = AF_UNIX;
      if (fd_ < 0 ||
          (bound && ::bind(fd_, reinterpret_cast<const sockaddr*>(&family), sizeof family) != 0)) {
         throw std::runtime_error(std::string("datagram socket: ") + std::strerror(errno));
      }
   }
   ~DatagramSocket() { ::close(fd_); }
   DatagramSocket(const DatagramSocket&) = delete;
   DatagramSocket& operator=(const DatagramSocket&) = delete;

   int fd() const { return fd_; }
   void bindTo(const std::string& path) { ASSERT_EQ(at(path, ::bind), 0) << std::strerror(errno); }
   void connectTo(const std::string& path) {
      ASSERT_EQ(at(path, ::connect), 0) << std::strerror(errno);
   }
   // The next datagram, or nullopt when none comes within `timeoutMs`: the
   // default is generous, so that a broken peer fails the test, not hangs it.
   std::optional<std::string> receive(int timeoutMs = 60'000) {
      pollfd p{fd_, POLLIN, 0};
      char buffer[4096];
      const ssize_t n = ::poll(&p, 1, timeoutMs) == 1 ? ::recv(fd_, buffer, sizeof buffer, 0) : -1;
      return n < 0 ? std::nullopt : std::optional<std::string>(std::string(buffer, n));
   }

 private:
   // `call` (bind, connect) on this socket and the address of `path`.
   template <class Call>
   ssize_t at(const std::string& path, Call call) const {
      sockaddr_un addr{};
      addr.sun_family = AF_UNIX;
      std::strncpy(addr.sun_path, path.c_str(), sizeof addr.sun_path - 1);
      return call(fd_, reinterpret_cast<const sockaddr*>(&addr), sizeof addr);
   }

   int fd_;
};

}  // namespace TestSupport
