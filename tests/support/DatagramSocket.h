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
   // How long receive() waits unless told otherwise: generous, so that a
   // broken peer fails the test instead of hanging it.
   static constexpr int waitLimitMs = 60'000;

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

   static sockaddr_un address(const std::string& path) {
      sockaddr_un addr{};
      addr.sun_family = AF_UNIX;
      std::strncpy(addr.sun_path, path.c_str(), sizeof addr.sun_path - 1);
      return addr;
   }
   void bindTo(const std::string& path) {
      const sockaddr_un addr = address(path);
      ASSERT_EQ(::bind(fd_, reinterpret_cast<const sockaddr*>(&addr), sizeof addr), 0)
          << std::strerror(errno);
   }
   void connectTo(const std::string& path) {
      const sockaddr_un addr = address(path);
      ASSERT_EQ(::connect(fd_, reinterpret_cast<const sockaddr*>(&addr), sizeof addr), 0)
          << std::strerror(errno);
   }
   int fd() const { return fd_; }
   void sendTo(const std::string& path, const std::string& bytes) {
      const sockaddr_un addr = address(path);
      ASSERT_EQ(::sendto(fd_, bytes.data(), bytes.size(), 0,
                         reinterpret_cast<const sockaddr*>(&addr), sizeof addr),
                static_cast<ssize_t>(bytes.size()))
          << std::strerror(errno);
   }
   // The next datagram, or nullopt when none comes within `timeoutMs`.
   std::optional<std::string> receive(int timeoutMs = waitLimitMs) {
      pollfd p{fd_, POLLIN, 0};
      if (::poll(&p, 1, timeoutMs) != 1) {
         return std::nullopt;
      }
      char buffer[4096];
      const ssize_t n = ::recv(fd_, buffer, sizeof buffer, 0);
      return n < 0 ? std::nullopt : std::optional<std::string>(std::string(buffer, n));
   }

 private:
   int fd_;
};

}  // namespace TestSupport
