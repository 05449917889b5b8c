#pragma once

#include <map>
#include <memory>

#include "Bexa/TaskScheduler.h"
#include "HwFlowTracking/Config.h"
#include "Ipfix/FlowTrackingTypes.h"
#include "Ipfix/Ipfix.h"
#include "Nivel/UdpPam.h"

// The flow-tracking status tree: per flow-tracking type, tracker and exporter a
// state machine that follows the hardware configuration and a status record
// that the template and options-data senders read and write.
namespace FlowTracking {

// One collector of an exporter: the sequence number every sender of that
// exporter shares, and whether it has the options templates.
class CollectorInfo : public Kel::Entity {
 public:
   class Notifiee : public Kel::BaseNotifiee<CollectorInfo> {
    public:
      virtual void onIpfixMsgSeqNo() {}
      virtual void onOptTemplateSent() {}
   };

   explicit CollectorInfo(Kel::String name) : name_(std::move(name)) {}
   const Kel::String& name() const { return name_; }

   Ipfix::IpfixMsgSeqNo ipfixMsgSeqNo() const { return ipfixMsgSeqNo_; }
   void ipfixMsgSeqNoIs(Ipfix::IpfixMsgSeqNo v) {
      attributeIs(ipfixMsgSeqNo_, v, &Notifiee::onIpfixMsgSeqNo);
   }
   // Advances the sequence number by `n` (modulo 2^32) and returns it.
   Ipfix::IpfixMsgSeqNo ipfixMsgSeqNoInc(Kel::U32 n) {
      ipfixMsgSeqNoIs(ipfixMsgSeqNo_ + Ipfix::IpfixMsgSeqNo(n));
      return ipfixMsgSeqNo_;
   }
   bool optTemplateSent() const { return optTemplateSent_; }
   void optTemplateSentIs(bool v) {
      attributeIs(optTemplateSent_, v, &Notifiee::onOptTemplateSent);
   }

 private:
   Kel::String name_;
   Ipfix::IpfixMsgSeqNo ipfixMsgSeqNo_;
   bool optTemplateSent_ = false;
};

// One exporter of a tracker: its sockets, their local ports once known, and
// its collectors.
class ExporterInfo : public Kel::Entity {
 public:
   class Notifiee : public Kel::BaseNotifiee<ExporterInfo> {
    public:
      virtual void onUdpPam4() {}
      virtual void onUdpPam6() {}
      virtual void onRxPort4() {}
      virtual void onRxPort6() {}
      virtual void onCollInfo(const Kel::String&) {}
   };

   explicit ExporterInfo(Kel::Name name) : name_(std::move(name)) {}
   const Kel::Name& name() const { return name_; }

   const Kel::Ptr<Nivel::UdpPam>& udpPam4() const { return udpPam4_; }
   void udpPam4Is(const Kel::Ptr<Nivel::UdpPam>& v) {
      attributeIs(udpPam4_, v, &Notifiee::onUdpPam4);
   }
   const Kel::Ptr<Nivel::UdpPam>& udpPam6() const { return udpPam6_; }
   void udpPam6Is(const Kel::Ptr<Nivel::UdpPam>& v) {
      attributeIs(udpPam6_, v, &Notifiee::onUdpPam6);
   }
   // Local port of each socket; 0 until a template has been sent through it.
   Nivel::Port rxPort4() const { return rxPort4_; }
   void rxPort4Is(Nivel::Port v) { attributeIs(rxPort4_, v, &Notifiee::onRxPort4); }
   Nivel::Port rxPort6() const { return rxPort6_; }
   void rxPort6Is(Nivel::Port v) { attributeIs(rxPort6_, v, &Notifiee::onRxPort6); }

   const std::map<Kel::String, Kel::Ptr<CollectorInfo>>& collInfo() const { return collInfo_; }
   Kel::Ptr<CollectorInfo> collInfo(const Kel::String& name) const {
      return Kel::findEntry(collInfo_, name);
   }
   // The collector's record, created with sequence number 0 when absent.
   Kel::Ptr<CollectorInfo> collInfoIs(const Kel::String& name) {
      return entryFindOrCreate(
          collInfo_, name, [&] { return Kel::makeActive<CollectorInfo>(name); },
          &Notifiee::onCollInfo);
   }
   void collInfoDel(const Kel::String& name) { entryDel(collInfo_, name, &Notifiee::onCollInfo); }
   void collInfoDelAll() { entryDelAll(collInfo_, &Notifiee::onCollInfo); }

 private:
   Kel::Name name_;
   Kel::Ptr<Nivel::UdpPam> udpPam4_;
   Kel::Ptr<Nivel::UdpPam> udpPam6_;
   Nivel::Port rxPort4_ = 0;
   Nivel::Port rxPort6_ = 0;
   std::map<Kel::String, Kel::Ptr<CollectorInfo>> collInfo_;
};

class FlowTrackerInfo : public Kel::Entity {
 public:
   class Notifiee : public Kel::BaseNotifiee<FlowTrackerInfo> {
    public:
      virtual void onExpInfo(const Kel::Name&) {}
   };

   explicit FlowTrackerInfo(Kel::Name name) : name_(std::move(name)) {}
   const Kel::Name& name() const { return name_; }

   const std::map<Kel::Name, Kel::Ptr<ExporterInfo>>& expInfo() const { return expInfo_; }
   Kel::Ptr<ExporterInfo> expInfo(const Kel::Name& name) const {
      return Kel::findEntry(expInfo_, name);
   }
   Kel::Ptr<ExporterInfo> expInfoIs(const Kel::Name& name) {
      return entryFindOrCreate(
          expInfo_, name, [&] { return Kel::makeActive<ExporterInfo>(name); },
          &Notifiee::onExpInfo);
   }
   void expInfoDel(const Kel::Name& name) { entryDel(expInfo_, name, &Notifiee::onExpInfo); }
   void expInfoDelAll() { entryDelAll(expInfo_, &Notifiee::onExpInfo); }

 private:
   Kel::Name name_;
   std::map<Kel::Name, Kel::Ptr<ExporterInfo>> expInfo_;
};

class FlowTrackingInfo : public Kel::Entity {
 public:
   class Notifiee : public Kel::BaseNotifiee<FlowTrackingInfo> {
    public:
      virtual void onFtInfo(const Kel::Name&) {}
   };

   explicit FlowTrackingInfo(FlowTrackingType type) : flowTrackingType_(type) {}
   FlowTrackingType flowTrackingType() const { return flowTrackingType_; }

   const std::map<Kel::Name, Kel::Ptr<FlowTrackerInfo>>& ftInfo() const { return ftInfo_; }
   Kel::Ptr<FlowTrackerInfo> ftInfo(const Kel::Name& name) const {
      return Kel::findEntry(ftInfo_, name);
   }
   Kel::Ptr<FlowTrackerInfo> ftInfoIs(const Kel::Name& name) {
      return entryFindOrCreate(
          ftInfo_, name, [&] { return Kel::makeActive<FlowTrackerInfo>(name); },
          &Notifiee::onFtInfo);
   }
   void ftInfoDel(const Kel::Name& name) { entryDel(ftInfo_, name, &Notifiee::onFtInfo); }
   void ftInfoDelAll() { entryDelAll(ftInfo_, &Notifiee::onFtInfo); }

 private:
   FlowTrackingType flowTrackingType_;
   std::map<Kel::Name, Kel::Ptr<FlowTrackerInfo>> ftInfo_;
};

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
