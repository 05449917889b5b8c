#pragma once

#include <map>
#include <memory>

#include "FlowTracking/ConfigReq.h"
#include "Ipfix/OptionsTemplateExporterSm.h"
#include "Ipfix/TemplateSmBase.h"

namespace FlowTracking {

// The data templates of one exporter of a tracker: mirrors the tracker's
// hardware flow groups and rebuilds the whole template set whenever one of
// them changes.
class FtExporterSm final : public TemplateExporterSmBase {
 public:
   FtExporterSm(Kel::Name ftName, Kel::Name expName, FtId ftId,
                Kel::Ptr<const HwFlowTracking::ExporterConfig> hwExpConfig,
                Kel::Ptr<ExporterInfo> expInfo,
                Kel::Ptr<Vorpa::Ipfix::CollectorStatistics> collStats,
                Kel::Ptr<Bexa::TaskScheduler> scheduler,
                Kel::Ptr<const HwFlowTracking::FtStatus> hwFtStatus,
                Kel::Ptr<const Ipfix::ElementIdColl> elementIdColl);
   ~FtExporterSm() override;

   const Kel::Ptr<const HwFlowTracking::FtStatus>& hwFtStatus() const { return hwFtStatus_; }
   const Kel::Ptr<const Ipfix::ElementIdColl>& elementIdColl() const { return elementIdColl_; }
   bool initialized() const { return initialized_; }

   Kel::String taskPrefix() const override { return "ftExporterSm"; }
   Kel::U16 headerSetId() const override;

   // The flow groups watched, in ascending template id.
   std::vector<TemplateId> hwFgStatus() const;
   void hwFgStatusIs(const Kel::Ptr<const HwFlowTracking::FgStatus>& fg);
   void hwFgStatusDel(TemplateId id);
   void hwFgStatusDelAll();

   // Octets of the template set body: the records of every flow group that
   // has entries.
   Kel::U32 getFtTemplateLength() const;
   void handleTemplateCreationTask();

 private:
   class FtStatusReactor;
   class FgStatusReactor;

   void handleInitialized();
   void handleHwFgStatus(TemplateId id);
   void scheduleTemplateCreation();
   Kel::U32 writeTemplateRecord(const Kel::Ptr<Nivel::Pkt>& pkt, Kel::U32 offset,
                                const HwFlowTracking::FgStatus& fg) const;

   const Kel::Ptr<const HwFlowTracking::FtStatus> hwFtStatus_;
   const Kel::Ptr<const Ipfix::ElementIdColl> elementIdColl_;
   std::map<TemplateId, std::unique_ptr<FgStatusReactor>> hwFgStatus_;
   std::unique_ptr<Bexa::Task> templateCreationTask_;
   std::unique_ptr<FtStatusReactor> ftStatusReactor_;
   bool initialized_ = false;
};

// Octets of one flow group's template record.
Kel::U32 getFgTemplateLength(const HwFlowTracking::FgStatus& fg);

// Octets of a template record of `fields` field specifiers, `enterpriseFields`
// of which carry an enterprise number: a 4-octet record header, 4 octets a
// field and 4 more for each enterprise number.
constexpr Kel::U32 templateRecordLength(Kel::U32 fields, Kel::U32 enterpriseFields) {
   return 4 + 4 * fields + 4 * enterpriseFields;
}

// The longest data template set one template message can carry to every
// collector: a UDP datagram over IPv4 holds at most 65507 octets (65535 less
// the IPv4 and UDP headers), of which the message and set headers take 20.
inline constexpr Kel::U32 maxTemplateSetLength = 65507 - 20;

// One tracker: the data-template and the options-template exporter of each
// of its exporters.
class FtTemplateSm : public Kel::PtrInterface {
 public:
   FtTemplateSm(Kel::Name name, Kel::Ptr<const HwFlowTracking::FtConfig> hwFtConfig,
                Kel::Ptr<const HwFlowTracking::FtStatus> hwFtStatus,
                Kel::Ptr<Vorpa::Ipfix::CollectorStatistics> collStats,
                Kel::Ptr<FlowTrackerInfo> ftInfo,
                Kel::Ptr<const OptionsTemplateConfig> optTemplateConfig,
                Kel::Ptr<Bexa::TaskScheduler> scheduler,
                Kel::Ptr<const Ipfix::ElementIdColl> elementIdColl);
   ~FtTemplateSm() override;

   const Kel::Name& name() const { return name_; }
   const Kel::Ptr<const HwFlowTracking::FtConfig>& hwFtConfig() const { return hwFtConfig_; }
   const Kel::Ptr<const HwFlowTracking::FtStatus>& hwFtStatus() const { return hwFtStatus_; }
   const Kel::Ptr<Vorpa::Ipfix::CollectorStatistics>& collStats() const { return collStats_; }
   const Kel::Ptr<FlowTrackerInfo>& ftInfo() const { return ftInfo_; }
   const Kel::Ptr<const OptionsTemplateConfig>& optTemplateConfig() const {
      return optTemplateConfig_;
   }
   const Kel::Ptr<Bexa::TaskScheduler>& scheduler() const { return scheduler_; }
   const Kel::Ptr<const Ipfix::ElementIdColl>& elementIdColl() const { return elementIdColl_; }

   Kel::Ptr<FtExporterSm> ftExporterSm(const Kel::Name& name) const {
      return Kel::findEntry(ftExporterSm_, name);
   }
   Kel::Ptr<OptionsTemplateExporterSm> optTemplateExporterSm(const Kel::Name& name) const {
      return Kel::findEntry(optTemplateExporterSm_, name);
   }
   const std::map<Kel::Name, Kel::Ptr<FtExporterSm>>& ftExporterSm() const { return ftExporterSm_; }

   // Creates, keeps or deletes the two exporters of `exporter`: they exist
   // while the tracker's configuration and its status record both have it.
   void handleExporters(const Kel::Name& exporter);

 private:
   class FtConfigReactor;
   class FtInfoReactor;

   void ftExporterSmIs(const Kel::Name& exporter, FtId ftId,
                       const Kel::Ptr<const HwFlowTracking::ExporterConfig>& config,
                       const Kel::Ptr<ExporterInfo>& expInfo);
   void optTemplateExporterSmIs(const Kel::Name& exporter, FtId ftId,
                                const Kel::Ptr<const HwFlowTracking::ExporterConfig>& config,
                                const Kel::Ptr<ExporterInfo>& expInfo);
   // By value: callers pass the key of an entry that this erases.
   void exportersDel(Kel::Name exporter);

   const Kel::Name name_;
   const Kel::Ptr<const HwFlowTracking::FtConfig> hwFtConfig_;
   const Kel::Ptr<const HwFlowTracking::FtStatus> hwFtStatus_;
   const Kel::Ptr<Vorpa::Ipfix::CollectorStatistics> collStats_;
   const Kel::Ptr<FlowTrackerInfo> ftInfo_;
   const Kel::Ptr<const OptionsTemplateConfig> optTemplateConfig_;
   const Kel::Ptr<Bexa::TaskScheduler> scheduler_;
   const Kel::Ptr<const Ipfix::ElementIdColl> elementIdColl_;
   std::map<Kel::Name, Kel::Ptr<FtExporterSm>> ftExporterSm_;
   std::map<Kel::Name, Kel::Ptr<OptionsTemplateExporterSm>> optTemplateExporterSm_;
   std::unique_ptr<FtConfigReactor> ftConfigReactor_;
   std::unique_ptr<FtInfoReactor> ftInfoReactor_;
};

// One flow-tracking type: the options template definitions, one FtTemplateSm
// per tracker that has configuration, status and a status record, and the
// clearing of collector counters on request.
class TemplateSm : public Kel::PtrInterface {
 public:
   TemplateSm(Kel::Ptr<Bexa::TaskSchedulerRoot> schedulerRoot,
              Kel::Ptr<const ConfigReq> flowTrackingConfigReq,
              Kel::Ptr<const HwFlowTracking::Status> hwStatus,
              Kel::Ptr<const HwFlowTracking::Config> hwConfig,
              Kel::Ptr<Vorpa::Ipfix::CollectorStatistics> collStats,
              Kel::Ptr<FlowTrackingInfo> flowTrackingInfo,
              Kel::Ptr<const Ipfix::ElementIdColl> elementIdColl);
   ~TemplateSm() override;

   const Kel::Ptr<const OptionsTemplateConfig>& optTemplateConfig() const {
      return optTemplateConfig_;
   }
   Kel::Ptr<FtTemplateSm> ftTemplateSm(const Kel::Name& name) const {
      return Kel::findEntry(ftTemplateSm_, name);
   }
   const std::map<Kel::Name, Kel::Ptr<FtTemplateSm>>& ftTemplateSm() const { return ftTemplateSm_; }
   bool initialized() const { return initialized_; }

   void handleHwFtStatus(const Kel::Name& tracker);
   void clearCounters();

 private:
   class FtInfoReactor;
   class StatusReactor;
   class ConfigReqReactor;

   void handleInitialized();
   void initOptTemplateConfig();

   const Kel::Ptr<Bexa::TaskSchedulerRoot> schedulerRoot_;
   const Kel::Ptr<const ConfigReq> flowTrackingConfigReq_;
   const Kel::Ptr<const HwFlowTracking::Status> hwStatus_;
   const Kel::Ptr<const HwFlowTracking::Config> hwConfig_;
   const Kel::Ptr<Vorpa::Ipfix::CollectorStatistics> collStats_;
   const Kel::Ptr<FlowTrackingInfo> flowTrackingInfo_;
   const Kel::Ptr<const Ipfix::ElementIdColl> elementIdColl_;
   Kel::Ptr<const OptionsTemplateConfig> optTemplateConfig_;
   std::map<Kel::Name, Kel::Ptr<FtTemplateSm>> ftTemplateSm_;
   std::unique_ptr<FtInfoReactor> ftInfoReactor_;
   std::unique_ptr<StatusReactor> statusReactor_;
   std::unique_ptr<ConfigReqReactor> configReqReactor_;
   bool initialized_ = false;
};

Kel::Ptr<TemplateSm> templateSmFactory(const Kel::Ptr<Bexa::TaskSchedulerRoot>& schedulerRoot,
                                       const Kel::Ptr<const ConfigReq>& flowTrackingConfigReq,
                                       const Kel::Ptr<const HwFlowTracking::Status>& hwStatus,
                                       const Kel::Ptr<const HwFlowTracking::Config>& hwConfig,
                                       const Kel::Ptr<Vorpa::Ipfix::CollectorStatistics>& collStats,
                                       const Kel::Ptr<FlowTrackingInfo>& flowTrackingInfo,
                                       const Kel::Ptr<const Ipfix::ElementIdColl>& elementIdColl);

}  // namespace FlowTracking
