#include "Ipfix/FlowTrackerTemplateSm.h"

#include "FlowTracking/Constants.h"
#include "Ipfix/CollectorStatsUpdate.h"
#include "Kel/Exception.h"
#include "Kel/System.h"
#include "Kel/Trace.h"
#include "Nivel/IpfixHeader.h"

namespace FlowTracking {

namespace {

Kel::TraceHandle traceIpfix("Ipfix");

constexpr Kel::U32 templateRecordHeaderLen = sizeof(Nivel::TemplateHeader::Wire);
static_assert(templateRecordLength(0, 0) == templateRecordHeaderLen);

}  // namespace

// ---------------------------------------------------------------------------
// FtExporterSm

// Watches the tracker's flow groups coming and going.
class FtExporterSm::FtStatusReactor : public HwFlowTracking::FtStatus::Notifiee {
 public:
   FtStatusReactor(const Kel::Ptr<const HwFlowTracking::FtStatus>& s, FtExporterSm* sm) : sm_(sm) {
      notifierIs(s);
   }
   void onHwFgStatus(TemplateId id) override { sm_->handleHwFgStatus(id); }

 private:
   FtExporterSm* sm_;
};

// Watches one flow group's layout, its fields included (the group tells of a
// field rewritten in place as of a field changed); any change rebuilds the
// template set.
class FtExporterSm::FgStatusReactor : public HwFlowTracking::FgStatus::Notifiee {
 public:
   FgStatusReactor(const Kel::Ptr<const HwFlowTracking::FgStatus>& fg, FtExporterSm* sm) : sm_(sm) {
      notifierIs(fg);
   }
   void onFieldCount() override { sm_->scheduleTemplateCreation(); }
   void onEntryCount() override { sm_->scheduleTemplateCreation(); }
   void onGenId() override { sm_->scheduleTemplateCreation(); }
   void onTemplateEntry(Kel::U32) override { sm_->scheduleTemplateCreation(); }

 private:
   FtExporterSm* sm_;
};

Kel::U32 getFgTemplateLength(const HwFlowTracking::FgStatus& fg) {
   Kel::U32 enterpriseFields = 0;
   for (const auto& [position, entry] : fg.templateEntry()) {
      enterpriseFields += entry->enterpriseIe() ? 1 : 0;
   }
   return templateRecordLength(static_cast<Kel::U32>(fg.templateEntry().size()), enterpriseFields);
}

FtExporterSm::FtExporterSm(Kel::Name ftName, Kel::Name expName, FtId ftId,
                           Kel::Ptr<const HwFlowTracking::ExporterConfig> hwExpConfig,
                           Kel::Ptr<ExporterInfo> expInfo,
                           Kel::Ptr<Vorpa::Ipfix::CollectorStatistics> collStats,
                           Kel::Ptr<Bexa::TaskScheduler> scheduler,
                           Kel::Ptr<const HwFlowTracking::FtStatus> hwFtStatus,
                           Kel::Ptr<const Ipfix::ElementIdColl> elementIdColl)
    : TemplateExporterSmBase(std::move(ftName), std::move(expName), ftId, std::move(hwExpConfig),
                             std::move(expInfo), std::move(collStats), std::move(scheduler)),
      hwFtStatus_(std::move(hwFtStatus)),
      elementIdColl_(std::move(elementIdColl)) {
   KEL_ASSERT(hwFtStatus_ && elementIdColl_);
   handleInitialized();
}

FtExporterSm::~FtExporterSm() {
   ftStatusReactor_.reset();
   hwFgStatusDelAll();
}

Kel::U16 FtExporterSm::headerSetId() const {
   return Nivel::IpfixConst::templateSetId();
}

void FtExporterSm::handleInitialized() {
   traceEntry("FtExporterSm", "handleInitialized");
   handleStartup();
   templateCreationTask_ =
       newTask("TemplateCreationTask", [this] { handleTemplateCreationTask(); });
   ftStatusReactor_ = std::make_unique<FtStatusReactor>(hwFtStatus_, this);
   for (const auto& [id, fg] : hwFtStatus_->hwFgStatus()) {
      hwFgStatusIs(fg);
   }
   templateCreationTask_->scheduleTask();
   initialized_ = true;
}

void FtExporterSm::scheduleTemplateCreation() {
   if (templateCreationTask_) {
      templateCreationTask_->scheduleTask();
   }
}

std::vector<TemplateId> FtExporterSm::hwFgStatus() const {
   std::vector<TemplateId> ids;
   for (const auto& [id, reactor] : hwFgStatus_) {
      ids.push_back(id);
   }
   return ids;
}

void FtExporterSm::hwFgStatusIs(const Kel::Ptr<const HwFlowTracking::FgStatus>& fg) {
   KEL_ASSERT_TEXT(fg,
                   "null _hwFgStatus parameter to mutator for FlowTracking::FtExporterSm::"
                   "hwFgStatus not allowed");
   auto& reactor = hwFgStatus_[fg->templateId()];
   if (reactor) {
      reactor->notifierIs(fg);  // another object for the same template id
   } else {
      reactor = std::make_unique<FgStatusReactor>(fg, this);
   }
   scheduleTemplateCreation();
}

void FtExporterSm::hwFgStatusDel(TemplateId id) {
   if (hwFgStatus_.erase(id) > 0) {
      scheduleTemplateCreation();
   }
}

void FtExporterSm::hwFgStatusDelAll() {
   while (!hwFgStatus_.empty()) {
      hwFgStatusDel(hwFgStatus_.begin()->first);
   }
}

void FtExporterSm::handleHwFgStatus(TemplateId id) {
   KEL_TRACE(traceIpfix, 4, "FtExporterSm::handleHwFgStatus for {} for {} for {}", ftName(),
             expName(), id);
   if (const auto fg = hwFtStatus_->hwFgStatus(id)) {
      hwFgStatusIs(fg);
   } else {
      hwFgStatusDel(id);
   }
}

Kel::U32 FtExporterSm::getFtTemplateLength() const {
   Kel::U32 length = 0;
   for (const auto& [id, reactor] : hwFgStatus_) {
      const auto& fg = reactor->notifier();
      if (fg->entryCount() != 0) {
         length += getFgTemplateLength(*fg);
      }
   }
   return length;
}

Kel::U32 FtExporterSm::writeTemplateRecord(const Kel::Ptr<Nivel::Pkt>& pkt, Kel::U32 offset,
                                           const HwFlowTracking::FgStatus& fg) const {
   Nivel::TemplateHeader header(pkt, offset);
   header.templateIdIs(fg.templateId());
   header.fieldCountIs(fg.fieldCount());
   offset += templateRecordHeaderLen;
   for (const auto& [position, te] : fg.templateEntry()) {
      if (!elementIdColl_->elementIdCollHas(te->fieldId())) {
         KEL_TRACE(traceIpfix, 1, "Missing fieldId in elementIdColl: {}", te->fieldId());
      }
      KEL_ASSERT_TEXT(elementIdColl_->elementIdCollHas(te->fieldId()),
                      "elementIdColl()->elementIdCollHas( te->fieldId() )");
      KEL_ASSERT_TEXT(
          te->enterpriseIe() == elementIdColl_->elementIdColl(te->fieldId()).enterpriseIe(),
          "te->enterpriseIe() == elementIdColl()->elementIdColl( te->fieldId() ).enterpriseIe()");
      KEL_TRACE(traceIpfix, 5, "Element: {}, elementId: {}, len: {}, enterpriseIe: {}",
                te->fieldId(), static_cast<Kel::U32>(te->fieldId()), te->fieldLen(),
                te->enterpriseIe());
      offset = writeFieldSpecifier(pkt, offset, *te);
   }
   return offset;
}

void FtExporterSm::handleTemplateCreationTask() {
   KEL_TRACE(traceIpfix, 4, "FtExporterSm::handleTemplateCreationTask for {} for {}", ftName(),
             expName());
   if (!templateCreationTask_->taskCurrentlyRunning()) {
      KEL_TRACE(traceIpfix, 3, "Returning because templateCreationTask not running.");
      return;
   }
   const Kel::U32 length = getFtTemplateLength();
   if (length == 0) {
      templateReadyIs(false);
      KEL_TRACE(traceIpfix, 3, "Returning because no flow group configured.");
      return;
   }
   const auto pkt = getPkt(length);
   Kel::U32 offset = 0;
   Kel::U16 records = 0;
   for (const auto& [id, reactor] : hwFgStatus_) {
      const auto& fg = reactor->notifier();
      if (fg->entryCount() == 0) {
         continue;
      }
      const Kel::U32 fgLength = getFgTemplateLength(*fg);
      KEL_TRACE(traceIpfix, 3, "Template for {} has length: {}, and is at offset: {}", id, fgLength,
                offset);
      offset = writeTemplateRecord(pkt, offset, *fg);
      ++records;
   }
   finishMessage(pkt, records);
}

// ---------------------------------------------------------------------------
// FtTemplateSm

class FtTemplateSm::FtConfigReactor : public HwFlowTracking::FtConfig::Notifiee {
 public:
   FtConfigReactor(const Kel::Ptr<const HwFlowTracking::FtConfig>& c, FtTemplateSm* sm) : sm_(sm) {
      notifierIs(c);
   }
   void onExpConfig(const Kel::Name& name) override { sm_->handleExporters(name); }

 private:
   FtTemplateSm* sm_;
};

class FtTemplateSm::FtInfoReactor : public FlowTrackerInfo::Notifiee {
 public:
   FtInfoReactor(const Kel::Ptr<FlowTrackerInfo>& i, FtTemplateSm* sm) : sm_(sm) { notifierIs(i); }
   void onExpInfo(const Kel::Name& name) override { sm_->handleExporters(name); }

 private:
   FtTemplateSm* sm_;
};

FtTemplateSm::FtTemplateSm(Kel::Name name, Kel::Ptr<const HwFlowTracking::FtConfig> hwFtConfig,
                           Kel::Ptr<const HwFlowTracking::FtStatus> hwFtStatus,
                           Kel::Ptr<Vorpa::Ipfix::CollectorStatistics> collStats,
                           Kel::Ptr<FlowTrackerInfo> ftInfo,
                           Kel::Ptr<const OptionsTemplateConfig> optTemplateConfig,
                           Kel::Ptr<Bexa::TaskScheduler> scheduler,
                           Kel::Ptr<const Ipfix::ElementIdColl> elementIdColl)
    : name_(std::move(name)),
      hwFtConfig_(std::move(hwFtConfig)),
      hwFtStatus_(std::move(hwFtStatus)),
      collStats_(std::move(collStats)),
      ftInfo_(std::move(ftInfo)),
      optTemplateConfig_(std::move(optTemplateConfig)),
      scheduler_(std::move(scheduler)),
      elementIdColl_(std::move(elementIdColl)) {
   KEL_ASSERT(hwFtConfig_ && hwFtStatus_ && collStats_ && ftInfo_ && optTemplateConfig_ &&
              scheduler_ && elementIdColl_);
   ftConfigReactor_ = std::make_unique<FtConfigReactor>(hwFtConfig_, this);
   ftInfoReactor_ = std::make_unique<FtInfoReactor>(ftInfo_, this);
   for (const auto& [exporter, config] : hwFtConfig_->expConfig()) {
      handleExporters(exporter);
   }
}

FtTemplateSm::~FtTemplateSm() {
   ftConfigReactor_.reset();
   ftInfoReactor_.reset();
   while (!ftExporterSm_.empty() || !optTemplateExporterSm_.empty()) {
      exportersDel(!ftExporterSm_.empty() ? ftExporterSm_.begin()->first
                                          : optTemplateExporterSm_.begin()->first);
   }
   // The tracker's clear time goes with the tracker, like its exporters'.
   collStats_->statsDel(
       Vorpa::Ipfix::CollectorStatisticsKey(name_, Kel::String(), Vorpa::Ipfix::CollectorInfo()));
}

void FtTemplateSm::handleExporters(const Kel::Name& exporter) {
   KEL_TRACE(traceIpfix, 4, "FtTemplateSm::handleExporters for {} for {}", name_, exporter);
   const auto config = hwFtConfig_->expConfig(exporter);
   const auto expInfo = ftInfo_->expInfo(exporter);
   if (!config || !expInfo) {
      exportersDel(exporter);
      return;
   }
   ftExporterSmIs(exporter, hwFtConfig_->ftId(), config, expInfo);
   optTemplateExporterSmIs(exporter, hwFtConfig_->ftId(), config, expInfo);
}

namespace {

// The checks every creator of a template exporter makes on an existing one.
void checkExporterParams(const TemplateExporterSmBase& existing, FtId ftId,
                         const Kel::Ptr<const HwFlowTracking::ExporterConfig>& config,
                         const Kel::Ptr<ExporterInfo>& expInfo,
                         const Kel::Ptr<Vorpa::Ipfix::CollectorStatistics>& collStats) {
   Kel::checkConstructorParam("ftId", ftId, existing.ftId());
   Kel::checkConstructorParam("collStats", collStats, existing.collStats());
   Kel::checkConstructorParam("hwExpConfig", config, existing.hwExpConfig());
   Kel::checkConstructorParam("expInfo", expInfo, existing.expInfo());
}

}  // namespace

void FtTemplateSm::ftExporterSmIs(const Kel::Name& exporter, FtId ftId,
                                  const Kel::Ptr<const HwFlowTracking::ExporterConfig>& config,
                                  const Kel::Ptr<ExporterInfo>& expInfo) {
   if (const auto existing = ftExporterSm(exporter)) {
      checkExporterParams(*existing, ftId, config, expInfo, collStats_);
      Kel::checkConstructorParam("hwFtStatus", hwFtStatus_, existing->hwFtStatus());
      Kel::checkConstructorParam("elementIdColl", elementIdColl_, existing->elementIdColl());
      return;
   }
   ftExporterSm_[exporter] = Kel::makePtr<FtExporterSm>(
       name_, exporter, ftId, config, expInfo, collStats_, scheduler_, hwFtStatus_, elementIdColl_);
   KEL_TRACE(traceIpfix, 3, "Created FtExporterSm for {}", exporter);
}

void FtTemplateSm::optTemplateExporterSmIs(
    const Kel::Name& exporter, FtId ftId,
    const Kel::Ptr<const HwFlowTracking::ExporterConfig>& config,
    const Kel::Ptr<ExporterInfo>& expInfo) {
   if (const auto existing = optTemplateExporterSm(exporter)) {
      checkExporterParams(*existing, ftId, config, expInfo, collStats_);
      Kel::checkConstructorParam("optTemplateConfig", optTemplateConfig_,
                                 existing->optTemplateConfig());
      return;
   }
   optTemplateExporterSm_[exporter] = Kel::makePtr<OptionsTemplateExporterSm>(
       name_, exporter, ftId, config, expInfo, collStats_, scheduler_, optTemplateConfig_);
   KEL_TRACE(traceIpfix, 3, "Created OptionsTemplateExporterSm for {}", exporter);
}

void FtTemplateSm::exportersDel(Kel::Name exporter) {
   if (const auto sm = ftExporterSm(exporter)) {
      sm->handleDel();
      ftExporterSm_.erase(exporter);
      KEL_TRACE(traceIpfix, 3, "Deleted FtExporterSm for {}", exporter);
   }
   if (const auto sm = optTemplateExporterSm(exporter)) {
      sm->handleDel();
      optTemplateExporterSm_.erase(exporter);
      KEL_TRACE(traceIpfix, 3, "Deleted OptionsTemplateExporterSm for {}", exporter);
   }
}

// ---------------------------------------------------------------------------
// TemplateSm

class TemplateSm::FtInfoReactor : public FlowTrackingInfo::Notifiee {
 public:
   FtInfoReactor(const Kel::Ptr<FlowTrackingInfo>& i, TemplateSm* sm) : sm_(sm) { notifierIs(i); }
   void onFtInfo(const Kel::Name& name) override { sm_->handleHwFtStatus(name); }

 private:
   TemplateSm* sm_;
};

// The hardware status of a tracker may arrive after its configuration.
class TemplateSm::StatusReactor : public HwFlowTracking::Status::Notifiee {
 public:
   StatusReactor(const Kel::Ptr<const HwFlowTracking::Status>& s, TemplateSm* sm) : sm_(sm) {
      notifierIs(s);
   }
   void onHwFtStatus(const Kel::Name& name) override { sm_->handleHwFtStatus(name); }

 private:
   TemplateSm* sm_;
};

class TemplateSm::ConfigReqReactor : public ConfigReq::Notifiee {
 public:
   ConfigReqReactor(const Kel::Ptr<const ConfigReq>& r, TemplateSm* sm) : sm_(sm) { notifierIs(r); }
   void onClearCounters() override { sm_->clearCounters(); }

 private:
   TemplateSm* sm_;
};

TemplateSm::TemplateSm(Kel::Ptr<Bexa::TaskSchedulerRoot> schedulerRoot,
                       Kel::Ptr<const ConfigReq> flowTrackingConfigReq,
                       Kel::Ptr<const HwFlowTracking::Status> hwStatus,
                       Kel::Ptr<const HwFlowTracking::Config> hwConfig,
                       Kel::Ptr<Vorpa::Ipfix::CollectorStatistics> collStats,
                       Kel::Ptr<FlowTrackingInfo> flowTrackingInfo,
                       Kel::Ptr<const Ipfix::ElementIdColl> elementIdColl)
    : schedulerRoot_(std::move(schedulerRoot)),
      flowTrackingConfigReq_(std::move(flowTrackingConfigReq)),
      hwStatus_(std::move(hwStatus)),
      hwConfig_(std::move(hwConfig)),
      collStats_(std::move(collStats)),
      flowTrackingInfo_(std::move(flowTrackingInfo)),
      elementIdColl_(std::move(elementIdColl)) {
   KEL_ASSERT(schedulerRoot_ && flowTrackingConfigReq_ && hwStatus_ && hwConfig_ && collStats_ &&
              flowTrackingInfo_ && elementIdColl_);
   handleInitialized();
}

TemplateSm::~TemplateSm() {
   ftInfoReactor_.reset();
   statusReactor_.reset();
   configReqReactor_.reset();
   ftTemplateSm_.clear();
}

void TemplateSm::handleInitialized() {
   KEL_TRACE(traceIpfix, 4, "TemplateSm::handleInitialized");
   initOptTemplateConfig();
   ftInfoReactor_ = std::make_unique<FtInfoReactor>(flowTrackingInfo_, this);
   statusReactor_ = std::make_unique<StatusReactor>(hwStatus_, this);
   for (const auto& [name, info] : flowTrackingInfo_->ftInfo()) {
      handleHwFtStatus(name);
   }
   initialized_ = true;
   configReqReactor_ = std::make_unique<ConfigReqReactor>(flowTrackingConfigReq_, this);
   clearCounters();
}

void TemplateSm::initOptTemplateConfig() {
   auto config = Kel::makeActive<OptionsTemplateConfig>();
   const auto define = [&](const char* name, StaticTemplateId id,
                           std::initializer_list<Ipfix::RecordType> scope,
                           std::initializer_list<Ipfix::RecordType> fields) {
      const auto t = config->templateEntryIs(name, Constants::reservedTemplateId(id));
      for (const Ipfix::RecordType r : scope) {
         addScopeField(*elementIdColl_, *t, r);
      }
      for (const Ipfix::RecordType r : fields) {
         addField(*elementIdColl_, *t, r);
      }
   };
   using R = Ipfix::RecordType;
   define("IntfTable", StaticTemplateId::intfTable, {R::ingressInterface}, {R::interfaceName});
   define("VrfTable", StaticTemplateId::vrfTable, {R::ingressVRFID}, {R::VRFname});
   define("FlowKey", StaticTemplateId::flowKey, {R::templateId}, {R::flowKeyIndicator});
   define("FlowTrackerTable", StaticTemplateId::flowTrackerTable, {R::observationDomainId},
          {R::observationDomainName, R::flowActiveTimeout, R::flowIdleTimeout, R::selectorAlgorithm,
           R::samplingSize, R::samplingPopulation, R::flowTrackingType});
   config->versionInc(1);
   optTemplateConfig_ = config;
}

void TemplateSm::handleHwFtStatus(const Kel::Name& tracker) {
   KEL_TRACE(traceIpfix, 4, "TemplateSm::handleHwFtStatus for {}", tracker);
   const auto info = flowTrackingInfo_->ftInfo(tracker);
   const auto status = hwStatus_->hwFtStatus(tracker);
   const auto config = hwConfig_->hwFtConfig(tracker);
   if (!info || !status || !config) {
      if (ftTemplateSm_.erase(tracker) > 0) {
         KEL_TRACE(traceIpfix, 3, "Deleted FtTemplateSm for {}", tracker);
      }
      return;
   }
   if (const auto existing = ftTemplateSm(tracker)) {
      Kel::checkConstructorParam("hwFtConfig", Kel::Ptr<const HwFlowTracking::FtConfig>(config),
                                 existing->hwFtConfig());
      Kel::checkConstructorParam("hwFtStatus", Kel::Ptr<const HwFlowTracking::FtStatus>(status),
                                 existing->hwFtStatus());
      Kel::checkConstructorParam("ftInfo", info, existing->ftInfo());
      return;
   }
   ftTemplateSm_[tracker] =
       Kel::makePtr<FtTemplateSm>(tracker, config, status, collStats_, info, optTemplateConfig_,
                                  schedulerRoot_, elementIdColl_);
   KEL_TRACE(traceIpfix, 3, "Created FtTemplateSm for {}", tracker);
}

Kel::Ptr<TemplateSm> templateSmFactory(const Kel::Ptr<Bexa::TaskSchedulerRoot>& schedulerRoot,
                                       const Kel::Ptr<const ConfigReq>& flowTrackingConfigReq,
                                       const Kel::Ptr<const HwFlowTracking::Status>& hwStatus,
                                       const Kel::Ptr<const HwFlowTracking::Config>& hwConfig,
                                       const Kel::Ptr<Vorpa::Ipfix::CollectorStatistics>& collStats,
                                       const Kel::Ptr<FlowTrackingInfo>& flowTrackingInfo,
                                       const Kel::Ptr<const Ipfix::ElementIdColl>& elementIdColl) {
   return Kel::makePtr<TemplateSm>(schedulerRoot, flowTrackingConfigReq, hwStatus, hwConfig,
                                   collStats, flowTrackingInfo, elementIdColl);
}

}  // namespace FlowTracking

namespace FlowTracking {

void TemplateSm::clearCounters() {
   const ClearCountersRequest& request = flowTrackingConfigReq_->clearCounters();
   if (request.requestTime == 0) {
      KEL_TRACE(traceIpfix, 3, "requestTime is zero");
      return;
   }
   KEL_TRACE(traceIpfix, 3, "clear counters");
   Vorpa::Ipfix::statsClear(*collStats_, request.tracker, request.exporter);
}

}  // namespace FlowTracking
