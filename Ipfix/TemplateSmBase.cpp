#include "Ipfix/TemplateSmBase.h"

#include <cstdio>
#include <cstdlib>

#include "Ipfix/CollectorStatsUpdate.h"
#include "Ipfix/FlowTrackerPktTxUtil.h"
#include "Kel/Exception.h"
#include "Kel/System.h"
#include "Kel/Trace.h"
#include "Nivel/IpfixHeader.h"

namespace FlowTracking {

namespace {

Kel::TraceHandle traceIpfix("Ipfix");

constexpr std::string_view baseClassName = "TemplateExporterSmBase";
constexpr Bexa::TaskPriority templateTaskPriority{2};
constexpr Kel::U32 headersLen =
    Nivel::IpfixConst::messageHeaderLen() + Nivel::IpfixConst::setHeaderLen();
// Traces the whole message only at this level: a hex dump is costly.
constexpr int hexDumpTraceLevel = 7;

Kel::U32 utcSeconds() {
   return static_cast<Kel::U32>(Kel::System::currentTimeUtcSeconds());
}

}  // namespace

class TemplateExporterSmBase::HwExpConfigReactor : public HwFlowTracking::ExporterConfig::Notifiee {
 public:
   HwExpConfigReactor(const Kel::Ptr<const HwFlowTracking::ExporterConfig>& c,
                      TemplateExporterSmBase* sm)
       : sm_(sm) {
      notifierIs(c);
   }
   void onCollectorIpAndPort(const Kel::String& name) override {
      sm_->handleCollectorIpAndPort(name);
   }
   void onCollectorIp6AndPort(const Kel::String& name) override {
      sm_->handleCollectorIp6AndPort(name);
   }
   void onTemplateInterval() override { sm_->handleTemplateInterval(); }
   // A source address given (or taken away) opens (or closes) its family.
   void onSrcIpAddr() override { sm_->maybeTxTemplate4_(); }
   void onSrcIp6Addr() override { sm_->maybeTxTemplate6_(); }

 private:
   TemplateExporterSmBase* sm_;
};

// A socket opened after the template was built would otherwise wait for a
// collector change: send as soon as the exporter can.
class TemplateExporterSmBase::ExpInfoReactor : public ExporterInfo::Notifiee {
 public:
   ExpInfoReactor(const Kel::Ptr<ExporterInfo>& e, TemplateExporterSmBase* sm) : sm_(sm) {
      notifierIs(e);
   }
   void onUdpPam4() override { sm_->maybeTxTemplate4_(); }
   void onUdpPam6() override { sm_->maybeTxTemplate6_(); }

 private:
   TemplateExporterSmBase* sm_;
};

TemplateExporterSmBase::TemplateExporterSmBase(
    Kel::Name ftName, Kel::Name expName, FtId ftId,
    Kel::Ptr<const HwFlowTracking::ExporterConfig> hwExpConfig, Kel::Ptr<ExporterInfo> expInfo,
    Kel::Ptr<Vorpa::Ipfix::CollectorStatistics> collStats, Kel::Ptr<Bexa::TaskScheduler> scheduler)
    : ftName_(std::move(ftName)),
      expName_(std::move(expName)),
      ftId_(ftId),
      hwExpConfig_(std::move(hwExpConfig)),
      expInfo_(std::move(expInfo)),
      collStats_(std::move(collStats)),
      scheduler_(std::move(scheduler)) {
   KEL_ASSERT(hwExpConfig_ && expInfo_ && collStats_ && scheduler_);
}

TemplateExporterSmBase::~TemplateExporterSmBase() {
   if (!deleted_) {
      std::fprintf(stderr, "TemplateExporterSmBase for %s for %s destroyed without handleDel()\n",
                   ftName_.c_str(), expName_.c_str());
      std::abort();
   }
}

void TemplateExporterSmBase::updateCollectorOnTx(const Kel::String&) {}

void TemplateExporterSmBase::traceEntry(std::string_view className,
                                        std::string_view handler) const {
   KEL_TRACE(traceIpfix, 4, "{}::{} for {} for {}", className, handler, ftName_, expName_);
}

std::unique_ptr<Bexa::Task> TemplateExporterSmBase::newTask(const Kel::String& role,
                                                            Bexa::Task::Action action) const {
   return std::make_unique<Bexa::Task>(scheduler_,
                                       taskPrefix() + "-" + role + "-" + ftName_ + "-" + expName_,
                                       templateTaskPriority, std::move(action));
}

void TemplateExporterSmBase::handleStartup() {
   traceEntry(baseClassName, "handleStartup");
   templateReady_ = false;
   periodicTemplateTxTask_ = newTask("PeriodicTxTask", [this] { handlePeriodicTemplateTx(); });
   // Collectors configured before this machine existed are served like ones
   // added later, once there is a template to send.
   for (const auto& [name, dst] : hwExpConfig_->collectorIpAndPort()) {
      collectorIpAndPort_[name] = dst;
   }
   for (const auto& [name, dst] : hwExpConfig_->collectorIp6AndPort()) {
      collectorIp6AndPort_[name] = dst;
   }
   hwExpConfigReactor_ = std::make_unique<HwExpConfigReactor>(hwExpConfig_, this);
   expInfoReactor_ = std::make_unique<ExpInfoReactor>(expInfo_, this);
}

void TemplateExporterSmBase::handleDel() {
   traceEntry(baseClassName, "handleDel");
   deleted_ = true;
   hwExpConfigReactor_.reset();
   expInfoReactor_.reset();
   stopPeriodicTemplateTx_();
   for (const auto& [name, dst] : collectorIpAndPort_) {
      statsDel(Vorpa::Ipfix::CollectorInfo::fromIpAndPort(dst));
   }
   for (const auto& [name, dst] : collectorIp6AndPort_) {
      statsDel(Vorpa::Ipfix::CollectorInfo::fromIp6AndPort(dst));
   }
   // The exporter's clear time, kept under the empty collector.
   statsDel(Vorpa::Ipfix::CollectorInfo());
}

Kel::Ptr<Nivel::Pkt> TemplateExporterSmBase::getPkt(Kel::U32 bodyLen) const {
   KEL_ASSERT(bodyLen + headersLen <= Kel::maxU16());
   auto pkt = Nivel::Pkt::pktNew(headersLen + bodyLen, headersLen);
   pkt->append(bodyLen);
   return pkt;
}

void TemplateExporterSmBase::finishMessage(const Kel::Ptr<Nivel::Pkt>& pkt,
                                           Kel::U16 templateCount) {
   templatePkt_ = pkt;
   templatePktTemplateCount_ = templateCount;
   addIpfixHeaders_();
   maybeTxTemplate_();
}

void TemplateExporterSmBase::templateReadyIs(bool ready) {
   templateReady_ = ready;
   if (!ready) {
      stopPeriodicTemplateTx_();
      sending4_ = sending6_ = false;
      templatePkt_ = nullptr;
      templatePktMsgLen_ = 0;
      templatePktTemplateCount_ = 0;
   }
}

void TemplateExporterSmBase::addIpfixHeaders_() {
   const Kel::U32 bodyLen = templatePkt_->bytes();
   templatePkt_->prepend(headersLen);
   Nivel::SetHeader set(templatePkt_, Nivel::IpfixConst::messageHeaderLen());
   set.setIdIs(headerSetId());
   set.lengthIs(static_cast<Kel::U16>(Nivel::IpfixConst::setHeaderLen() + bodyLen));
   Nivel::MessageHeader msg(templatePkt_, 0);
   msg.versionIs(Nivel::IpfixConst::version());
   msg.lengthIs(static_cast<Kel::U16>(templatePkt_->bytes()));
   msg.exportTimeIs(utcSeconds());
   msg.seqNoIs(0);
   msg.observationDomainIdIs(ftId_);
   templatePktMsgLen_ = msg.length();
   templateReady_ = true;
   KEL_TRACE(traceIpfix, hexDumpTraceLevel, "Template pkt->hexdump: {}",
             Nivel::hexDump(*templatePkt_));
}

void TemplateExporterSmBase::updateMsgHeader_(const Kel::String& collector) {
   Nivel::MessageHeader msg(templatePkt_, 0);
   msg.exportTimeIs(utcSeconds());
   // Template messages carry the collector's current number without moving it.
   const auto info = expInfo_->collInfo(collector);
   msg.seqNoIs(info ? info->ipfixMsgSeqNo().value() : 0);
}

void TemplateExporterSmBase::maybeTxTemplate_() {
   if (templateReady_) {
      maybeTxTemplate4_();
      maybeTxTemplate6_();
   }
}

void TemplateExporterSmBase::afterFamilyRound_(bool sending, bool otherSending) {
   if (sending) {
      schedulePeriodicTemplateTx_();
   } else if (!otherSending) {
      stopPeriodicTemplateTx_();
   }
}

// A family is served only while it can be served whole: an exporter that
// sent templates without a source address for its options data would report
// itself active and never send them.
void TemplateExporterSmBase::maybeTxTemplate4_() {
   sending4_ = false;
   if (templateReady_ && expInfo_->udpPam4() && !hwExpConfig_->srcIpAddr().isUnspecified()) {
      for (const auto& [name, dst] : collectorIpAndPort_) {
         doTxTemplate4_(dst, name);
         sending4_ = true;
      }
   }
   afterFamilyRound_(sending4_, sending6_);
}

void TemplateExporterSmBase::maybeTxTemplate6_() {
   sending6_ = false;
   if (templateReady_ && expInfo_->udpPam6() && !hwExpConfig_->srcIp6Addr().isUnspecified()) {
      for (const auto& [name, dst] : collectorIp6AndPort_) {
         doTxTemplate6_(dst, name);
         sending6_ = true;
      }
   }
   afterFamilyRound_(sending6_, sending4_);
}

void TemplateExporterSmBase::doTxTemplate4_(const Nivel::IpAndPort& dst,
                                            const Kel::String& collector) {
   updateMsgHeader_(collector);
   const auto& pam = expInfo_->udpPam4();
   sendPkt4(templatePkt_, pam, hwExpConfig_->srcIpAddr(), dst, hwExpConfig_->dscp());
   updateStats(Vorpa::Ipfix::CollectorInfo::fromIpAndPort(dst));
   expInfo_->rxPort4Is(pam->rxPort());
   updateCollectorOnTx(collector);
   KEL_TRACE(traceIpfix, 3, "Template sent to {}, dst ip: {}, dst port: {}, src: {}, tos : {}",
             collector, dst.ip, dst.port, hwExpConfig_->srcIpAddr(), hwExpConfig_->dscp());
}

void TemplateExporterSmBase::doTxTemplate6_(const Nivel::Ip6AndPort& dst,
                                            const Kel::String& collector) {
   updateMsgHeader_(collector);
   const auto& pam = expInfo_->udpPam6();
   sendPkt6(templatePkt_, pam, hwExpConfig_->srcIp6Addr(), dst, hwExpConfig_->dscp());
   updateStats(Vorpa::Ipfix::CollectorInfo::fromIp6AndPort(dst));
   expInfo_->rxPort6Is(pam->rxPort());
   updateCollectorOnTx(collector);
   KEL_TRACE(traceIpfix, 3, "Template sent to {}, dst ip: {}, dst port: {}, src: {}, tos : {}",
             collector, dst.ip, dst.port, hwExpConfig_->srcIp6Addr(), hwExpConfig_->dscp());
}

namespace {

// Records `collector` at `dst` in `served`, dropping the statistics kept under
// its old address when it moved. Returns false when it is no longer
// configured (and forgets it).
template <class Dst, class ToInfo, class DropStats>
bool trackCollector(std::map<Kel::String, Dst>& served,
                    const std::map<Kel::String, Dst>& configured, const Kel::String& collector,
                    ToInfo toInfo, DropStats dropStats) {
   const auto old = served.find(collector);
   const auto now = configured.find(collector);
   if (old != served.end() && (now == configured.end() || !(old->second == now->second))) {
      dropStats(toInfo(old->second));
      served.erase(old);
   }
   if (now == configured.end()) {
      return false;
   }
   served[collector] = now->second;
   return true;
}

}  // namespace

void TemplateExporterSmBase::handleCollectorIpAndPort(const Kel::String& collector) {
   KEL_TRACE(traceIpfix, 4, "TemplateExporterSmBase::handleCollectorIpAndPort for {} for {}",
             expName_, collector);
   if (!trackCollector(collectorIpAndPort_, hwExpConfig_->collectorIpAndPort(), collector,
                       Vorpa::Ipfix::CollectorInfo::fromIpAndPort,
                       [this](const auto& info) { statsDel(info); })) {
      return;
   }
   if (!sending4_) {
      maybeTxTemplate4_();
   } else {
      doTxTemplate4_(collectorIpAndPort_[collector], collector);
      schedulePeriodicTemplateTx_();
   }
}

void TemplateExporterSmBase::handleCollectorIp6AndPort(const Kel::String& collector) {
   KEL_TRACE(traceIpfix, 4, "TemplateExporterSmBase::handleCollectorIp6AndPort for {} for {}",
             expName_, collector);
   if (!trackCollector(collectorIp6AndPort_, hwExpConfig_->collectorIp6AndPort(), collector,
                       Vorpa::Ipfix::CollectorInfo::fromIp6AndPort,
                       [this](const auto& info) { statsDel(info); })) {
      return;
   }
   if (!sending6_) {
      maybeTxTemplate6_();
   } else {
      doTxTemplate6_(collectorIp6AndPort_[collector], collector);
      schedulePeriodicTemplateTx_();
   }
}

void TemplateExporterSmBase::handleTemplateInterval() {
   traceEntry(baseClassName, "handleTemplateInterval");
   stopPeriodicTemplateTx_();
   maybeTxTemplate_();
}

void TemplateExporterSmBase::handlePeriodicTemplateTx() {
   traceEntry(baseClassName, "handlePeriodicTemplateTx");
   if (!periodicTemplateTxTask_->taskCurrentlyRunning()) {
      KEL_TRACE(traceIpfix, 3, "Returning because periodicTemplateTxTask not running.");
      return;
   }
   maybeTxTemplate_();
}

void TemplateExporterSmBase::schedulePeriodicTemplateTx_() {
   if (periodicTemplateTxTask_->taskScheduled()) {
      KEL_TRACE(traceIpfix, 3, "Periodic template Tx task already scheduled");
      return;
   }
   // Whole seconds on purpose: below one second the resend is due at once.
   const Kel::Seconds interval = static_cast<Kel::Seconds>(hwExpConfig_->templateInterval() / 1000);
   periodicTemplateTxTask_->scheduleTaskLowestDelay(interval);
   KEL_TRACE(traceIpfix, 3, "Periodic template Tx task scheduled with interval: {} seconds",
             interval);
}

void TemplateExporterSmBase::stopPeriodicTemplateTx_() {
   if (periodicTemplateTxTask_) {
      periodicTemplateTxTask_->stopTask();
   }
}

void TemplateExporterSmBase::updateStats(const Vorpa::Ipfix::CollectorInfo& collector) {
   const Vorpa::Ipfix::SetCount templates[] = {
       {Vorpa::Ipfix::SetId(headerSetId()), templatePktTemplateCount_}};
   Vorpa::Ipfix::statsUpdateAfterTemplates(*collStats_, ftName_, expName_, collector,
                                           templatePktMsgLen_, templates);
}

void TemplateExporterSmBase::statsDel(const Vorpa::Ipfix::CollectorInfo& collector) {
   collStats_->statsDel(Vorpa::Ipfix::CollectorStatisticsKey(ftName_, expName_, collector));
}

}  // namespace FlowTracking
