#include "Nivel/UdpPam.h"

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "Kel/Exception.h"
#include "Kel/Trace.h"
#include "Nivel/TxBatch.h"

namespace Nivel {

namespace {

Kel::TraceHandle traceNivel("Nivel");

UdpPam::Faults& faults() {
   static UdpPam::Faults instance;
   return instance;
}

int injected(const std::function<int(const UdpPam&)>& hook, const UdpPam& pam) {
   return hook ? hook(pam) : 0;
}

}  // namespace

void UdpPam::faultsIs(Faults f) {
   faults() = std::move(f);
}

Kel::Ptr<UdpPam> UdpPam::create(const Kel::Name& name) {
   return Kel::makePtr<UdpPam>(name);
}

UdpPam::UdpPam(Kel::Name name) : name_(std::move(name)) {}

UdpPam::~UdpPam() {
   close();
}

void UdpPam::txPrioIs(Kel::U32 priority) {
   txPrio_ = priority;
   if (fd_ >= 0) {
      const int value = static_cast<int>(priority);
      if (setsockopt(fd_, SOL_SOCKET, SO_PRIORITY, &value, sizeof value) != 0) {
         KEL_TRACE(traceNivel, 1, "{}: cannot set priority {}: {}", name_, priority,
                   std::strerror(errno));
      }
   }
}

void UdpPam::modeIs(int mode) {
   if (mode == 1 && fd_ < 0) {
      open();
   } else if (mode == 0) {
      close();
   }
}

void UdpPam::open() {
   if (const int err = injected(faults().open, *this)) {
      throw Kel::ErrnoException(err, "open " + name_);
   }
   const int family = ipv6En_ ? AF_INET6 : AF_INET;
   const int fd = ::socket(family, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
   if (fd < 0) {
      throw Kel::ErrnoException(errno, "socket " + name_);
   }
   const auto fail = [&](const char* what) {
      const int err = errno;
      ::close(fd);
      throw Kel::ErrnoException(err, Kel::String(what) + " " + name_);
   };
   const int one = 1;
   const int prio = static_cast<int>(txPrio_);
   if (setsockopt(fd, SOL_SOCKET, SO_PRIORITY, &prio, sizeof prio) != 0) {
      fail("priority");
   }
   sockaddr_storage local{};
   socklen_t len = 0;
   if (ipv6En_) {
      if (setsockopt(fd, IPPROTO_IPV6, IPV6_V6ONLY, &one, sizeof one) != 0) {
         fail("v6only");
      }
      auto* sin6 = reinterpret_cast<sockaddr_in6*>(&local);
      sin6->sin6_family = AF_INET6;
      sin6->sin6_addr = in6addr_any;
      len = sizeof *sin6;
   } else {
      auto* sin = reinterpret_cast<sockaddr_in*>(&local);
      sin->sin_family = AF_INET;
      sin->sin_addr.s_addr = htonl(INADDR_ANY);
      len = sizeof *sin;
   }
   if (::bind(fd, reinterpret_cast<sockaddr*>(&local), len) != 0) {
      fail("bind");
   }
   len = sizeof local;
   if (::getsockname(fd, reinterpret_cast<sockaddr*>(&local), &len) != 0) {
      fail("getsockname");
   }
   rxPort_ = ntohs(ipv6En_ ? reinterpret_cast<sockaddr_in6*>(&local)->sin6_port
                           : reinterpret_cast<sockaddr_in*>(&local)->sin_port);
   fd_ = fd;
}

void UdpPam::close() {
   // Datagrams handed over before the close still go out.
   if (queued_ > 0) {
      txFlush();
   }
   if (fd_ >= 0) {
      ::close(fd_);
      fd_ = -1;
      rxPort_ = 0;
   }
}

Kel::String UdpPam::destinationString() const {
   return ipv6En_ ? Ip6AndPort{txDstIp6Addr_, txPort_}.str()
                  : IpAndPort{txDstIpAddr_, txPort_}.str();
}

bool UdpPam::tx(const Pkt& pkt) {
   // The datagram is addressed before the fault hook runs: whatever the hook
   // does to this socket's settings (a test's hook may change configuration,
   // which sends on this socket) applies to later datagrams, not this one.
   const TxAddress address = txAddress();
   const int err = fd_ < 0 ? EBADF : injected(faults().tx, *this);
   if (err != 0) {
      txFailed(err, destinationString());
      return false;
   }
   TxBatch::thisThread().add(*this, address, pkt);
   return true;
}

void UdpPam::txFlush() {
   TxBatch::thisThread().flush();
}

TxAddress UdpPam::txAddress() const {
   TxAddress a;
   const int tos = txTos_;
   if (ipv6En_) {
      a.destination.v6.sin6_family = AF_INET6;
      a.destination.v6.sin6_addr = txDstIp6Addr_.in6Addr();
      a.destination.v6.sin6_port = htons(txPort_);
      a.destinationLength = sizeof a.destination.v6;
      if (!txSrcIp6Addr_.isUnspecified()) {
         in6_pktinfo info{};
         info.ipi6_addr = txSrcIp6Addr_.in6Addr();
         a.controlAdd(IPPROTO_IPV6, IPV6_PKTINFO, info);
      }
      a.controlAdd(IPPROTO_IPV6, IPV6_TCLASS, tos);
   } else {
      a.destination.v4.sin_family = AF_INET;
      a.destination.v4.sin_addr = txDstIpAddr_.inAddr();
      a.destination.v4.sin_port = htons(txPort_);
      a.destinationLength = sizeof a.destination.v4;
      if (!txSrcIpAddr_.isUnspecified()) {
         in_pktinfo info{};
         info.ipi_spec_dst = txSrcIpAddr_.inAddr();
         a.controlAdd(IPPROTO_IP, IP_PKTINFO, info);
      }
      a.controlAdd(IPPROTO_IP, IP_TOS, tos);
   }
   return a;
}

void UdpPam::txSent(Kel::U32 bytes) {
   ++txPkts_;
   txBytes_ += bytes;
}

void UdpPam::txFailed(int err, const Kel::String& destination) {
   ++txErrors_;
   lastTxErrno_ = err;
   KEL_TRACE(traceNivel, 1, "{}: send to {} failed: {}", name_, destination, std::strerror(err));
}

}  // namespace Nivel
