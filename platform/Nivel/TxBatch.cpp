#include "Nivel/TxBatch.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cerrno>

#include "Kel/TurnEnd.h"
#include "Nivel/Addr.h"
#include "Nivel/UdpPam.h"

namespace Nivel {

namespace {

Kel::String destinationString(const msghdr& msg) {
   const auto* v4 = static_cast<const sockaddr_in*>(msg.msg_name);
   if (v4->sin_family == AF_INET) {
      return IpAndPort{IpAddr(ntohl(v4->sin_addr.s_addr)), ntohs(v4->sin_port)}.str();
   }
   const auto* v6 = static_cast<const sockaddr_in6*>(msg.msg_name);
   return Ip6AndPort{Ip6Addr(v6->sin6_addr), ntohs(v6->sin6_port)}.str();
}

}  // namespace

TxBatch& TxBatch::thisThread() {
   [[maybe_unused]] static const bool flushedAtTurnEnd =
       (Kel::turnEndHookIs([] { thisThread().flush(); }), true);
   thread_local TxBatch batch;
   return batch;
}

void TxBatch::add(UdpPam& owner, const TxAddress& address, const Pkt& pkt) {
   Datagram& d = datagram_[count_++];
   d.owner = &owner;
   d.address = address;
   const Kel::U32 stamped = std::min(pkt.bytes(), stampedOctets);
   std::memcpy(d.stamped.data(), pkt.data(), stamped);
   d.iov[0] = {d.stamped.data(), stamped};
   d.iov[1] = {const_cast<Kel::U8*>(pkt.data()) + stamped, pkt.bytes() - stamped};
   d.buffer = pkt.buffer();
   ++owner.queued_;
   if (count_ == capacity) {
      flush();
   }
}

void TxBatch::flush() {
   // One sendmmsg per socket: the datagrams are grouped by socket, in the
   // order each socket first appears, and keep their order within it (a
   // destination is on one socket).
   const std::size_t count = count_;
   std::array<bool, capacity> placed{};
   std::size_t k = 0;
   for (std::size_t first = 0; first < count; ++first) {
      if (placed[first]) {
         continue;
      }
      for (std::size_t i = first; i < count; ++i) {
         Datagram& d = datagram_[i];
         if (d.owner != datagram_[first].owner) {
            continue;
         }
         placed[i] = true;
         msghdr& msg = header_[k].msg_hdr;
         msg.msg_name = &d.address.destination;
         msg.msg_namelen = d.address.destinationLength;
         msg.msg_iov = d.iov.data();
         msg.msg_iovlen = d.iov.size();
         msg.msg_control = d.address.control;
         msg.msg_controllen = d.address.controlLength;
         runOwner_[k++] = d.owner;
      }
   }
   // Emptied before sending: a failure's trace must not find these again.
   count_ = 0;
   for (std::size_t begin = 0; begin < count;) {
      std::size_t end = begin + 1;
      while (end < count && runOwner_[end] == runOwner_[begin]) {
         ++end;
      }
      sendRun(*runOwner_[begin], begin, end);
      begin = end;
   }
   for (std::size_t i = 0; i < count; ++i) {
      datagram_[i].buffer = nullptr;
   }
}

void TxBatch::sendRun(UdpPam& owner, std::size_t begin, std::size_t end) {
   owner.queued_ -= end - begin;
   while (begin < end) {
      const int sent =
          ::sendmmsg(owner.fd(), &header_[begin], static_cast<unsigned>(end - begin), 0);
      if (sent < 0) {
         if (errno == EINTR) {
            continue;
         }
         // The first datagram failed; the others get their own try.
         owner.txFailed(errno, destinationString(header_[begin].msg_hdr));
         ++begin;
         continue;
      }
      for (std::size_t i = begin; i < begin + static_cast<std::size_t>(sent); ++i) {
         const iovec* iov = header_[i].msg_hdr.msg_iov;
         owner.txSent(static_cast<Kel::U32>(iov[0].iov_len + iov[1].iov_len));
      }
      begin += static_cast<std::size_t>(sent);
   }
}

}  // namespace Nivel
