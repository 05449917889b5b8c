#pragma once

#include <functional>

#include "Kel/Ptr.h"
#include "Nivel/Addr.h"
#include "Nivel/Pkt.h"
#include "Nivel/TxBatch.h"

namespace Nivel {

// A UDP socket that sends finished packets to one destination at a time, from
// a chosen source address and with a chosen ToS / traffic class, both carried
// as ancillary data of each send. It binds an ephemeral local port when
// opened. Sends are batched: a packet handed over goes out with the others of
// the thread at the end of the scheduler's turn (or once a batch is full, or
// at txFlush()), in the order handed over. A failed send is counted and
// traced, never thrown: one unreachable collector must not stop the sends to
// the others.
class UdpPam : public Kel::PtrInterface {
 public:
   // Test seams: each hook returns the errno value to fail the operation with,
   // or 0 to let it proceed.
   struct Faults {
      std::function<int(const UdpPam&)> open;
      std::function<int(const UdpPam&)> tx;
   };
   static void faultsIs(Faults faults);

   // A new, closed socket named `name`.
   static Kel::Ptr<UdpPam> create(const Kel::Name& name);

   explicit UdpPam(Kel::Name name);
   ~UdpPam() override;

   const Kel::Name& name() const { return name_; }
   bool ipv6En() const { return ipv6En_; }
   // Chooses the family; takes effect at the next open.
   void ipv6EnIs(bool enabled) { ipv6En_ = enabled; }
   // Socket priority (traffic-control class) of the packets sent.
   Kel::U32 txPrio() const { return txPrio_; }
   void txPrioIs(Kel::U32 priority);

   // 1: open and bind (throws Kel::ErrnoException on failure, leaving it
   // closed); 0: close.
   int mode() const { return fd_ >= 0 ? 1 : 0; }
   void modeIs(int mode);
   int fd() const { return fd_; }
   // The bound local port; 0 while closed.
   Port rxPort() const { return rxPort_; }

   void txSrcIpAddrIs(IpAddr a) { txSrcIpAddr_ = a; }
   void txSrcIp6AddrIs(const Ip6Addr& a) { txSrcIp6Addr_ = a; }
   void txDstIpAddrIs(IpAddr a) { txDstIpAddr_ = a; }
   void txDstIp6AddrIs(const Ip6Addr& a) { txDstIp6Addr_ = a; }
   void txPortIs(Port p) { txPort_ = p; }
   void txTosIs(DscpValue tos) { txTos_ = tos; }
   IpAddr txSrcIpAddr() const { return txSrcIpAddr_; }
   const Ip6Addr& txSrcIp6Addr() const { return txSrcIp6Addr_; }
   IpAddr txDstIpAddr() const { return txDstIpAddr_; }
   const Ip6Addr& txDstIp6Addr() const { return txDstIp6Addr_; }
   Port txPort() const { return txPort_; }
   DscpValue txTos() const { return txTos_; }

   // Hands the packet's data over for the current destination. Its first
   // TxBatch::stampedOctets (the message header, stamped per destination) are
   // copied now; the rest must stay as it is until the turn ends. False when
   // it cannot be handed over (the socket is closed); a send that fails later
   // is counted then. Failures are counted in txErrors, with errno kept in
   // lastTxErrno; txPkts and txBytes count what was sent.
   bool tx(const Pkt& pkt);
   // Sends what the sockets of this thread were handed, now.
   static void txFlush();

   Kel::U64 txPkts() const { return txPkts_; }
   Kel::U64 txBytes() const { return txBytes_; }
   Kel::U64 txErrors() const { return txErrors_; }
   int lastTxErrno() const { return lastTxErrno_; }

 private:
   friend class TxBatch;

   void open();
   void close();
   TxAddress txAddress() const;
   Kel::String destinationString() const;
   void txSent(Kel::U32 bytes);
   void txFailed(int err, const Kel::String& destination);

   Kel::Name name_;
   bool ipv6En_ = false;
   Kel::U32 txPrio_ = 0;
   int fd_ = -1;
   Port rxPort_ = 0;

   IpAddr txSrcIpAddr_;
   Ip6Addr txSrcIp6Addr_;
   IpAddr txDstIpAddr_;
   Ip6Addr txDstIp6Addr_;
   Port txPort_ = 0;
   DscpValue txTos_ = 0;

   Kel::U64 txPkts_ = 0;
   Kel::U64 txBytes_ = 0;
   Kel::U64 txErrors_ = 0;
   int lastTxErrno_ = 0;
   // Datagrams of this socket waiting in the thread's batch.
   std::size_t queued_ = 0;
};

}  // namespace Nivel
