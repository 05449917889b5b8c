#pragma once

#include <map>
#include <memory>
#include <set>

#include "Bexa/TaskScheduler.h"
#include "HwFlowTracking/Config.h"
#include "Ipfix/CollectorStats.h"
#include "Ipfix/FlowTrackerInfoSm.h"
#include "Ipfix/MessageCache.h"
#include "Ipfix/OptionsDataCollector.h"
#include "Ipfix/OptionsDataExporter.h"

namespace FlowTracking {

using CollectorMap = std::map<Kel::String, Kel::Ptr<Collector>>;

// Room an exporter leaves in its MTU for the headers in front of a message: an
// IPv6 header (40) and a UDP header (8), so that a message fits whichever
// family carries it.
inline constexpr Kel::U32 ipAndUdpHeaderRoom = 48;

// Sends the options data of one tracker to the collectors of one of its
// exporters: the full tables every active interval and to each newly ready
// collector, from a cache of finished messages taken anew only when the data
// changes (its messages are shared with the other exporters, see
// MessageCache), and single-record updates, coalesced for a moment unless
// they already fill a message.
class OptionsDataExporterSm : public Kel::Entity {
 public:
   class Notifiee : public Kel::BaseNotifiee<OptionsDataExporterSm> {
    public:
      virtual void onInitialized() {}
   };

   OptionsDataExporterSm(Kel::Name expName, Kel::Name ftName, FtId ftId,
                         Kel::Ptr<const HwFlowTracking::FtConfig> hwFtConfig,
                         Kel::Ptr<const HwFlowTracking::ExporterConfig> hwExpConfig,
                         Kel::Ptr<ExporterInfo> expInfo,
                         Kel::Ptr<Vorpa::Ipfix::CollectorStatistics> collStats,
                         Kel::Ptr<const OptionsDataContainer> dataContainer,
                         Kel::Ptr<Bexa::TaskScheduler> scheduler);
   ~OptionsDataExporterSm() override;

   const Kel::Name& expName() const { return expName_; }
   const Kel::Name& ftName() const { return ftName_; }
   FtId ftId() const { return ftId_; }
   const Kel::Ptr<const HwFlowTracking::FtConfig>& hwFtConfig() const { return hwFtConfig_; }
   const Kel::Ptr<const HwFlowTracking::ExporterConfig>& hwExpConfig() const {
      return hwExpConfig_;
   }
   const Kel::Ptr<ExporterInfo>& expInfo() const { return expInfo_; }
   const Kel::Ptr<Vorpa::Ipfix::CollectorStatistics>& collStats() const { return collStats_; }
   const Kel::Ptr<const OptionsDataContainer>& dataContainer() const { return dataContainer_; }
   const Kel::Ptr<Bexa::TaskScheduler>& scheduler() const { return scheduler_; }
   const Kel::String& traceId() const { return traceId_; }

   Kel::Seconds updateDataCoalesceTime() const { return updateDataCoalesceTime_; }
   void updateDataCoalesceTimeIs(Kel::Seconds s) { updateDataCoalesceTime_ = s; }
   bool initialized() const { return initialized_; }
   bool processing() const { return processing_; }
   bool msgCacheValid() const { return msgCacheValid_; }
   Kel::U32 updateQueueBytes() const { return updateQueueBytes_; }
   Kel::U32 msgCacheBuildCount() const { return msgCacheBuildCount_; }
   std::size_t msgCacheCount() const { return msgCache_.count(); }
   // Octets of the cached messages as they go on the wire.
   std::size_t msgCacheOctets() const { return msgCache_.octets(); }
   const std::map<Kel::String, const Collector*>& collector() const { return collector_; }
   const Bexa::Task& updateTask() const { return *updateTask_; }
   const Bexa::Task& txPeriodicTask() const { return *txPeriodicTask_; }

   bool v4Ready() const;
   bool v6Ready() const;

   void handleCollector4(const Kel::String& name);
   void handleCollector6(const Kel::String& name);
   void handleSrc4();
   void handleSrc6();
   void handleUpdateData(OptionsDataScope scope);
   void processCollectorQueue();
   void maybeSchedulePeriodic();
   void maybeBeginPeriodicTransmission();
   void maybeBuildMsgCache();
   void flushUpdateQueue();
   void abortUpdates();

 private:
   class ContainerReactor;
   class UpdateReactor;
   class SourceCollReactor;
   class SourceReactor;
   class HwExpConfigReactor;
   class HwFtConfigReactor;
   class ExpInfoReactor;
   class CollInfoReactor;

   void traceEntry(std::string_view handler) const;
   void handleInitialized();
   void bindDataSources();
   void handleCollector(const Kel::String& name);
   void collInfoWatch(const Kel::String& name);
   void msgCacheInvalidate();
   void sendDataTables();
   // A fresh message in a builder for the exporter's message size.
   void startBuilding();
   // Sends one message to every ready collector and counts it.
   void sendMessageToCollectors(const MessageWrapper& msgWrap);
   // Sends one message to every ready collector, leaving it to be counted.
   void transmitToCollectors(const MessageWrapper& msgWrap) const;
   void updateCollectorStats() const;
   Kel::U16 maxMessageSize() const;
   // Sends each collector of one family in `family` the message, when ready.
   void sendToFamily(const CollectorMap& family, const MessageWrapper& msgWrap) const;
   bool familyReady(const Collector& c) const { return c.isIpv4() ? v4Ready() : v6Ready(); }
   void collectorDel(CollectorMap& family, CollectorMap::iterator it);
   template <class Dst>
   void handleCollectorOfFamily(const Kel::String& name, bool ipv4,
                                const std::map<Kel::String, Dst>& configured);

   const Kel::Name expName_;
   const Kel::Name ftName_;
   const FtId ftId_;
   const Kel::Ptr<const HwFlowTracking::FtConfig> hwFtConfig_;
   const Kel::Ptr<const HwFlowTracking::ExporterConfig> hwExpConfig_;
   const Kel::Ptr<ExporterInfo> expInfo_;
   const Kel::Ptr<Vorpa::Ipfix::CollectorStatistics> collStats_;
   const Kel::Ptr<const OptionsDataContainer> dataContainer_;
   const Kel::Ptr<Bexa::TaskScheduler> scheduler_;
   const Kel::String traceId_;

   Kel::Seconds updateDataCoalesceTime_ = 1.0;
   bool initialized_ = false;
   // A full transmission is under way. It runs to its end within one turn,
   // but a send can change the configuration and so re-enter the exporter; a
   // periodic start that finds it set is skipped, not nested.
   bool processing_ = false;
   bool msgCacheValid_ = false;
   Kel::U32 updateQueueBytes_ = 0;
   Kel::U32 msgCacheBuildCount_ = 0;

   std::map<TemplateId, UpdateSetQueue> update_;
   MessageCache msgCache_;
   BuilderWrapper builder_;
   CollectorMap collector4_;
   CollectorMap collector6_;
   std::map<Kel::String, const Collector*> collector_;
   std::set<Kel::String> collectorUpdate_;

   std::unique_ptr<Bexa::Task> updateTask_;
   std::unique_ptr<Bexa::Task> txPeriodicTask_;
   std::unique_ptr<Bexa::Task> collectorUpdateTask_;
   std::unique_ptr<ContainerReactor> containerReactor_;
   std::map<OptionsDataScope, std::unique_ptr<UpdateReactor>> updateDataEnt_;
   std::map<OptionsDataScope, std::unique_ptr<SourceCollReactor>> scopedDataSource_;
   std::unique_ptr<HwExpConfigReactor> hwExpConfigReactor_;
   std::unique_ptr<HwFtConfigReactor> hwFtConfigReactor_;
   std::unique_ptr<ExpInfoReactor> expInfoReactor_;
   std::map<Kel::String, std::unique_ptr<CollInfoReactor>> collInfo_;
};

Kel::Ptr<OptionsDataExporterSm> optionsDataExporterSmFactory(
    const Kel::Name& expName, const Kel::Name& ftName, FtId ftId,
    const Kel::Ptr<const HwFlowTracking::FtConfig>& hwFtConfig,
    const Kel::Ptr<const HwFlowTracking::ExporterConfig>& hwExpConfig,
    const Kel::Ptr<ExporterInfo>& expInfo,
    const Kel::Ptr<Vorpa::Ipfix::CollectorStatistics>& collStats,
    const Kel::Ptr<const OptionsDataContainer>& dataContainer,
    const Kel::Ptr<Bexa::TaskScheduler>& scheduler);

}  // namespace FlowTracking
