#pragma once

#include <netinet/in.h>
#include <sys/socket.h>

#include <array>
#include <cstddef>
#include <cstring>

#include "Kel/Types.h"
#include "Nivel/IpfixHeader.h"
#include "Nivel/Pkt.h"

namespace Nivel {

class UdpPam;

// Where one datagram goes, and its ancillary data: a packet-info and a
// ToS/traffic-class control message of either family.
struct TxAddress {
   static constexpr std::size_t controlSpace =
       CMSG_SPACE(sizeof(in6_pktinfo)) + CMSG_SPACE(sizeof(int));

   union {
      sockaddr_in v4;
      sockaddr_in6 v6;
   } destination{};
   socklen_t destinationLength = 0;
   alignas(cmsghdr) char control[controlSpace] = {};
   std::size_t controlLength = 0;

   // Appends one control message behind those already there.
   template <class T>
   void controlAdd(int level, int type, const T& value);
};

// The datagrams that the sockets of this thread were handed and have not sent
// yet. They leave with one sendmmsg per socket, each socket's in the order
// they were handed over, when the batch is full and at the end of the
// scheduler's turn. Callers restamp one packet's message header for every
// destination, so that header is copied in; the rest is only referenced, its
// buffer held, until it is sent. A socket is used from one thread: its
// datagrams wait in that thread's batch.
class TxBatch {
 public:
   static constexpr std::size_t capacity = 64;
   // The octets at the front of a datagram that are copied when handed over.
   static constexpr Kel::U32 stampedOctets = IpfixConst::messageHeaderLen();

   static TxBatch& thisThread();

   // Takes `pkt` as the next datagram of `owner` to `address`, and sends the
   // batch once it is full.
   void add(UdpPam& owner, const TxAddress& address, const Pkt& pkt);
   // Sends every datagram waiting and counts each success and failure on its
   // socket.
   void flush();

 private:
   struct Datagram {
      UdpPam* owner = nullptr;
      TxAddress address;
      std::array<Kel::U8, stampedOctets> stamped{};
      // stamped, then the rest of the packet in its buffer.
      std::array<iovec, 2> iov{};
      Kel::Ptr<PktBuffer> buffer;
   };

   // Sends header_[begin, end), all of `owner`.
   void sendRun(UdpPam& owner, std::size_t begin, std::size_t end);

   std::size_t count_ = 0;
   std::array<Datagram, capacity> datagram_;
   // Filled at the flush, grouped by socket.
   std::array<mmsghdr, capacity> header_{};
   std::array<UdpPam*, capacity> runOwner_{};
};

template <class T>
void TxAddress::controlAdd(int level, int type, const T& value) {
   auto* at = reinterpret_cast<cmsghdr*>(control + controlLength);
   at->cmsg_level = level;
   at->cmsg_type = type;
   at->cmsg_len = CMSG_LEN(sizeof(T));
   std::memcpy(CMSG_DATA(at), &value, sizeof(T));
   controlLength += CMSG_SPACE(sizeof(T));
}

}  // namespace Nivel
