#include "Ipfix/FlowTrackerInfoSm.h"

#include "Kel/Exception.h"
#include "Kel/Log.h"
#include "Kel/Trace.h"

namespace FlowTracking {

namespace {

Kel::TraceHandle traceIpfix("Ipfix");

constexpr Bexa::TaskPriority managementTaskPriority{2};
constexpr Kel::U32 pamTxPrio = 2;

const Kel::LogHandle exporterActiveLog("FLOWTRACKING", "EXPORTER_ACTIVE", 6,
                                       "%s exporter %s in VRF %s, in %s flow tracker %s is active.",
                                       "This exporter is ready to export packets.",
                                       Kel::LogHandle::noActionRequired, 0, 1.0, 0);

const Kel::LogHandle exporterInactiveLog(
    "FLOWTRACKING", "EXPORTER_INACTIVE", 6,
    "%s exporter %s in VRF %s, in %s flow tracker %s is inactive.",
    "This exporter is not ready to export packets.",
    "Ensure that both the local interface, and at least one collector, have been configured, and "
    "that both have valid IP addresses.",
    0, 1.0, 0);

}  // namespace

// ---------------------------------------------------------------------------
// ExporterInfoSm

class ExporterInfoSm::HwExpConfigReactor : public HwFlowTracking::ExporterConfig::Notifiee {
 public:
   HwExpConfigReactor(const Kel::Ptr<HwFlowTracking::ExporterConfig>& config, ExporterInfoSm* sm)
       : sm_(sm) {
      notifierIs(config);
   }
   void onCollectorIpAndPort(const Kel::String& name) override { sm_->handleCollector(name); }
   void onCollectorIp6AndPort(const Kel::String& name) override { sm_->handleCollector(name); }
   void onExporterResolved() override { sm_->handleExporterResolved(); }

 private:
   ExporterInfoSm* sm_;
};

class ExporterInfoSm::ExpInfoReactor : public ExporterInfo::Notifiee {
 public:
   ExpInfoReactor(const Kel::Ptr<ExporterInfo>& expInfo, ExporterInfoSm* sm) : sm_(sm) {
      notifierIs(expInfo);
   }
   void onRxPort4() override { sm_->handleRxPort4(); }
   void onRxPort6() override { sm_->handleRxPort6(); }

 private:
   ExporterInfoSm* sm_;
};

ExporterInfoSm::ExporterInfoSm(FlowTrackingType ftrType, Kel::Name ftName, Kel::Name expName,
                               Kel::Ptr<HwFlowTracking::ExporterConfig> hwExpConfig,
                               Kel::Ptr<ExporterInfo> expInfo,
                               Kel::Ptr<Bexa::TaskScheduler> scheduler,
                               Kel::Ptr<const Ipfix::AgentInfo> agentInfo)
    : ftrType_(ftrType),
      ftName_(std::move(ftName)),
      expName_(std::move(expName)),
      hwExpConfig_(std::move(hwExpConfig)),
      expInfo_(std::move(expInfo)),
      scheduler_(std::move(scheduler)),
      agentInfo_(std::move(agentInfo)),
      traceId_(ftName_ + " for " + expName_) {
   KEL_ASSERT(hwExpConfig_ && expInfo_ && scheduler_ && agentInfo_);
   hwExpConfigReactor_ = std::make_unique<HwExpConfigReactor>(hwExpConfig_, this);
   expInfoReactor_ = std::make_unique<ExpInfoReactor>(expInfo_, this);
   handleInitialized();
}

ExporterInfoSm::~ExporterInfoSm() {
   handleDestroyed();
}

void ExporterInfoSm::traceEntry(const char* handler) const {
   KEL_TRACE(traceIpfix, 4, "ExporterInfoSm::{} for {}", handler, traceId_);
}

void ExporterInfoSm::handleInitialized() {
   traceEntry("handleInitialized");
   // Sockets are opened in a task of their own, never inside the
   // configuration change that created the exporter.
   pamManagementTask_ =
       std::make_unique<Bexa::Task>(scheduler_, "PamManagementTask-" + ftName_ + "-" + expName_,
                                    managementTaskPriority, [this] { handlePamManagementTask(); });
   pamManagementTask_->scheduleTask();
   attributeIs(initialized_, true, &Notifiee::onInitialized);
}

void ExporterInfoSm::handlePamManagementTask() {
   traceEntry("handlePamManagementTask");
   if (!pamManagementTask_->taskCurrentlyRunning()) {
      KEL_TRACE(traceIpfix, 3, "Returning because pamManagementTask not running.");
      return;
   }
   handleCollector();
   createPam4();
   createPam6();
}

namespace {

// Opens a new socket for one address family of an exporter. A failure to
// open is traced and rethrown; the socket is then not kept.
Kel::Ptr<Nivel::UdpPam> openPam(const Kel::Name& name, bool ipv6) {
   auto pam = Nivel::UdpPam::create(name);
   pam->ipv6EnIs(ipv6);
   pam->txPrioIs(pamTxPrio);
   try {
      pam->modeIs(1);
   } catch (Kel::ErrnoException& e) {
      KEL_TRACE(traceIpfix, 1, "Caught ErrnoException: {}", e.what());
      e.reportedIs(true);
      throw;
   }
   KEL_TRACE(traceIpfix, 3, "Created Pam: {}, txPrio: {}, fd: {}", name, pam->txPrio(), pam->fd());
   return pam;
}

}  // namespace

void ExporterInfoSm::createPam4() {
   traceEntry("createPam4");
   expInfo_->udpPam4Is(openPam("udpPam4-" + ftName_ + "-" + expName_, false));
}

void ExporterInfoSm::createPam6() {
   traceEntry("createPam6");
   expInfo_->udpPam6Is(openPam("udpPam6-" + ftName_ + "-" + expName_, true));
}

void ExporterInfoSm::handleCollector(const Kel::String& name) {
   KEL_TRACE(traceIpfix, 4, "ExporterInfoSm::handleCollector for {} for, collector: {}", traceId_,
             name);
   if (!hwExpConfig_->collectorIpAndPort().contains(name) &&
       !hwExpConfig_->collectorIp6AndPort().contains(name)) {
      expInfo_->collInfoDel(name);
      return;
   }
   if (const auto existing = expInfo_->collInfo(name)) {
      // A changed address under the same name keeps its sequence running.
      KEL_TRACE(traceIpfix, 3, "Using existing collectorInfo for {}, seqNo: {}", name,
                existing->ipfixMsgSeqNo());
      return;
   }
   KEL_TRACE(traceIpfix, 3, "Initiated sequence number for {}", name);
   expInfo_->collInfoIs(name);
}

void ExporterInfoSm::handleCollector() {
   traceEntry("handleCollector");
   for (const auto& [name, dst] : hwExpConfig_->collectorIpAndPort()) {
      handleCollector(name);
   }
   for (const auto& [name, dst] : hwExpConfig_->collectorIp6AndPort()) {
      if (!hwExpConfig_->collectorIpAndPort().contains(name)) {
         handleCollector(name);
      }
   }
}

void ExporterInfoSm::handleRxPort(bool ipv6) {
   if (!agentInfo_->multiThreaded()) {
      const auto& pam = ipv6 ? expInfo_->udpPam6() : expInfo_->udpPam4();
      const Nivel::Port known = ipv6 ? expInfo_->rxPort6() : expInfo_->rxPort4();
      const Nivel::Port port = pam && known != 0 ? known : 0;
      ipv6 ? hwExpConfig_->rxPort6Is(port) : hwExpConfig_->rxPort4Is(port);
   }
   handleExporterResolved();
}

void ExporterInfoSm::handleRxPort4() {
   traceEntry("handleRxPort4");
   handleRxPort(false);
}

void ExporterInfoSm::handleRxPort6() {
   traceEntry("handleRxPort6");
   handleRxPort(true);
}

void ExporterInfoSm::handleExporterResolved() {
   traceEntry("handleExporterResolved");
   const bool resolved = hwExpConfig_->exporterResolved();
   const bool multiThreaded = agentInfo_->multiThreaded();
   KEL_TRACE(traceIpfix, 3,
             "exporterResolved: {}, rxPort4: {}, pam4 exists: {}, rxPort6: {}, pam6 exists: {}, "
             "multiThreaded: {}",
             resolved, expInfo_->rxPort4(), bool(expInfo_->udpPam4()), expInfo_->rxPort6(),
             bool(expInfo_->udpPam6()), multiThreaded);
   const bool ready4 = resolved && expInfo_->udpPam4() && expInfo_->rxPort4() != 0;
   const bool ready6 = resolved && expInfo_->udpPam6() && expInfo_->rxPort6() != 0;
   if (!multiThreaded) {
      hwExpConfig_->exporter4ReadyIs(ready4);
      hwExpConfig_->exporter6ReadyIs(ready6);
   }
   const bool active = ready4 || ready6;
   if (active == expActiveLogged_) {
      return;
   }
   const Kel::String type = trackingTypeString(ftrType_);
   (active ? exporterActiveLog : exporterInactiveLog)
       .log({"IPFIX", expName_, hwExpConfig_->vrfName(), type, ftName_});
   expActiveLogged_ = active;
}

void ExporterInfoSm::handleDestroyed() {
   if (destroyed_) {
      return;
   }
   destroyed_ = true;
   traceEntry("handleDestroyed");
   if (const auto pam = expInfo_->udpPam4()) {
      pam->modeIs(0);
      expInfo_->udpPam4Is(nullptr);
   }
   if (const auto pam = expInfo_->udpPam6()) {
      pam->modeIs(0);
      expInfo_->udpPam6Is(nullptr);
   }
   expInfo_->collInfoDelAll();
   hwExpConfig_->rxPort4Is(0);
   hwExpConfig_->exporter4ReadyIs(false);
   hwExpConfig_->rxPort6Is(0);
   hwExpConfig_->exporter6ReadyIs(false);
   // A management task that has not run yet must never run for a deleted
   // exporter.
   hwExpConfigReactor_.reset();
   expInfoReactor_.reset();
   pamManagementTask_.reset();
}

// ---------------------------------------------------------------------------
// FlowTrackerInfoSm

class FlowTrackerInfoSm::HwFtConfigReactor : public HwFlowTracking::FtConfig::Notifiee {
 public:
   HwFtConfigReactor(const Kel::Ptr<HwFlowTracking::FtConfig>& config, FlowTrackerInfoSm* sm)
       : sm_(sm) {
      notifierIs(config);
   }
   void onExpConfig(const Kel::Name& name) override { sm_->handleHwExpConfig(name); }

 private:
   FlowTrackerInfoSm* sm_;
};

FlowTrackerInfoSm::FlowTrackerInfoSm(FlowTrackingType ftrType, Kel::Name ftName,
                                     Kel::Ptr<HwFlowTracking::FtConfig> hwFtConfig,
                                     Kel::Ptr<FlowTrackerInfo> ftInfo,
                                     Kel::Ptr<Bexa::TaskScheduler> scheduler,
                                     Kel::Ptr<const Ipfix::AgentInfo> agentInfo)
    : ftrType_(ftrType),
      ftName_(std::move(ftName)),
      hwFtConfig_(std::move(hwFtConfig)),
      ftInfo_(std::move(ftInfo)),
      scheduler_(std::move(scheduler)),
      agentInfo_(std::move(agentInfo)) {
   KEL_ASSERT(ftInfo_ && scheduler_ && agentInfo_);
   if (hwFtConfig_) {
      hwFtConfigReactor_ = std::make_unique<HwFtConfigReactor>(hwFtConfig_, this);
   }
   handleInitialized();
}

FlowTrackerInfoSm::~FlowTrackerInfoSm() {
   handleDestroyed();
}

void FlowTrackerInfoSm::handleInitialized() {
   KEL_TRACE(traceIpfix, 4, "FlowTrackerInfoSm::handleInitialized for {}", ftName_);
   if (hwFtConfig_) {
      for (const auto& [name, config] : hwFtConfig_->expConfig()) {
         handleHwExpConfig(name);
      }
   }
   attributeIs(initialized_, true, &Notifiee::onInitialized);
}

void FlowTrackerInfoSm::handleHwExpConfig(const Kel::Name& name) {
   KEL_TRACE(traceIpfix, 4, "FlowTrackerInfoSm::handleHwExpConfig for {} for {}", ftName_, name);
   if (const auto config = hwFtConfig_ ? hwFtConfig_->expConfig(name) : nullptr) {
      const auto expInfo = ftInfo_->expInfoIs(name);
      expInfoSmIs(ftrType_, ftName_, name, config, expInfo, scheduler_, agentInfo_);
      KEL_TRACE(traceIpfix, 3, "Created ExporterInfoSm for {}", name);
   } else {
      // The machine goes first: its destruction still needs the record to
      // close the sockets and drop the collectors.
      expInfoSmDel(name);
      ftInfo_->expInfoDel(name);
      KEL_TRACE(traceIpfix, 3, "Deleted ExporterInfoSm for {}", name);
   }
}

Kel::Ptr<ExporterInfoSm> FlowTrackerInfoSm::expInfoSmIs(
    FlowTrackingType ftrType, const Kel::Name& ftName, const Kel::Name& expName,
    const Kel::Ptr<HwFlowTracking::ExporterConfig>& hwExpConfig,
    const Kel::Ptr<ExporterInfo>& expInfo, const Kel::Ptr<Bexa::TaskScheduler>& scheduler,
    const Kel::Ptr<const Ipfix::AgentInfo>& agentInfo) {
   if (const auto existing = expInfoSm(expName)) {
      Kel::checkConstructorParam("ftrType", ftrType, existing->ftrType());
      Kel::checkConstructorParam("hwExpConfig", hwExpConfig, existing->hwExpConfig());
      Kel::checkConstructorParam("expInfo", expInfo, existing->expInfo());
      Kel::checkConstructorParam("scheduler", scheduler, existing->scheduler());
      Kel::checkConstructorParam("agentInfo", agentInfo, existing->agentInfo());
      Kel::checkConstructorParam("ftName", ftName, existing->ftName());
      return existing;
   }
   return entryFindOrCreate(
       expInfoSm_, expName,
       [&] {
          return exporterInfoSmFactory(ftrType, ftName, expName, hwExpConfig, expInfo, scheduler,
                                       agentInfo);
       },
       &Notifiee::onExpInfoSm);
}

void FlowTrackerInfoSm::expInfoSmDel(const Kel::Name& name) {
   if (const auto sm = expInfoSm(name)) {
      sm->handleDestroyed();
      entryDel(expInfoSm_, name, &Notifiee::onExpInfoSm);
   }
}

void FlowTrackerInfoSm::expInfoSmDelAll() {
   while (!expInfoSm_.empty()) {
      expInfoSmDel(expInfoSm_.begin()->first);
   }
}

void FlowTrackerInfoSm::handleDestroyed() {
   if (destroyed_) {
      return;
   }
   destroyed_ = true;
   hwFtConfigReactor_.reset();
   expInfoSmDelAll();
}

// ---------------------------------------------------------------------------
// FlowTrackingInfoSm

class FlowTrackingInfoSm::HwConfigReactor : public HwFlowTracking::Config::Notifiee {
 public:
   HwConfigReactor(const Kel::Ptr<HwFlowTracking::Config>& config, FlowTrackingInfoSm* sm)
       : sm_(sm) {
      notifierIs(config);
   }
   void onHwFtConfig(const Kel::Name& name) override { sm_->handleHwFtConfig(name); }

 private:
   FlowTrackingInfoSm* sm_;
};

FlowTrackingInfoSm::FlowTrackingInfoSm(Kel::Ptr<Bexa::TaskSchedulerRoot> schedulerRoot,
                                       Kel::Ptr<HwFlowTracking::Config> hwConfig,
                                       Kel::Ptr<FlowTrackingInfo> flowTrackingInfo,
                                       Kel::Ptr<const Ipfix::AgentInfo> agentInfo)
    : schedulerRoot_(std::move(schedulerRoot)),
      hwConfig_(std::move(hwConfig)),
      flowTrackingInfo_(std::move(flowTrackingInfo)),
      agentInfo_(std::move(agentInfo)) {
   KEL_ASSERT(schedulerRoot_ && flowTrackingInfo_ && agentInfo_);
   if (hwConfig_) {
      hwConfigReactor_ = std::make_unique<HwConfigReactor>(hwConfig_, this);
   }
   handleInitialized();
}

FlowTrackingInfoSm::~FlowTrackingInfoSm() {
   hwConfigReactor_.reset();
   ftInfoSmDelAll();
}

void FlowTrackingInfoSm::handleInitialized() {
   KEL_TRACE(traceIpfix, 4, "FlowTrackingInfoSm::handleInitialized");
   if (hwConfig_) {
      for (const auto& [name, config] : hwConfig_->hwFtConfig()) {
         handleHwFtConfig(name);
      }
   }
   attributeIs(initialized_, true, &Notifiee::onInitialized);
}

void FlowTrackingInfoSm::handleHwFtConfig(const Kel::Name& name) {
   KEL_TRACE(traceIpfix, 4, "FlowTrackingInfoSm::handleHwFtConfig for {}", name);
   if (const auto config = hwConfig_ ? hwConfig_->hwFtConfig(name) : nullptr) {
      const auto ftInfo = flowTrackingInfo_->ftInfoIs(name);
      ftInfoSmIs(flowTrackingInfo_->flowTrackingType(), name, config, ftInfo, schedulerRoot_,
                 agentInfo_);
      KEL_TRACE(traceIpfix, 3, "Created FlowTrackerInfoSm for {}", name);
   } else {
      ftInfoSmDel(name);
      if (const auto ftInfo = flowTrackingInfo_->ftInfo(name)) {
         ftInfo->expInfoDelAll();
      }
      flowTrackingInfo_->ftInfoDel(name);
      KEL_TRACE(traceIpfix, 3, "Deleted FlowTrackerInfoSm for {}", name);
   }
}

Kel::Ptr<FlowTrackerInfoSm> FlowTrackingInfoSm::ftInfoSmIs(
    FlowTrackingType ftrType, const Kel::Name& name,
    const Kel::Ptr<HwFlowTracking::FtConfig>& hwFtConfig, const Kel::Ptr<FlowTrackerInfo>& ftInfo,
    const Kel::Ptr<Bexa::TaskScheduler>& scheduler,
    const Kel::Ptr<const Ipfix::AgentInfo>& agentInfo) {
   if (const auto existing = ftInfoSm(name)) {
      Kel::checkConstructorParam("ftrType", ftrType, existing->ftrType());
      Kel::checkConstructorParam("hwFtConfig", hwFtConfig, existing->hwFtConfig());
      Kel::checkConstructorParam("ftInfo", ftInfo, existing->ftInfo());
      Kel::checkConstructorParam("scheduler", scheduler, existing->scheduler());
      Kel::checkConstructorParam("agentInfo", agentInfo, existing->agentInfo());
      return existing;
   }
   return entryFindOrCreate(
       ftInfoSm_, name,
       [&] {
          return flowTrackerInfoSmFactory(ftrType, name, hwFtConfig, ftInfo, scheduler, agentInfo);
       },
       &Notifiee::onFtInfoSm);
}

void FlowTrackingInfoSm::ftInfoSmDel(const Kel::Name& name) {
   if (const auto sm = ftInfoSm(name)) {
      sm->handleDestroyed();
      entryDel(ftInfoSm_, name, &Notifiee::onFtInfoSm);
   }
}

void FlowTrackingInfoSm::ftInfoSmDelAll() {
   while (!ftInfoSm_.empty()) {
      ftInfoSmDel(ftInfoSm_.begin()->first);
   }
}

// ---------------------------------------------------------------------------
// Factories

Kel::Ptr<FlowTrackingInfoSm> flowTrackingInfoSmFactory(
    const Kel::Ptr<Bexa::TaskSchedulerRoot>& schedulerRoot,
    const Kel::Ptr<HwFlowTracking::Config>& hwConfig,
    const Kel::Ptr<FlowTrackingInfo>& flowTrackingInfo,
    const Kel::Ptr<const Ipfix::AgentInfo>& agentInfo) {
   return Kel::makeActive<FlowTrackingInfoSm>(schedulerRoot, hwConfig, flowTrackingInfo, agentInfo);
}

Kel::Ptr<FlowTrackerInfoSm> flowTrackerInfoSmFactory(
    FlowTrackingType ftrType, const Kel::Name& ftName,
    const Kel::Ptr<HwFlowTracking::FtConfig>& hwFtConfig, const Kel::Ptr<FlowTrackerInfo>& ftInfo,
    const Kel::Ptr<Bexa::TaskScheduler>& scheduler,
    const Kel::Ptr<const Ipfix::AgentInfo>& agentInfo) {
   return Kel::makeActive<FlowTrackerInfoSm>(ftrType, ftName, hwFtConfig, ftInfo, scheduler,
                                             agentInfo);
}

Kel::Ptr<ExporterInfoSm> exporterInfoSmFactory(
    FlowTrackingType ftrType, const Kel::Name& ftName, const Kel::Name& expName,
    const Kel::Ptr<HwFlowTracking::ExporterConfig>& hwExpConfig,
    const Kel::Ptr<ExporterInfo>& expInfo, const Kel::Ptr<Bexa::TaskScheduler>& scheduler,
    const Kel::Ptr<const Ipfix::AgentInfo>& agentInfo) {
   return Kel::makeActive<ExporterInfoSm>(ftrType, ftName, expName, hwExpConfig, expInfo, scheduler,
                                          agentInfo);
}

}  // namespace FlowTracking
