#pragma once

#include "Nivel/UdpPam.h"

namespace FlowTracking {

// The one send path of the library: sets source, destination, port and ToS on
// the exporter's socket and transmits one finished packet. The DSCP value is
// written unchanged as the whole ToS / traffic-class byte. A failed send is
// counted by the socket; the caller carries on with the next collector.
void sendPkt4(const Kel::Ptr<Nivel::Pkt>& pkt, const Kel::Ptr<Nivel::UdpPam>& pam,
              Nivel::IpAddr srcIp, const Nivel::IpAndPort& dst, Nivel::DscpValue dscp);
void sendPkt6(const Kel::Ptr<Nivel::Pkt>& pkt, const Kel::Ptr<Nivel::UdpPam>& pam,
              const Nivel::Ip6Addr& srcIp6, const Nivel::Ip6AndPort& dst6, Nivel::DscpValue dscp);

}  // namespace FlowTracking
