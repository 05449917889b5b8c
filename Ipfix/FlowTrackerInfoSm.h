#pragma once

#include <map>
#include <memory>

#include "Bexa/TaskScheduler.h"
#include "HwFlowTracking/Config.h"
#include "Ipfix/FlowTrackingTypes.h"
#include "Ipfix/Ipfix.h"

// The state machines of the flow-tracking status tree: per flow-tracking type,
// tracker and exporter one that follows the hardware configuration and keeps
// the status records (FlowTrackingTypes.h) that the template and options-data
// senders read and write.
namespace FlowTracking {

// One exporter: opens its sockets in a task of its own, keeps a record per
// configured collector, publishes ports and readiness, and logs when it
// becomes active or inactive.
class ExporterInfoSm : public Kel::Entity {
 public:
   class Notifiee : public Kel::BaseNotifiee<ExporterInfoSm> {
    public:
      virtual void onInitialized() {}
   };

   ExporterInfoSm(FlowTrackingType ftrType, Kel::Name ftName, Kel::Name expName,
                  Kel::Ptr<HwFlowTracking::ExporterConfig> hwExpConfig,
                  Kel::Ptr<ExporterInfo> expInfo, Kel::Ptr<Bexa::TaskScheduler> scheduler,
                  Kel::Ptr<const Ipfix::AgentInfo> agentInfo);
   ~ExporterInfoSm() override;

   FlowTrackingType ftrType() const { return ftrType_; }
   const Kel::Name& ftName() const { return ftName_; }
   const Kel::Name& expName() const { return expName_; }
   const Kel::Ptr<HwFlowTracking::ExporterConfig>& hwExpConfig() const { return hwExpConfig_; }
   const Kel::Ptr<ExporterInfo>& expInfo() const { return expInfo_; }
   const Kel::Ptr<Bexa::TaskScheduler>& scheduler() const { return scheduler_; }
   const Kel::Ptr<const Ipfix::AgentInfo>& agentInfo() const { return agentInfo_; }
   bool expActiveLogged() const { return expActiveLogged_; }
   const Kel::String& traceId() const { return traceId_; }
   const Bexa::Task* pamManagementTask() const { return pamManagementTask_.get(); }
   bool initialized() const { return initialized_; }

   void handlePamManagementTask();
   void createPam4();
   void createPam6();
   void handleCollector();
   void handleCollector(const Kel::String& name);
   void handleRxPort4();
   void handleRxPort6();
   void handleExporterResolved();
   // Closes the sockets, drops the collectors and clears what was published,
   // then stops reacting. Run once, when the machine is deleted.
   void handleDestroyed();

 private:
   class HwExpConfigReactor;
   class ExpInfoReactor;

   void handleInitialized();
   void handleRxPort(bool ipv6);
   void traceEntry(const char* handler) const;

   const FlowTrackingType ftrType_;
   const Kel::Name ftName_;
   const Kel::Name expName_;
   const Kel::Ptr<HwFlowTracking::ExporterConfig> hwExpConfig_;
   const Kel::Ptr<ExporterInfo> expInfo_;
   const Kel::Ptr<Bexa::TaskScheduler> scheduler_;
   const Kel::Ptr<const Ipfix::AgentInfo> agentInfo_;
   bool expActiveLogged_ = false;
   const Kel::String traceId_;
   bool initialized_ = false;
   bool destroyed_ = false;
   std::unique_ptr<Bexa::Task> pamManagementTask_;
   std::unique_ptr<HwExpConfigReactor> hwExpConfigReactor_;
   std::unique_ptr<ExpInfoReactor> expInfoReactor_;
};

// One tracker: one exporter machine per configured exporter.
class FlowTrackerInfoSm : public Kel::Entity {
 public:
   class Notifiee : public Kel::BaseNotifiee<FlowTrackerInfoSm> {
    public:
      virtual void onExpInfoSm(const Kel::Name&) {}
      virtual void onInitialized() {}
   };

   FlowTrackerInfoSm(FlowTrackingType ftrType, Kel::Name ftName,
                     Kel::Ptr<HwFlowTracking::FtConfig> hwFtConfig,
                     Kel::Ptr<FlowTrackerInfo> ftInfo, Kel::Ptr<Bexa::TaskScheduler> scheduler,
                     Kel::Ptr<const Ipfix::AgentInfo> agentInfo);
   ~FlowTrackerInfoSm() override;

   FlowTrackingType ftrType() const { return ftrType_; }
   const Kel::Name& ftName() const { return ftName_; }
   const Kel::Ptr<HwFlowTracking::FtConfig>& hwFtConfig() const { return hwFtConfig_; }
   const Kel::Ptr<FlowTrackerInfo>& ftInfo() const { return ftInfo_; }
   const Kel::Ptr<Bexa::TaskScheduler>& scheduler() const { return scheduler_; }
   const Kel::Ptr<const Ipfix::AgentInfo>& agentInfo() const { return agentInfo_; }
   bool initialized() const { return initialized_; }

   const std::map<Kel::Name, Kel::Ptr<ExporterInfoSm>>& expInfoSm() const { return expInfoSm_; }
   Kel::Ptr<ExporterInfoSm> expInfoSm(const Kel::Name& name) const {
      return Kel::findEntry(expInfoSm_, name);
   }
   // Finds or creates the exporter machine; an existing one with different
   // constructor arguments is refused with Kel::NameInUseException.
   Kel::Ptr<ExporterInfoSm> expInfoSmIs(FlowTrackingType ftrType, const Kel::Name& ftName,
                                        const Kel::Name& expName,
                                        const Kel::Ptr<HwFlowTracking::ExporterConfig>& hwExpConfig,
                                        const Kel::Ptr<ExporterInfo>& expInfo,
                                        const Kel::Ptr<Bexa::TaskScheduler>& scheduler,
                                        const Kel::Ptr<const Ipfix::AgentInfo>& agentInfo);
   void expInfoSmDel(const Kel::Name& name);
   void expInfoSmDelAll();

   void handleHwExpConfig(const Kel::Name& name);
   // Deletes every exporter machine; run once, when the machine is deleted.
   void handleDestroyed();

 private:
   class HwFtConfigReactor;

   void handleInitialized();

   const FlowTrackingType ftrType_;
   const Kel::Name ftName_;
   const Kel::Ptr<HwFlowTracking::FtConfig> hwFtConfig_;
   const Kel::Ptr<FlowTrackerInfo> ftInfo_;
   const Kel::Ptr<Bexa::TaskScheduler> scheduler_;
   const Kel::Ptr<const Ipfix::AgentInfo> agentInfo_;
   std::map<Kel::Name, Kel::Ptr<ExporterInfoSm>> expInfoSm_;
   bool initialized_ = false;
   bool destroyed_ = false;
   std::unique_ptr<HwFtConfigReactor> hwFtConfigReactor_;
};

// One flow-tracking type: one tracker machine per configured tracker.
class FlowTrackingInfoSm : public Kel::Entity {
 public:
   class Notifiee : public Kel::BaseNotifiee<FlowTrackingInfoSm> {
    public:
      virtual void onFtInfoSm(const Kel::Name&) {}
      virtual void onInitialized() {}
   };

   FlowTrackingInfoSm(Kel::Ptr<Bexa::TaskSchedulerRoot> schedulerRoot,
                      Kel::Ptr<HwFlowTracking::Config> hwConfig,
                      Kel::Ptr<FlowTrackingInfo> flowTrackingInfo,
                      Kel::Ptr<const Ipfix::AgentInfo> agentInfo);
   ~FlowTrackingInfoSm() override;

   const Kel::Ptr<Bexa::TaskSchedulerRoot>& schedulerRoot() const { return schedulerRoot_; }
   const Kel::Ptr<HwFlowTracking::Config>& hwConfig() const { return hwConfig_; }
   const Kel::Ptr<FlowTrackingInfo>& flowTrackingInfo() const { return flowTrackingInfo_; }
   const Kel::Ptr<const Ipfix::AgentInfo>& agentInfo() const { return agentInfo_; }
   bool initialized() const { return initialized_; }

   const std::map<Kel::Name, Kel::Ptr<FlowTrackerInfoSm>>& ftInfoSm() const { return ftInfoSm_; }
   Kel::Ptr<FlowTrackerInfoSm> ftInfoSm(const Kel::Name& name) const {
      return Kel::findEntry(ftInfoSm_, name);
   }
   Kel::Ptr<FlowTrackerInfoSm> ftInfoSmIs(FlowTrackingType ftrType, const Kel::Name& name,
                                          const Kel::Ptr<HwFlowTracking::FtConfig>& hwFtConfig,
                                          const Kel::Ptr<FlowTrackerInfo>& ftInfo,
                                          const Kel::Ptr<Bexa::TaskScheduler>& scheduler,
                                          const Kel::Ptr<const Ipfix::AgentInfo>& agentInfo);
   void ftInfoSmDel(const Kel::Name& name);
   void ftInfoSmDelAll();

   void handleHwFtConfig(const Kel::Name& name);

 private:
   class HwConfigReactor;

   void handleInitialized();

   const Kel::Ptr<Bexa::TaskSchedulerRoot> schedulerRoot_;
   const Kel::Ptr<HwFlowTracking::Config> hwConfig_;
   const Kel::Ptr<FlowTrackingInfo> flowTrackingInfo_;
   const Kel::Ptr<const Ipfix::AgentInfo> agentInfo_;
   std::map<Kel::Name, Kel::Ptr<FlowTrackerInfoSm>> ftInfoSm_;
   bool initialized_ = false;
   std::unique_ptr<HwConfigReactor> hwConfigReactor_;
};

Kel::Ptr<FlowTrackingInfoSm> flowTrackingInfoSmFactory(
    const Kel::Ptr<Bexa::TaskSchedulerRoot>& schedulerRoot,
    const Kel::Ptr<HwFlowTracking::Config>& hwConfig,
    const Kel::Ptr<FlowTrackingInfo>& flowTrackingInfo,
    const Kel::Ptr<const Ipfix::AgentInfo>& agentInfo);
Kel::Ptr<FlowTrackerInfoSm> flowTrackerInfoSmFactory(
    FlowTrackingType ftrType, const Kel::Name& ftName,
    const Kel::Ptr<HwFlowTracking::FtConfig>& hwFtConfig, const Kel::Ptr<FlowTrackerInfo>& ftInfo,
    const Kel::Ptr<Bexa::TaskScheduler>& scheduler,
    const Kel::Ptr<const Ipfix::AgentInfo>& agentInfo);
Kel::Ptr<ExporterInfoSm> exporterInfoSmFactory(
    FlowTrackingType ftrType, const Kel::Name& ftName, const Kel::Name& expName,
    const Kel::Ptr<HwFlowTracking::ExporterConfig>& hwExpConfig,
    const Kel::Ptr<ExporterInfo>& expInfo, const Kel::Ptr<Bexa::TaskScheduler>& scheduler,
    const Kel::Ptr<const Ipfix::AgentInfo>& agentInfo);

}  // namespace FlowTracking
