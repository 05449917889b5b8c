#include "SourceAddress.h"

#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace Agent {

namespace {

// Both families' socket addresses, as connect() and getsockname() take them.
union SocketAddress {
   sockaddr any;
   sockaddr_in v4;
   sockaddr_in6 v6;
};

SocketAddress socketAddress(const Nivel::IpGenAddr& addr, Nivel::Port port) {
   SocketAddress sa{};
   if (addr.isV4()) {
      sa.v4.sin_family = AF_INET;
      sa.v4.sin_port = htons(port);
      sa.v4.sin_addr = addr.v4().inAddr();
   } else {
      sa.v6.sin6_family = AF_INET6;
      sa.v6.sin6_port = htons(port);
      sa.v6.sin6_addr = addr.v6().in6Addr();
   }
   return sa;
}

}  // namespace

std::optional<Nivel::IpGenAddr> kernelSourceAddress(const Nivel::IpGenAddr& destination,
                                                    Nivel::Port port, Kel::String* error) {
   const SocketAddress to = socketAddress(destination, port);
   const int fd = ::socket(to.any.sa_family, SOCK_DGRAM | SOCK_CLOEXEC, 0);
   if (fd < 0) {
      *error = std::strerror(errno);
      return std::nullopt;
   }
   SocketAddress local{};
   socklen_t localLength = sizeof local;
   std::optional<Nivel::IpGenAddr> source;
   if (::connect(fd, &to.any, sizeof to) != 0 || ::getsockname(fd, &local.any, &localLength) != 0) {
      *error = std::strerror(errno);
   } else if (destination.isV4()) {
      source = Nivel::IpAddr(ntohl(local.v4.sin_addr.s_addr));
   } else {
      source = Nivel::Ip6Addr(local.v6.sin6_addr);
   }
   ::close(fd);
   return source;
}

}  // namespace Agent
