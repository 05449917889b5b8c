#pragma once

#include <netinet/in.h>
#include <sys/socket.h>

#include <array>
#include <cstddef>
#include <cstring>
#include <vector>

#include "Kel/Types.h"

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
   Kel::String destinationString() const;
};

// The datagrams that the sockets of this thread were handed and have not sent
// yet. They leave in the order they were handed over, with one sendmmsg per
// run of datagrams of one socket, when the batch is full and at the end of the
// scheduler's turn. Each datagram is copied in: callers restamp one packet for
// every destination.
class TxBatch {
 public:
   static constexpr std::size_t capacity = 64;

   static TxBatch& thisThread();

   // Takes a copy of `bytes` octets at `data` as the next datagram of `owner`
   // to `address`, and sends the batch once it is full.
   void add(UdpPam& owner, const TxAddress& address, const Kel::U8* data, Kel::U32 bytes);
   // Sends every datagram waiting and counts each success and failure on its
   // socket.
   void flush();
   std::size_t size() const { return count_; }

 private:
   void flushRun(UdpPam& owner, std::size_t begin, std::size_t end);

   std::size_t count_ = 0;
   std::array<UdpPam*, capacity> owner_{};
   std::array<TxAddress, capacity> address_{};
   std::array<std::size_t, capacity> offset_{};
   std::array<iovec, capacity> iov_{};
   std::array<mmsghdr, capacity> header_{};
   std::vector<Kel::U8> octets_;
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
