#include "Nivel/TxBatch.h"

#include <arpa/inet.h>

#include <cerrno>

#include "Kel/TurnEnd.h"
#include "Nivel/Addr.h"
#include "Nivel/UdpPam.h"

namespace Nivel {

Kel::String TxAddress::destinationString() const {
   if (destination.v4.sin_family == AF_INET) {
      return IpAndPort{IpAddr(ntohl(destination.v4.sin_addr.s_addr)),
                       ntohs(destination.v4.sin_port)}
          .str();
   }
   return Ip6AndPort{Ip6Addr(destination.v6.sin6_addr), ntohs(destination.v6.sin6_port)}.str();
}

TxBatch& TxBatch::thisThread() {
   static const bool flushedAtTurnEnd = (Kel::turnEndHookIs([] { thisThread().flush(); }), true);
   (void)flushedAtTurnEnd;
   thread_local TxBatch batch;
   return batch;
}

void TxBatch::add(UdpPam& owner, const TxAddress& address, const Kel::U8* data, Kel::U32 bytes) {
   const std::size_t i = count_++;
   owner_[i] = &owner;
   address_[i] = address;
   offset_[i] = octets_.size();
   iov_[i].iov_len = bytes;
   octets_.insert(octets_.end(), data, data + bytes);
   ++owner.queued_;
   if (count_ == capacity) {
      flush();
   }
}

void TxBatch::flush() {
   // The octets may have moved while the batch filled: point at them now.
   for (std::size_t i = 0; i < count_; ++i) {
      iov_[i].iov_base = octets_.data() + offset_[i];
      msghdr& msg = header_[i].msg_hdr;
      msg.msg_name = &address_[i].destination;
      msg.msg_namelen = address_[i].destinationLength;
      msg.msg_iov = &iov_[i];
      msg.msg_iovlen = 1;
      msg.msg_control = address_[i].control;
      msg.msg_controllen = address_[i].controlLength;
   }
   // Emptied first: a failure's trace must not find these datagrams again.
   const std::size_t count = count_;
   count_ = 0;
   for (std::size_t begin = 0; begin < count;) {
      std::size_t end = begin + 1;
      while (end < count && owner_[end] == owner_[begin]) {
         ++end;
      }
      flushRun(*owner_[begin], begin, end);
      begin = end;
   }
   octets_.clear();
}

void TxBatch::flushRun(UdpPam& owner, std::size_t begin, std::size_t end) {
   owner.queued_ -= end - begin;
   while (begin < end) {
      const int sent =
          ::sendmmsg(owner.fd(), &header_[begin], static_cast<unsigned>(end - begin), 0);
      if (sent < 0) {
         if (errno == EINTR) {
            continue;
         }
         // The first datagram failed; the others get their own try.
         owner.txFailed(errno, address_[begin].destinationString());
         ++begin;
         continue;
      }
      for (std::size_t i = begin; i < begin + static_cast<std::size_t>(sent); ++i) {
         owner.txSent(static_cast<Kel::U32>(iov_[i].iov_len));
      }
      begin += static_cast<std::size_t>(sent);
   }
}

}  // namespace Nivel
