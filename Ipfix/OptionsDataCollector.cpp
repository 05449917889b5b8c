#include "Ipfix/OptionsDataCollector.h"

#include "Ipfix/FlowTrackerPktTxUtil.h"
#include "Ipfix/OptionsDataExporterSm.h"
#include "Kel/Exception.h"
#include "Kel/Trace.h"

namespace FlowTracking {

namespace {

Kel::TraceHandle traceIpfix("Ipfix");

// The packet hex dump of each send is traced only at this level.
constexpr int txDumpTraceLevel = 7;

}  // namespace

Collector::Collector(Kel::Ptr<CollectorInfo> info, const Nivel::IpAndPort& dst4)
    : info_(std::move(info)), isIpv4_(true), dst4_(dst4) {}

Collector::Collector(Kel::Ptr<CollectorInfo> info, const Nivel::Ip6AndPort& dst6)
    : info_(std::move(info)), isIpv4_(false), dst6_(dst6) {}

Vorpa::Ipfix::CollectorInfo Collector::statsCollector() const {
   return isIpv4_ ? Vorpa::Ipfix::CollectorInfo::fromIpAndPort(dst4_)
                  : Vorpa::Ipfix::CollectorInfo::fromIp6AndPort(dst6_);
}

void Collector::sendMessage(const OptionsDataExporterSm& exporter,
                            const MessageWrapper& msgWrap) const {
   const Ipfix::IpfixMsgSeqNo seq = info_->ipfixMsgSeqNo();
   // RFC 7011 numbers data records, per collector.
   info_->ipfixMsgSeqNoInc(msgWrap.recordCount());
   const Kel::Ptr<Nivel::Pkt>& pkt = msgWrap.msg->pkt(seq.value(), exporter.ftId());
   const auto& config = *exporter.hwExpConfig();
   if (isIpv4_) {
      const Nivel::IpAddr src = config.srcIpAddr();
      KEL_ASSERT_TEXT(!src.isUnspecified(), "src != IpAddr::ipAddrZero()");
      const auto& pam = exporter.expInfo()->udpPam4();
      KEL_ASSERT_TEXT(pam, "_pam");
      KEL_TRACE(traceIpfix, txDumpTraceLevel, "Collector::sendMessage TX IPv4 {} => {}:{}: {}", src,
                dst4_.ip, dst4_.port, Nivel::hexDump(*pkt));
      sendPkt4(pkt, pam, src, dst4_, config.dscp());
   } else {
      const Nivel::Ip6Addr src = config.srcIp6Addr();
      KEL_ASSERT_TEXT(!src.isUnspecified(), "!src.isZero()");
      const auto& pam = exporter.expInfo()->udpPam6();
      KEL_ASSERT_TEXT(pam, "_pam");
      KEL_TRACE(traceIpfix, txDumpTraceLevel, "Collector::sendMessage TX IPv6 {} => {}:{}: {}", src,
                dst6_.ip, dst6_.port, Nivel::hexDump(*pkt));
      sendPkt6(pkt, pam, src, dst6_, config.dscp());
   }
   tally_.messageAdd(pkt->bytes(), msgWrap.setRecord);
}

void Collector::updateStats(const OptionsDataExporterSm& exporter) const {
   if (tally_.empty()) {
      return;
   }
   Vorpa::Ipfix::statsUpdateAfterOptionsData(*exporter.collStats(), exporter.ftName(),
                                             exporter.expName(), statsCollector(), tally_);
   tally_ = {};
}

}  // namespace FlowTracking
