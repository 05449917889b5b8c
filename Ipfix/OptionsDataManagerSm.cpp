#include "Ipfix/OptionsDataManagerSm.h"

#include "FlowTracking/Constants.h"
#include "Kel/Trace.h"

namespace FlowTracking {

namespace {

Kel::TraceHandle traceIpfix("Ipfix");

}  // namespace

// ---------------------------------------------------------------------------
// FtOptionsDataManagerSm

class FtOptionsDataManagerSm::FtConfigReactor : public HwFlowTracking::FtConfig::Notifiee {
 public:
   FtConfigReactor(const Kel::Ptr<const HwFlowTracking::FtConfig>& c, FtOptionsDataManagerSm* sm)
       : sm_(sm) {
      notifierIs(c);
   }
   void onExpConfig(const Kel::Name& name) override { sm_->handleExpConfig(name); }

 private:
   FtOptionsDataManagerSm* sm_;
};

class FtOptionsDataManagerSm::FlowTrackerInfoReactor : public FlowTrackerInfo::Notifiee {
 public:
   FlowTrackerInfoReactor(const Kel::Ptr<FlowTrackerInfo>& i, FtOptionsDataManagerSm* sm)
       : sm_(sm) {
      notifierIs(i);
   }
   void onExpInfo(const Kel::Name& name) override { sm_->handleExpConfig(name); }

 private:
   FtOptionsDataManagerSm* sm_;
};

FtOptionsDataManagerSm::FtOptionsDataManagerSm(
    Kel::String ftName, FtId ftId, Kel::Ptr<const HwFlowTracking::Config> hwConfig,
    Kel::Ptr<const HwFlowTracking::Status> hwStatus,
    Kel::Ptr<const HwFlowTracking::FtConfig> hwFtConfig,
    Kel::Ptr<const HwFlowTracking::FtStatus> hwFtStatus, Kel::Ptr<FlowTrackerInfo> flowTrackerInfo,
    FlowTrackingType flowTrackingType, Kel::Ptr<Vorpa::Ipfix::CollectorStatistics> collStats,
    Kel::Ptr<OptionsDataContainer> dataContainer, Kel::Ptr<Bexa::TaskScheduler> scheduler)
    : ftName_(std::move(ftName)),
      ftId_(ftId),
      hwConfig_(std::move(hwConfig)),
      hwStatus_(std::move(hwStatus)),
      hwFtConfig_(std::move(hwFtConfig)),
      hwFtStatus_(std::move(hwFtStatus)),
      flowTrackerInfo_(std::move(flowTrackerInfo)),
      flowTrackingType_(flowTrackingType),
      collStats_(std::move(collStats)),
      dataContainer_(std::move(dataContainer)),
      scheduler_(std::move(scheduler)) {
   KEL_ASSERT(hwConfig_ && hwStatus_ && hwFtConfig_ && hwFtStatus_ && flowTrackerInfo_ &&
              collStats_ && dataContainer_ && scheduler_);
   handleInitialized();
}

// Exporters go first: they treat a source that disappears under them as a
// bug. The sources go with the machines that fill them.
FtOptionsDataManagerSm::~FtOptionsDataManagerSm() {
   ftConfigReactor_.reset();
   flowTrackerInfoReactor_.reset();
   while (!exporterSm_.empty()) {
      exporterSmDel(exporterSm_.begin()->first);
   }
   flowKeySm_ = nullptr;
   flowTrackerTableSm_ = nullptr;
   if (const auto data = trackerData()) {
      data->sourceDel(sourceName("FlowKey"));
      data->sourceDel(sourceName("FlowTrackerTable"));
   }
   KEL_TRACE(traceIpfix, 3, "Deleted FlowKeySm for {}", ftName_);
   KEL_TRACE(traceIpfix, 3, "Deleted FlowTrackerTableSm for {}", ftName_);
}

Kel::Ptr<OptionsDataSourceColl> FtOptionsDataManagerSm::trackerData() const {
   return dataContainer_->data(OptionsDataScope::scopeTracker);
}

Kel::Ptr<OptionsDataUpdate> FtOptionsDataManagerSm::trackerUpdate() const {
   return dataContainer_->update(OptionsDataScope::scopeTracker);
}

void FtOptionsDataManagerSm::handleInitialized() {
   KEL_TRACE(traceIpfix, 4, "FtOptionsDataManagerSm::handleInitialized for {}", ftName_);
   initFlowKeySm();
   initFlowTrackerTableSm();
   initialized_ = true;
   ftConfigReactor_ = std::make_unique<FtConfigReactor>(hwFtConfig_, this);
   flowTrackerInfoReactor_ = std::make_unique<FlowTrackerInfoReactor>(flowTrackerInfo_, this);
   for (const auto& [name, config] : hwFtConfig_->expConfig()) {
      handleExpConfig(name);
   }
}

void FtOptionsDataManagerSm::initFlowKeySm() {
   const auto data = trackerData();
   KEL_ASSERT(data);
   const auto source = data->sourceIs(sourceName("FlowKey"), FlowKeySm::setId());
   flowKeySm_ = Kel::makePtr<FlowKeySm>(source, trackerUpdate(), hwFtStatus_);
   KEL_TRACE(traceIpfix, 3, "Created FlowKeySm for {}", ftName_);
}

void FtOptionsDataManagerSm::initFlowTrackerTableSm() {
   const auto data = trackerData();
   KEL_ASSERT(data);
   const auto source =
       data->sourceIs(sourceName("FlowTrackerTable"),
                      Constants::reservedTemplateId(StaticTemplateId::flowTrackerTable));
   flowTrackerTableSm_ = Kel::makePtr<FlowTrackerTableSm>(
       source, trackerUpdate(), hwStatus_, hwFtConfig_, hwFtStatus_, flowTrackingType_, scheduler_);
   flowTrackerTableSm_->setIdValIs(source->dataSetId());
   flowTrackerTableSm_->handleInitialized();
   KEL_TRACE(traceIpfix, 3, "Created FlowTrackerTableSm for {}", ftName_);
}

void FtOptionsDataManagerSm::handleExpConfig(const Kel::Name& expName) {
   KEL_TRACE(traceIpfix, 4, "FtOptionsDataManagerSm::handleExpConfig for {}", expName);
   KEL_ASSERT(initialized());
   const auto hwExpConfig = hwFtConfig_->expConfig(expName);
   const auto expInfo = flowTrackerInfo_->expInfo(expName);
   KEL_TRACE(traceIpfix, 3, "name: {}, hwExpConfig: {}, expInfo: {}", expName, hwExpConfig,
             expInfo);
   if (!hwExpConfig || !expInfo) {
      exporterSmDel(expName);
      return;
   }
   exporterSmIs(expName, hwExpConfig, expInfo);
}

void FtOptionsDataManagerSm::exporterSmIs(
    const Kel::Name& expName, const Kel::Ptr<const HwFlowTracking::ExporterConfig>& hwExpConfig,
    const Kel::Ptr<ExporterInfo>& expInfo) {
   if (const auto existing = exporterSm(expName)) {
      Kel::checkConstructorParam("hwExpConfig", hwExpConfig, existing->hwExpConfig());
      Kel::checkConstructorParam("expInfo", expInfo, existing->expInfo());
      return;
   }
   exporterSm_[expName] =
       optionsDataExporterSmFactory(expName, ftName_, ftId_, hwFtConfig_, hwExpConfig, expInfo,
                                    collStats_, dataContainer_, scheduler_);
   KEL_TRACE(traceIpfix, 3, "Created OptionsDataExporterSm for {}", expName);
}

void FtOptionsDataManagerSm::exporterSmDel(Kel::Name expName) {
   if (exporterSm_.erase(expName) > 0) {
      KEL_TRACE(traceIpfix, 3, "Deleted OptionsDataExporterSm for {}", expName);
   }
}

// ---------------------------------------------------------------------------
// OptionsDataManagerSm

class OptionsDataManagerSm::ConfigReactor : public HwFlowTracking::Config::Notifiee {
 public:
   ConfigReactor(const Kel::Ptr<const HwFlowTracking::Config>& c, OptionsDataManagerSm* sm)
       : sm_(sm) {
      notifierIs(c);
   }
   void onHwFtConfig(const Kel::Name& name) override { sm_->handleTracker(name); }

 private:
   OptionsDataManagerSm* sm_;
};

class OptionsDataManagerSm::StatusReactor : public HwFlowTracking::Status::Notifiee {
 public:
   StatusReactor(const Kel::Ptr<const HwFlowTracking::Status>& s, OptionsDataManagerSm* sm)
       : sm_(sm) {
      notifierIs(s);
   }
   void onHwFtStatus(const Kel::Name& name) override { sm_->handleTracker(name); }

 private:
   OptionsDataManagerSm* sm_;
};

class OptionsDataManagerSm::FlowTrackingInfoReactor : public FlowTrackingInfo::Notifiee {
 public:
   FlowTrackingInfoReactor(const Kel::Ptr<FlowTrackingInfo>& i, OptionsDataManagerSm* sm)
       : sm_(sm) {
      notifierIs(i);
   }
   void onFtInfo(const Kel::Name& name) override { sm_->handleTracker(name); }

 private:
   OptionsDataManagerSm* sm_;
};

OptionsDataManagerSm::OptionsDataManagerSm(Kel::Ptr<const HwFlowTracking::Config> hwConfig,
                                           Kel::Ptr<const HwFlowTracking::Status> hwStatus,
                                           Kel::Ptr<FlowTrackingInfo> flowTrackingInfo,
                                           Kel::Ptr<const IntfIndexMap> intfIndexMap,
                                           Kel::Ptr<const Vrf::VrfIdMap::Status> vrfIdMapStatus,
                                           Kel::Ptr<Vorpa::Ipfix::CollectorStatistics> collStats,
                                           Kel::Ptr<Bexa::TaskScheduler> scheduler)
    : hwConfig_(std::move(hwConfig)),
      hwStatus_(std::move(hwStatus)),
      flowTrackingInfo_(std::move(flowTrackingInfo)),
      intfIndexMap_(std::move(intfIndexMap)),
      vrfIdMapStatus_(std::move(vrfIdMapStatus)),
      collStats_(std::move(collStats)),
      scheduler_(std::move(scheduler)) {
   KEL_ASSERT(hwConfig_ && hwStatus_ && flowTrackingInfo_ && intfIndexMap_ && vrfIdMapStatus_ &&
              collStats_ && scheduler_);
   handleInitialized();
}

// Trackers (and with them every exporter) go before the global sources they
// read.
OptionsDataManagerSm::~OptionsDataManagerSm() {
   configReactor_.reset();
   statusReactor_.reset();
   flowTrackingInfoReactor_.reset();
   while (!ftManagerSm_.empty()) {
      trackerDel(ftManagerSm_.begin()->first);
   }
   intfTableSm_ = nullptr;
   vrfTableSm_ = nullptr;
   dataAll_->globalData()->sourceDelAll();
   KEL_TRACE(traceIpfix, 3, "Deleted InterfaceTableSm");
   KEL_TRACE(traceIpfix, 3, "Deleted VrfTableSm");
}

void OptionsDataManagerSm::handleInitialized() {
   KEL_TRACE(traceIpfix, 4, "OptionsDataManagerSm::handleInitialized for {}",
             trackingTypeString(flowTrackingInfo_->flowTrackingType()));
   dataAll_ = optionsDataAllFactory();
   initIntfTableSm();
   initVrfTableSm();
   initialized_ = true;
   configReactor_ = std::make_unique<ConfigReactor>(hwConfig_, this);
   statusReactor_ = std::make_unique<StatusReactor>(hwStatus_, this);
   flowTrackingInfoReactor_ = std::make_unique<FlowTrackingInfoReactor>(flowTrackingInfo_, this);
   for (const auto& [name, config] : hwConfig_->hwFtConfig()) {
      handleTracker(name);
   }
}

void OptionsDataManagerSm::initIntfTableSm() {
   KEL_ASSERT(!initialized());
   const auto& data = dataAll_->globalData();
   const auto& update = dataAll_->globalUpdate();
   KEL_ASSERT(data);
   KEL_ASSERT(update);
   const auto source = data->sourceIs("InterfaceTable", InterfaceTableSm::setId());
   intfTableSm_ = Kel::makePtr<InterfaceTableSm>(source, update, intfIndexMap_);
   KEL_TRACE(traceIpfix, 3, "Created InterfaceTableSm");
}

void OptionsDataManagerSm::initVrfTableSm() {
   KEL_ASSERT(!initialized());
   const auto& data = dataAll_->globalData();
   const auto& update = dataAll_->globalUpdate();
   KEL_ASSERT(data);
   KEL_ASSERT(update);
   const auto source = data->sourceIs("VrfTable", VrfTableSm::setId());
   vrfTableSm_ = Kel::makePtr<VrfTableSm>(source, update, vrfIdMapStatus_);
   KEL_TRACE(traceIpfix, 3, "Created VrfTableSm");
}

void OptionsDataManagerSm::handleTracker(const Kel::Name& ftName) {
   KEL_TRACE(traceIpfix, 4, "OptionsDataManagerSm::handleTracker for {}", ftName);
   KEL_ASSERT(initialized());
   const auto hwFtConfig = hwConfig_->hwFtConfig(ftName);
   const auto hwFtStatus = hwStatus_->hwFtStatus(ftName);
   const auto ftInfo = flowTrackingInfo_->ftInfo(ftName);
   KEL_TRACE(traceIpfix, 3, " ftName: {}, hwFtConfig: {}, hwFtStatus: {}, ftInfo: {}", ftName,
             hwFtConfig, hwFtStatus, ftInfo);
   if (!hwFtConfig || !hwFtStatus || !ftInfo) {
      trackerDel(ftName);
      return;
   }
   const auto trackerData = dataAll_->trackerDataIs(ftName);
   const auto container = dataContainerIs(ftName);
   container->dataIs(dataAll_->globalData());
   container->dataIs(trackerData->data());
   container->updateIs(dataAll_->globalUpdate());
   container->updateIs(trackerData->update());
   ftManagerSmIs(ftName, hwFtConfig->ftId(), hwFtConfig, hwFtStatus, ftInfo, container);
}

Kel::Ptr<OptionsDataContainer> OptionsDataManagerSm::dataContainerIs(const Kel::Name& ftName) {
   auto& container = dataContainer_[ftName];
   if (!container) {
      container = optionsDataContainerFactory(ftName);
   }
   return container;
}

void OptionsDataManagerSm::ftManagerSmIs(const Kel::Name& ftName, FtId ftId,
                                         const Kel::Ptr<const HwFlowTracking::FtConfig>& hwFtConfig,
                                         const Kel::Ptr<const HwFlowTracking::FtStatus>& hwFtStatus,
                                         const Kel::Ptr<FlowTrackerInfo>& flowTrackerInfo,
                                         const Kel::Ptr<OptionsDataContainer>& container) {
   if (const auto existing = ftManagerSm(ftName)) {
      Kel::checkConstructorParam("ftId", ftId, existing->ftId());
      Kel::checkConstructorParam("hwFtConfig", hwFtConfig, existing->hwFtConfig());
      Kel::checkConstructorParam("hwFtStatus", hwFtStatus, existing->hwFtStatus());
      Kel::checkConstructorParam("flowTrackerInfo", flowTrackerInfo, existing->flowTrackerInfo());
      return;
   }
   ftManagerSm_[ftName] = Kel::makePtr<FtOptionsDataManagerSm>(
       ftName, ftId, hwConfig_, hwStatus_, hwFtConfig, hwFtStatus, flowTrackerInfo,
       flowTrackingInfo_->flowTrackingType(), collStats_, container, scheduler_);
   KEL_TRACE(traceIpfix, 3, "Created FtOptionsDataManagerSm for {}", ftName);
}

void OptionsDataManagerSm::trackerDel(Kel::Name ftName) {
   dataAll_->trackerDataDel(ftName);
   if (ftManagerSm_.erase(ftName) > 0) {
      KEL_TRACE(traceIpfix, 3, "Deleted FtOptionsDataManagerSm for {}", ftName);
   }
   dataContainer_.erase(ftName);
}

Kel::Ptr<OptionsDataManagerSm> optionsDataManagerSmFactory(
    const Kel::Ptr<const HwFlowTracking::Config>& hwConfig,
    const Kel::Ptr<const HwFlowTracking::Status>& hwStatus,
    const Kel::Ptr<FlowTrackingInfo>& flowTrackingInfo,
    const Kel::Ptr<const IntfIndexMap>& intfIndexMap,
    const Kel::Ptr<const Vrf::VrfIdMap::Status>& vrfIdMapStatus,
    const Kel::Ptr<Vorpa::Ipfix::CollectorStatistics>& collStats,
    const Kel::Ptr<Bexa::TaskScheduler>& scheduler) {
   return Kel::makePtr<OptionsDataManagerSm>(hwConfig, hwStatus, flowTrackingInfo, intfIndexMap,
                                             vrfIdMapStatus, collStats, scheduler);
}

}  // namespace FlowTracking
