#include "Ipfix/FlowTrackerPktTxUtil.h"

#include "Kel/Exception.h"

namespace FlowTracking {

void sendPkt4(const Kel::Ptr<Nivel::Pkt>& pkt, const Kel::Ptr<Nivel::UdpPam>& pam,
              Nivel::IpAddr srcIp, const Nivel::IpAndPort& dst, Nivel::DscpValue dscp) {
   KEL_ASSERT(pkt && pam);
   pam->txSrcIpAddrIs(srcIp);
   pam->txDstIpAddrIs(dst.ip);
   pam->txPortIs(dst.port);
   pam->txTosIs(dscp);
   pam->tx(*pkt);
}

void sendPkt6(const Kel::Ptr<Nivel::Pkt>& pkt, const Kel::Ptr<Nivel::UdpPam>& pam,
              const Nivel::Ip6Addr& srcIp6, const Nivel::Ip6AndPort& dst6, Nivel::DscpValue dscp) {
   KEL_ASSERT(pkt && pam);
   pam->txSrcIp6AddrIs(srcIp6);
   pam->txDstIp6AddrIs(dst6.ip);
   pam->txPortIs(dst6.port);
   pam->txTosIs(dscp);
   pam->tx(*pkt);
}

}  // namespace FlowTracking
