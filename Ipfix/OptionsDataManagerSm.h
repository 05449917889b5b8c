#pragma once

#include <map>
#include <memory>

#include "Bexa/TaskScheduler.h"
#include "FlowTracking/IntfIndexMap.h"
#include "HwFlowTracking/Config.h"
#include "HwFlowTracking/Status.h"
#include "Ipfix/CollectorStats.h"
#include "Ipfix/FlowTrackingTypes.h"
#include "Ipfix/OptionsData.h"
#include "Ipfix/OptionsDataExporterSm.h"
#include "Ipfix/OptionsDataSourceFlowKeySm.h"
#include "Ipfix/OptionsDataSourceFlowTrackerTableSm.h"
#include "Ipfix/OptionsDataSourceIntfTableSm.h"
#include "Ipfix/OptionsDataSourceVrfTableSm.h"
#include "Vrf/VrfIdMap.h"

namespace FlowTracking {

// One flow tracker's options data: its data sources (flow keys, flow-tracker
// table) and one options data exporter per exporter that has both its
// configuration and its status record. The sources exist before any exporter,
// which binds them once.
class FtOptionsDataManagerSm : public Kel::PtrInterface {
 public:
   FtOptionsDataManagerSm(Kel::String ftName, FtId ftId,
                          Kel::Ptr<const HwFlowTracking::Config> hwConfig,
                          Kel::Ptr<const HwFlowTracking::Status> hwStatus,
                          Kel::Ptr<const HwFlowTracking::FtConfig> hwFtConfig,
                          Kel::Ptr<const HwFlowTracking::FtStatus> hwFtStatus,
                          Kel::Ptr<FlowTrackerInfo> flowTrackerInfo,
                          FlowTrackingType flowTrackingType,
                          Kel::Ptr<Vorpa::Ipfix::CollectorStatistics> collStats,
                          Kel::Ptr<OptionsDataContainer> dataContainer,
                          Kel::Ptr<Bexa::TaskScheduler> scheduler);
   ~FtOptionsDataManagerSm() override;

   const Kel::String& ftName() const { return ftName_; }
   FtId ftId() const { return ftId_; }
   const Kel::Ptr<const HwFlowTracking::Config>& hwConfig() const { return hwConfig_; }
   const Kel::Ptr<const HwFlowTracking::Status>& hwStatus() const { return hwStatus_; }
   const Kel::Ptr<const HwFlowTracking::FtConfig>& hwFtConfig() const { return hwFtConfig_; }
   const Kel::Ptr<const HwFlowTracking::FtStatus>& hwFtStatus() const { return hwFtStatus_; }
   const Kel::Ptr<FlowTrackerInfo>& flowTrackerInfo() const { return flowTrackerInfo_; }
   FlowTrackingType flowTrackingType() const { return flowTrackingType_; }
   const Kel::Ptr<Vorpa::Ipfix::CollectorStatistics>& collStats() const { return collStats_; }
   const Kel::Ptr<OptionsDataContainer>& dataContainer() const { return dataContainer_; }
   bool initialized() const { return initialized_; }

   const Kel::Ptr<FlowKeySm>& flowKeySm() const { return flowKeySm_; }
   const Kel::Ptr<FlowTrackerTableSm>& flowTrackerTableSm() const { return flowTrackerTableSm_; }
   const std::map<Kel::Name, Kel::Ptr<OptionsDataExporterSm>>& exporterSm() const {
      return exporterSm_;
   }
   Kel::Ptr<OptionsDataExporterSm> exporterSm(const Kel::Name& name) const {
      return Kel::findEntry(exporterSm_, name);
   }

   // Creates, keeps or deletes the options data exporter of `expName`.
   void handleExpConfig(const Kel::Name& expName);

 private:
   class FtConfigReactor;
   class FlowTrackerInfoReactor;

   void handleInitialized();
   void initFlowKeySm();
   void initFlowTrackerTableSm();
   Kel::Ptr<OptionsDataSourceColl> trackerData() const;
   Kel::Ptr<OptionsDataUpdate> trackerUpdate() const;
   Kel::String sourceName(const char* kind) const { return ftName_ + "-" + kind; }
   void exporterSmIs(const Kel::Name& expName,
                     const Kel::Ptr<const HwFlowTracking::ExporterConfig>& hwExpConfig,
                     const Kel::Ptr<ExporterInfo>& expInfo);
   // By value: callers pass the key of the entry that this erases.
   void exporterSmDel(Kel::Name expName);

   const Kel::String ftName_;
   const FtId ftId_;
   const Kel::Ptr<const HwFlowTracking::Config> hwConfig_;
   const Kel::Ptr<const HwFlowTracking::Status> hwStatus_;
   const Kel::Ptr<const HwFlowTracking::FtConfig> hwFtConfig_;
   const Kel::Ptr<const HwFlowTracking::FtStatus> hwFtStatus_;
   const Kel::Ptr<FlowTrackerInfo> flowTrackerInfo_;
   const FlowTrackingType flowTrackingType_;
   const Kel::Ptr<Vorpa::Ipfix::CollectorStatistics> collStats_;
   const Kel::Ptr<OptionsDataContainer> dataContainer_;
   const Kel::Ptr<Bexa::TaskScheduler> scheduler_;
   Kel::Ptr<FlowKeySm> flowKeySm_;
   Kel::Ptr<FlowTrackerTableSm> flowTrackerTableSm_;
   std::map<Kel::Name, Kel::Ptr<OptionsDataExporterSm>> exporterSm_;
   std::unique_ptr<FtConfigReactor> ftConfigReactor_;
   std::unique_ptr<FlowTrackerInfoReactor> flowTrackerInfoReactor_;
   bool initialized_ = false;
};

// The options data of one flow-tracking type: the global data sources
// (interface and VRF tables) shared by all its trackers, and per tracker that
// has its configuration, its hardware status and its status record, the
// container its exporters read and its FtOptionsDataManagerSm.
class OptionsDataManagerSm : public Kel::PtrInterface {
 public:
   OptionsDataManagerSm(Kel::Ptr<const HwFlowTracking::Config> hwConfig,
                        Kel::Ptr<const HwFlowTracking::Status> hwStatus,
                        Kel::Ptr<FlowTrackingInfo> flowTrackingInfo,
                        Kel::Ptr<const IntfIndexMap> intfIndexMap,
                        Kel::Ptr<const Vrf::VrfIdMap::Status> vrfIdMapStatus,
                        Kel::Ptr<Vorpa::Ipfix::CollectorStatistics> collStats,
                        Kel::Ptr<Bexa::TaskScheduler> scheduler);
   ~OptionsDataManagerSm() override;

   const Kel::Ptr<OptionsDataAll>& dataAll() const { return dataAll_; }
   const Kel::Ptr<InterfaceTableSm>& intfTableSm() const { return intfTableSm_; }
   const Kel::Ptr<VrfTableSm>& vrfTableSm() const { return vrfTableSm_; }
   bool initialized() const { return initialized_; }

   const std::map<Kel::Name, Kel::Ptr<OptionsDataContainer>>& dataContainer() const {
      return dataContainer_;
   }
   Kel::Ptr<OptionsDataContainer> dataContainer(const Kel::Name& name) const {
      return Kel::findEntry(dataContainer_, name);
   }
   const std::map<Kel::String, Kel::Ptr<FtOptionsDataManagerSm>>& ftManagerSm() const {
      return ftManagerSm_;
   }
   Kel::Ptr<FtOptionsDataManagerSm> ftManagerSm(const Kel::String& name) const {
      return Kel::findEntry(ftManagerSm_, name);
   }

   // Creates, keeps or deletes everything of tracker `ftName`.
   void handleTracker(const Kel::Name& ftName);

 private:
   class ConfigReactor;
   class StatusReactor;
   class FlowTrackingInfoReactor;

   void handleInitialized();
   void initIntfTableSm();
   void initVrfTableSm();
   Kel::Ptr<OptionsDataContainer> dataContainerIs(const Kel::Name& ftName);
   void ftManagerSmIs(const Kel::Name& ftName, FtId ftId,
                      const Kel::Ptr<const HwFlowTracking::FtConfig>& hwFtConfig,
                      const Kel::Ptr<const HwFlowTracking::FtStatus>& hwFtStatus,
                      const Kel::Ptr<FlowTrackerInfo>& flowTrackerInfo,
                      const Kel::Ptr<OptionsDataContainer>& container);
   // By value: callers pass the key of an entry that this erases.
   void trackerDel(Kel::Name ftName);

   const Kel::Ptr<const HwFlowTracking::Config> hwConfig_;
   const Kel::Ptr<const HwFlowTracking::Status> hwStatus_;
   const Kel::Ptr<FlowTrackingInfo> flowTrackingInfo_;
   const Kel::Ptr<const IntfIndexMap> intfIndexMap_;
   const Kel::Ptr<const Vrf::VrfIdMap::Status> vrfIdMapStatus_;
   const Kel::Ptr<Vorpa::Ipfix::CollectorStatistics> collStats_;
   const Kel::Ptr<Bexa::TaskScheduler> scheduler_;
   Kel::Ptr<OptionsDataAll> dataAll_;
   Kel::Ptr<InterfaceTableSm> intfTableSm_;
   Kel::Ptr<VrfTableSm> vrfTableSm_;
   std::map<Kel::Name, Kel::Ptr<OptionsDataContainer>> dataContainer_;
   std::map<Kel::String, Kel::Ptr<FtOptionsDataManagerSm>> ftManagerSm_;
   std::unique_ptr<ConfigReactor> configReactor_;
   std::unique_ptr<StatusReactor> statusReactor_;
   std::unique_ptr<FlowTrackingInfoReactor> flowTrackingInfoReactor_;
   bool initialized_ = false;
};

// The agent's entry: the options data manager of one flow-tracking type. Also
// registered in Kel::TypeRegistry as "OptionsDataManagerSm".
Kel::Ptr<OptionsDataManagerSm> optionsDataManagerSmFactory(
    const Kel::Ptr<const HwFlowTracking::Config>& hwConfig,
    const Kel::Ptr<const HwFlowTracking::Status>& hwStatus,
    const Kel::Ptr<FlowTrackingInfo>& flowTrackingInfo,
    const Kel::Ptr<const IntfIndexMap>& intfIndexMap,
    const Kel::Ptr<const Vrf::VrfIdMap::Status>& vrfIdMapStatus,
    const Kel::Ptr<Vorpa::Ipfix::CollectorStatistics>& collStats,
    const Kel::Ptr<Bexa::TaskScheduler>& scheduler);

}  // namespace FlowTracking
