#pragma once

#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <optional>
#include <stdexcept>
#include <vector>

#include "Nivel/Addr.h"

namespace TestSupport {

// One datagram as a collector sees it.
struct Datagram {
   std::vector<Kel::U8> payload;
   Nivel::IpGenAddr source;
   Nivel::Port sourcePort = 0;
   int tos = -1;  // IPv4 ToS or IPv6 traffic class
};

// A collector's socket on loopback (127.0.0.1 or ::1) with an ephemeral port,
// reporting each datagram's source and ToS / traffic class. Reads never
// block: tests run the sender first, then drain what arrived.
class UdpReceiver {
 public:
   explicit UdpReceiver(bool ipv6) : ipv6_(ipv6) {
      fd_ = ::socket(ipv6 ? AF_INET6 : AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
      const int one = 1;
      const int big = 4 << 20;
      setsockopt(fd_, SOL_SOCKET, SO_RCVBUF, &big, sizeof big);
      sockaddr_storage addr{};
      socklen_t len;
      if (ipv6) {
         setsockopt(fd_, IPPROTO_IPV6, IPV6_RECVTCLASS, &one, sizeof one);
         auto* sin6 = reinterpret_cast<sockaddr_in6*>(&addr);
         sin6->sin6_family = AF_INET6;
         sin6->sin6_addr = in6addr_loopback;
         len = sizeof *sin6;
      } else {
         setsockopt(fd_, IPPROTO_IP, IP_RECVTOS, &one, sizeof one);
         auto* sin = reinterpret_cast<sockaddr_in*>(&addr);
         sin->sin_family = AF_INET;
         sin->sin_addr.s_addr = htonl(INADDR_LOOPBACK);
         len = sizeof *sin;
      }
      if (fd_ < 0 || ::bind(fd_, reinterpret_cast<sockaddr*>(&addr), len) != 0 ||
          ::getsockname(fd_, reinterpret_cast<sockaddr*>(&addr), &len) != 0) {
         throw std::runtime_error("cannot open test receiver");
      }
      port_ = ntohs(ipv6 ? reinterpret_cast<sockaddr_in6*>(&addr)->sin6_port
                         : reinterpret_cast<sockaddr_in*>(&addr)->sin_port);
   }
   ~UdpReceiver() { ::close(fd_); }
   UdpReceiver(const UdpReceiver&) = delete;
   UdpReceiver& operator=(const UdpReceiver&) = delete;

   Nivel::Port port() const { return port_; }
   Nivel::IpAndPort ipAndPort() const { return {Nivel::IpAddr(INADDR_LOOPBACK), port_}; }
   Nivel::Ip6AndPort ip6AndPort() const { return {*Nivel::Ip6Addr::parse("::1"), port_}; }

   // The next datagram already queued, or nullopt.
   std::optional<Datagram> receive() {
      pollfd p{fd_, POLLIN, 0};
      if (::poll(&p, 1, 0) != 1) {
         return std::nullopt;
      }
      Datagram d;
      d.payload.resize(65536);
      sockaddr_storage src{};
      alignas(cmsghdr) char control[256];
      iovec iov{d.payload.data(), d.payload.size()};
      msghdr msg{};
      msg.msg_name = &src;
      msg.msg_namelen = sizeof src;
      msg.msg_iov = &iov;
      msg.msg_iovlen = 1;
      msg.msg_control = control;
      msg.msg_controllen = sizeof control;
      const ssize_t n = ::recvmsg(fd_, &msg, MSG_DONTWAIT);
      if (n < 0) {
         return std::nullopt;
      }
      d.payload.resize(static_cast<std::size_t>(n));
      for (cmsghdr* c = CMSG_FIRSTHDR(&msg); c; c = CMSG_NXTHDR(&msg, c)) {
         if ((c->cmsg_level == IPPROTO_IP && c->cmsg_type == IP_TOS)) {
            d.tos = *reinterpret_cast<const Kel::U8*>(CMSG_DATA(c));
         } else if (c->cmsg_level == IPPROTO_IPV6 && c->cmsg_type == IPV6_TCLASS) {
            d.tos = *reinterpret_cast<const int*>(CMSG_DATA(c));
         }
      }
      if (ipv6_) {
         const auto* sin6 = reinterpret_cast<const sockaddr_in6*>(&src);
         d.source = Nivel::Ip6Addr(sin6->sin6_addr);
         d.sourcePort = ntohs(sin6->sin6_port);
      } else {
         const auto* sin = reinterpret_cast<const sockaddr_in*>(&src);
         d.source = Nivel::IpAddr(ntohl(sin->sin_addr.s_addr));
         d.sourcePort = ntohs(sin->sin_port);
      }
      return d;
   }

   // For a peer in another process, which runs in real time: waits up to
   // `timeoutMs` for the next datagram.
   std::optional<Datagram> receiveWithin(int timeoutMs) {
      pollfd p{fd_, POLLIN, 0};
      if (::poll(&p, 1, timeoutMs) != 1) {
         return std::nullopt;
      }
      return receive();
   }

   std::vector<Datagram> receiveAll() {
      std::vector<Datagram> all;
      while (auto d = receive()) {
         all.push_back(std::move(*d));
      }
      return all;
   }

 private:
   bool ipv6_;
   int fd_ = -1;
   Nivel::Port port_ = 0;
};

}  // namespace TestSupport
