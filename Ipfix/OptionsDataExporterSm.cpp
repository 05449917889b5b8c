#include "Ipfix/OptionsDataExporterSm.h"

#include "Kel/Exception.h"
#include "Kel/Trace.h"

namespace FlowTracking {

namespace {

Kel::TraceHandle traceIpfix("Ipfix");

constexpr Bexa::TaskPriority optionsDataTaskPriority{2};
// Used while the tracker's configuration is absent.
constexpr Kel::U32 defaultActiveIntervalMs = 300000;

bool isSet(const Nivel::IpAndPort& d) {
   return !d.ip.isUnspecified() || d.port != 0;
}
bool isSet(const Nivel::Ip6AndPort& d) {
   return !d.ip.isUnspecified() || d.port != 0;
}

}  // namespace

// ---------------------------------------------------------------------------
// Reactors

// The set of data sources is fixed once the exporter is built: whoever changes
// it deletes and re-creates the exporters.
class OptionsDataExporterSm::ContainerReactor : public OptionsDataContainer::Notifiee {
 public:
   ContainerReactor(const Kel::Ptr<const OptionsDataContainer>& c, OptionsDataExporterSm* sm)
       : sm_(sm) {
      notifierIs(c);
   }
   void onData(OptionsDataScope) override {
      KEL_ASSERT_TEXT(false, "data source changed after init!");
   }
   void onUpdate(OptionsDataScope) override { sm_->bindDataSources(); }

 private:
   OptionsDataExporterSm* sm_;
};

class OptionsDataExporterSm::UpdateReactor : public OptionsDataUpdate::Notifiee {
 public:
   UpdateReactor(const Kel::Ptr<const OptionsDataUpdate>& u, OptionsDataExporterSm* sm) : sm_(sm) {
      notifierIs(u);
   }
   void onVersion() override { sm_->handleUpdateData(notifier()->scope()); }

 private:
   OptionsDataExporterSm* sm_;
};

class OptionsDataExporterSm::SourceReactor : public OptionsDataSource::Notifiee {
 public:
   SourceReactor(const Kel::Ptr<const OptionsDataSource>& s, OptionsDataExporterSm* sm) : sm_(sm) {
      notifierIs(s);
   }
   void onVersion() override { sm_->msgCacheInvalidate(); }

 private:
   OptionsDataExporterSm* sm_;
};

class OptionsDataExporterSm::SourceCollReactor : public OptionsDataSourceColl::Notifiee {
 public:
   SourceCollReactor(const Kel::Ptr<const OptionsDataSourceColl>& c, OptionsDataExporterSm* sm) {
      notifierIs(c);
      for (const auto& [name, source] : c->source()) {
         dataSourceEnt_.emplace(name, std::make_unique<SourceReactor>(source, sm));
      }
   }
   void onSource(const Kel::String&) override {
      KEL_ASSERT_TEXT(false, "data source changed after init!");
   }

 private:
   std::map<Kel::String, std::unique_ptr<SourceReactor>> dataSourceEnt_;
};

class OptionsDataExporterSm::HwExpConfigReactor : public HwFlowTracking::ExporterConfig::Notifiee {
 public:
   HwExpConfigReactor(const Kel::Ptr<const HwFlowTracking::ExporterConfig>& c,
                      OptionsDataExporterSm* sm)
       : sm_(sm) {
      notifierIs(c);
   }
   void onIpfixMtu() override { sm_->msgCacheInvalidate(); }
   void onSrcIpAddr() override { sm_->handleSrc4(); }
   void onSrcIp6Addr() override { sm_->handleSrc6(); }
   void onCollectorIpAndPort(const Kel::String& name) override { sm_->handleCollector4(name); }
   void onCollectorIp6AndPort(const Kel::String& name) override { sm_->handleCollector6(name); }

 private:
   OptionsDataExporterSm* sm_;
};

class OptionsDataExporterSm::HwFtConfigReactor : public HwFlowTracking::FtConfig::Notifiee {
 public:
   HwFtConfigReactor(const Kel::Ptr<const HwFlowTracking::FtConfig>& c, OptionsDataExporterSm* sm)
       : sm_(sm) {
      notifierIs(c);
   }
   void onActiveInterval() override { sm_->maybeBeginPeriodicTransmission(); }

 private:
   OptionsDataExporterSm* sm_;
};

class OptionsDataExporterSm::ExpInfoReactor : public ExporterInfo::Notifiee {
 public:
   ExpInfoReactor(const Kel::Ptr<ExporterInfo>& e, OptionsDataExporterSm* sm) : sm_(sm) {
      notifierIs(e);
   }
   void onUdpPam4() override { sm_->handleSrc4(); }
   void onUdpPam6() override { sm_->handleSrc6(); }
   void onCollInfo(const Kel::String& name) override {
      sm_->collInfoWatch(name);
      sm_->handleCollector4(name);
      sm_->handleCollector6(name);
   }

 private:
   OptionsDataExporterSm* sm_;
};

class OptionsDataExporterSm::CollInfoReactor : public CollectorInfo::Notifiee {
 public:
   CollInfoReactor(const Kel::Ptr<CollectorInfo>& c, OptionsDataExporterSm* sm) : sm_(sm) {
      notifierIs(c);
   }
   void onOptTemplateSent() override {
      const Kel::String name = notifier()->name();
      sm_->handleCollector4(name);
      sm_->handleCollector6(name);
   }

 private:
   OptionsDataExporterSm* sm_;
};

// ---------------------------------------------------------------------------
// OptionsDataExporterSm

OptionsDataExporterSm::OptionsDataExporterSm(
    Kel::Name expName, Kel::Name ftName, FtId ftId,
    Kel::Ptr<const HwFlowTracking::FtConfig> hwFtConfig,
    Kel::Ptr<const HwFlowTracking::ExporterConfig> hwExpConfig, Kel::Ptr<ExporterInfo> expInfo,
    Kel::Ptr<Vorpa::Ipfix::CollectorStatistics> collStats,
    Kel::Ptr<const OptionsDataContainer> dataContainer, Kel::Ptr<Bexa::TaskScheduler> scheduler)
    : expName_(std::move(expName)),
      ftName_(std::move(ftName)),
      ftId_(ftId),
      hwFtConfig_(std::move(hwFtConfig)),
      hwExpConfig_(std::move(hwExpConfig)),
      expInfo_(std::move(expInfo)),
      collStats_(std::move(collStats)),
      dataContainer_(std::move(dataContainer)),
      scheduler_(std::move(scheduler)),
      traceId_(expName_ + " for " + ftName_) {
   KEL_ASSERT(hwExpConfig_ && expInfo_ && collStats_ && dataContainer_ && scheduler_);
   containerReactor_ = std::make_unique<ContainerReactor>(dataContainer_, this);
   for (const auto& [scope, coll] : dataContainer_->data()) {
      scopedDataSource_.emplace(scope, std::make_unique<SourceCollReactor>(coll, this));
   }
   bindDataSources();
   hwExpConfigReactor_ = std::make_unique<HwExpConfigReactor>(hwExpConfig_, this);
   if (hwFtConfig_) {
      hwFtConfigReactor_ = std::make_unique<HwFtConfigReactor>(hwFtConfig_, this);
   }
   expInfoReactor_ = std::make_unique<ExpInfoReactor>(expInfo_, this);
   for (const auto& [name, info] : expInfo_->collInfo()) {
      collInfoWatch(name);
   }
   handleInitialized();
}

OptionsDataExporterSm::~OptionsDataExporterSm() = default;

void OptionsDataExporterSm::bindDataSources() {
   updateDataEnt_.clear();
   for (const auto& [scope, update] : dataContainer_->update()) {
      updateDataEnt_.emplace(scope, std::make_unique<UpdateReactor>(update, this));
   }
}

void OptionsDataExporterSm::collInfoWatch(const Kel::String& name) {
   if (const auto info = expInfo_->collInfo(name)) {
      auto& reactor = collInfo_[name];
      if (reactor) {
         reactor->notifierIs(info);
      } else {
         reactor = std::make_unique<CollInfoReactor>(info, this);
      }
   } else {
      collInfo_.erase(name);
   }
}

void OptionsDataExporterSm::traceEntry(std::string_view handler) const {
   KEL_TRACE(traceIpfix, 4, "OptionsDataExporterSm::{} for {}", handler, traceId_);
}

void OptionsDataExporterSm::handleInitialized() {
   traceEntry("handleInitialized");
   const Kel::String suffix = ftName_ + "-" + expName_;
   collectorUpdateTask_ =
       std::make_unique<Bexa::Task>(scheduler_, "optionsDataExporterCollectorUpdate-" + suffix,
                                    optionsDataTaskPriority, [this] { processCollectorQueue(); });
   updateTask_ =
       std::make_unique<Bexa::Task>(scheduler_, "optionsDataExporterUpdate-" + suffix,
                                    optionsDataTaskPriority, [this] { flushUpdateQueue(); });
   txPeriodicTask_ = std::make_unique<Bexa::Task>(
       scheduler_, "optionsDataExporterPeriodicTx-" + suffix, optionsDataTaskPriority,
       [this] { maybeBeginPeriodicTransmission(); });
   msgCacheValid_ = false;
   for (const auto& [name, dst] : hwExpConfig_->collectorIpAndPort()) {
      handleCollector4(name);
   }
   for (const auto& [name, dst] : hwExpConfig_->collectorIp6AndPort()) {
      handleCollector6(name);
   }
   attributeIs(initialized_, true, &Notifiee::onInitialized);
   if (v4Ready() || v6Ready()) {
      maybeBeginPeriodicTransmission();
   }
}

bool OptionsDataExporterSm::v4Ready() const {
   return expInfo_->udpPam4() && !hwExpConfig_->srcIpAddr().isUnspecified() && !collector4_.empty();
}

bool OptionsDataExporterSm::v6Ready() const {
   return expInfo_->udpPam6() && !hwExpConfig_->srcIp6Addr().isUnspecified() &&
          !collector6_.empty();
}

Kel::U16 OptionsDataExporterSm::maxMessageSize() const {
   return static_cast<Kel::U16>(hwExpConfig_->ipfixMtu() - ipAndUdpHeaderRoom);
}

template <class Dst>
void OptionsDataExporterSm::handleCollectorOfFamily(const Kel::String& name, bool ipv4,
                                                    const std::map<Kel::String, Dst>& configured) {
   auto& family = ipv4 ? collector4_ : collector6_;
   auto& other = ipv4 ? collector6_ : collector4_;
   const auto info = expInfo_->collInfo(name);
   const auto it = configured.find(name);
   const Dst dst = it == configured.end() ? Dst{} : it->second;
   KEL_TRACE(traceIpfix, 3, "{}: collector {}, collInfo: {}, dst: {}:{}, templateSent: {}",
             traceId_, name, info, dst.ip, dst.port, info && info->optTemplateSent());
   const auto existing = family.find(name);
   if (!(isSet(dst) && info && info->optTemplateSent())) {
      if (existing != family.end()) {
         collectorDel(family, existing);
         // The last collector gone ends the periodic transmission now.
         maybeSchedulePeriodic();
      }
      return;
   }
   if (existing != family.end()) {
      if (existing->second->info() == info && existing->second->hasDestination(dst)) {
         return;
      }
      KEL_TRACE(traceIpfix, 3, "{}: stale {} collector {}", traceId_, ipv4 ? "v4" : "v6", name);
      collectorDel(family, existing);
   }
   if (const auto elsewhere = other.find(name); elsewhere != other.end()) {
      collectorDel(other, elsewhere);
   }
   const auto [inserted, ok] = family.emplace(name, Kel::makePtr<Collector>(info, dst));
   collector_[name] = inserted->second.ptr();
   handleCollector(name);
}

void OptionsDataExporterSm::collectorDel(CollectorMap& family, CollectorMap::iterator it) {
   it->second->retire();
   collector_.erase(it->first);
   family.erase(it);
}

void OptionsDataExporterSm::handleCollector4(const Kel::String& name) {
   traceEntry("handleCollector4");
   handleCollectorOfFamily(name, true, hwExpConfig_->collectorIpAndPort());
}

void OptionsDataExporterSm::handleCollector6(const Kel::String& name) {
   traceEntry("handleCollector6");
   handleCollectorOfFamily(name, false, hwExpConfig_->collectorIp6AndPort());
}

void OptionsDataExporterSm::handleCollector(const Kel::String& name) {
   traceEntry("handleCollector");
   if (!initialized_) {
      return;
   }
   KEL_TRACE(traceIpfix, 3, "{}: name: {}", traceId_, name);
   collectorUpdate_.insert(name);
   collectorUpdateTask_->scheduleTask();
}

void OptionsDataExporterSm::handleSrc4() {
   traceEntry("handleSrc4");
   KEL_TRACE(traceIpfix, 3, "{}: src: {}", traceId_, hwExpConfig_->srcIpAddr());
   if (v4Ready()) {
      for (const auto& [name, c] : collector4_) {
         handleCollector(name);
      }
   }
   maybeSchedulePeriodic();
}

void OptionsDataExporterSm::handleSrc6() {
   traceEntry("handleSrc6");
   KEL_TRACE(traceIpfix, 3, "{}: src: {}", traceId_, hwExpConfig_->srcIp6Addr());
   if (v6Ready()) {
      for (const auto& [name, c] : collector6_) {
         handleCollector(name);
      }
   }
   maybeSchedulePeriodic();
}

void OptionsDataExporterSm::processCollectorQueue() {
   traceEntry("processCollectorQueue");
   if (!initialized_) {
      return;
   }
   // Names queued while this sends (a collector readdressed by then) wait for
   // the next run.
   const std::set<Kel::String> queued = std::exchange(collectorUpdate_, {});
   for (const Kel::String& name : queued) {
      const auto it4 = collector4_.find(name);
      const auto it6 = collector6_.find(name);
      const Kel::Ptr<Collector> c = it4 != collector4_.end()   ? it4->second
                                    : it6 != collector6_.end() ? it6->second
                                                               : nullptr;
      KEL_TRACE(traceIpfix, 3, "{}: name: {}, exists: {}", traceId_, name, c != nullptr);
      if (!c || !familyReady(*c)) {
         continue;
      }
      maybeBuildMsgCache();
      msgCache_.forEach([&](const MessageWrapper& msgWrap) {
         if (!c->active() || !familyReady(*c)) {
            return false;
         }
         c->sendMessage(*this, msgWrap);
         return true;
      });
      if (c->active()) {
         c->updateStats(*this);
      }
   }
   maybeSchedulePeriodic();
}

void OptionsDataExporterSm::maybeSchedulePeriodic() {
   traceEntry("maybeSchedulePeriodic");
   if (!txPeriodicTask_) {
      return;
   }
   if (!v4Ready() && !v6Ready()) {
      KEL_TRACE(traceIpfix, 3, "{}: unschedule periodic transmission", traceId_);
      txPeriodicTask_->stopTask();
      return;
   }
   const Kel::U32 intervalMs =
       hwFtConfig_ ? hwFtConfig_->activeInterval() : defaultActiveIntervalMs;
   const Kel::Seconds interval = intervalMs / 1000.0;
   KEL_TRACE(traceIpfix, 3, "{}: schedule periodic transmission {}", traceId_, interval);
   txPeriodicTask_->scheduleTaskLowestDelay(interval);
}

void OptionsDataExporterSm::maybeBeginPeriodicTransmission() {
   traceEntry("maybeBeginPeriodicTransmission");
   if (!initialized_) {
      return;
   }
   if (processing_) {
      KEL_TRACE(traceIpfix, 3, "{}: processing, do not start new periodic transmission", traceId_);
      return;
   }
   if (!v4Ready() && !v6Ready()) {
      KEL_TRACE(traceIpfix, 3, "{}: tx not ready, do not start new periodic transmission",
                traceId_);
      return;
   }
   KEL_TRACE(traceIpfix, 3, "{}: starting new periodic transmission", traceId_);
   maybeBuildMsgCache();
   // The full tables supersede every queued update.
   abortUpdates();
   processing_ = true;
   sendDataTables();
}

void OptionsDataExporterSm::sendDataTables() {
   traceEntry("sendDataTables");
   if (!initialized_ || !processing_) {
      return;
   }
   KEL_TRACE(traceIpfix, 3, "{}: msgCache count: {}", traceId_, msgCache_.count());
   // The statistics entry of each collector is updated once for the whole
   // cache: on this path, it would otherwise cost more than our own send.
   msgCache_.forEach([this](const MessageWrapper& msgWrap) {
      transmitToCollectors(msgWrap);
      return true;
   });
   updateCollectorStats();
   processing_ = false;
   // The next period counts from the end of this transmission.
   maybeSchedulePeriodic();
}

void OptionsDataExporterSm::startBuilding() {
   KEL_TRACE(traceIpfix, 3, "{}: IPFIX max msg size: {}", traceId_, maxMessageSize());
   builder_.builderIs(maxMessageSize(), ftId_);
   builder_.startMsg();
}

void OptionsDataExporterSm::msgCacheInvalidate() {
   msgCacheValid_ = false;
   msgCache_.dropStale(*dataContainer_, maxMessageSize());
}

void OptionsDataExporterSm::maybeBuildMsgCache() {
   traceEntry("maybeBuildMsgCache");
   KEL_ASSERT(initialized());
   KEL_ASSERT(!processing());
   KEL_TRACE(traceIpfix, 3, "{}: msgCacheValid:{}", traceId_, msgCacheValid_);
   if (msgCacheValid_) {
      return;
   }
   ++msgCacheBuildCount_;
   KEL_TRACE(traceIpfix, 3, "{}: IPFIX max msg size: {}", traceId_, maxMessageSize());
   // Built before the old cache lets go of its runs: those still current are
   // taken again rather than built anew.
   msgCache_ = MessageCache(*dataContainer_, maxMessageSize());
   KEL_TRACE(traceIpfix, 3, "{}: msgCache count: {}", traceId_, msgCache_.count());
   msgCacheValid_ = true;
}

void OptionsDataExporterSm::handleUpdateData(OptionsDataScope scope) {
   traceEntry("handleUpdateData");
   KEL_ASSERT(initialized());
   const auto update = dataContainer_->update(scope);
   if (!update) {
      return;
   }
   const DataRecordPtr& record = update->dataRecord();
   updateQueueBytes_ += record ? record->dataLen() : 0;
   update_[update->dataSetId()].push_back(record);
   const Kel::U32 limit = hwExpConfig_->ipfixMtu() - ipAndUdpHeaderRoom;
   const Kel::U32 overhead = MessageBuilder::calcOverhead(static_cast<Kel::U32>(update_.size()));
   if (overhead + updateQueueBytes_ < limit) {
      KEL_TRACE(traceIpfix, 3, "{}: coalescing, updateQueueBytes:{}", traceId_, updateQueueBytes_);
      updateTask_->scheduleTaskLowestDelay(updateDataCoalesceTime_);
   } else {
      KEL_TRACE(traceIpfix, 3, "{}: schedule immediate, updateQueueBytes:{}", traceId_,
                updateQueueBytes_);
      updateTask_->scheduleTask();
   }
}

void OptionsDataExporterSm::flushUpdateQueue() {
   traceEntry("flushUpdateQueue");
   if (!initialized_ || updateQueueBytes_ == 0) {
      return;
   }
   startBuilding();
   const auto send = [this](const Kel::Ptr<MessageWrapper>& msgWrap) {
      sendMessageToCollectors(*msgWrap);
   };
   bool yielded = false;
   for (auto it = update_.begin(); it != update_.end() && !yielded;) {
      auto& [setId, queue] = *it;
      while (!queue.empty() && !yielded) {
         const DataRecordPtr record = std::move(queue.front());
         queue.pop_front();
         if (record) {
            builder_.addRecord(setId, record, send);
            updateQueueBytes_ -= record->dataLen();
         }
         yielded = scheduler_->shouldYield();
      }
      it = queue.empty() ? update_.erase(it) : std::next(it);
   }
   if (builder_.hasRecords()) {
      sendMessageToCollectors(*builder_.finalizeMsg());
   }
   if (updateQueueBytes_ != 0) {
      updateTask_->scheduleTask();
   }
}

void OptionsDataExporterSm::abortUpdates() {
   traceEntry("abortUpdates");
   KEL_TRACE(traceIpfix, 3, "{}: queue bytes: {}", traceId_, updateQueueBytes_);
   updateTask_->stopTask();
   update_.clear();
   updateQueueBytes_ = 0;
}

void OptionsDataExporterSm::sendToFamily(const CollectorMap& family,
                                         const MessageWrapper& msgWrap) const {
   // A send may change the family (configuration changed meanwhile): hold the
   // collector, and find the next one by its name, which its record keeps.
   for (auto it = family.begin(); it != family.end();) {
      const Kel::Ptr<Collector> c = it->second;
      if (familyReady(*c)) {
         c->sendMessage(*this, msgWrap);
      }
      it = family.upper_bound(c->info()->name());
   }
}

void OptionsDataExporterSm::sendMessageToCollectors(const MessageWrapper& msgWrap) {
   transmitToCollectors(msgWrap);
   updateCollectorStats();
}

void OptionsDataExporterSm::transmitToCollectors(const MessageWrapper& msgWrap) const {
   sendToFamily(collector4_, msgWrap);
   sendToFamily(collector6_, msgWrap);
}

void OptionsDataExporterSm::updateCollectorStats() const {
   for (const auto* family : {&collector4_, &collector6_}) {
      for (const auto& [name, c] : *family) {
         c->updateStats(*this);
      }
   }
}

Kel::Ptr<OptionsDataExporterSm> optionsDataExporterSmFactory(
    const Kel::Name& expName, const Kel::Name& ftName, FtId ftId,
    const Kel::Ptr<const HwFlowTracking::FtConfig>& hwFtConfig,
    const Kel::Ptr<const HwFlowTracking::ExporterConfig>& hwExpConfig,
    const Kel::Ptr<ExporterInfo>& expInfo,
    const Kel::Ptr<Vorpa::Ipfix::CollectorStatistics>& collStats,
    const Kel::Ptr<const OptionsDataContainer>& dataContainer,
    const Kel::Ptr<Bexa::TaskScheduler>& scheduler) {
   return Kel::makeActive<OptionsDataExporterSm>(expName, ftName, ftId, hwFtConfig, hwExpConfig,
                                                 expInfo, collStats, dataContainer, scheduler);
}

}  // namespace FlowTracking
