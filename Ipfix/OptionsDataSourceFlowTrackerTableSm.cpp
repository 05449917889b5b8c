#include "Ipfix/OptionsDataSourceFlowTrackerTableSm.h"

#include <algorithm>
#include <array>

#include "FlowTracking/Constants.h"
#include "Kel/Trace.h"

namespace FlowTracking {

namespace {

Kel::TraceHandle traceIpfix("Ipfix");

constexpr Bexa::TaskPriority updateTaskPriority{2};

// Random n-out-of-N sampling in the IANA selector algorithm registry: the
// hardware samples one packet out of every sampleRate at random.
constexpr Kel::U16 randomNOutOfNSampling = 3;
constexpr Kel::U32 samplingSize = 1;

// Every field but the name: id 4, name length 1, timeouts 2 + 2, selector
// algorithm 2, sampling size and population 4 + 4, flow-tracking type 2.
constexpr Kel::U32 fixedRecordLen = 21;

}  // namespace

std::string_view paramName(FlowTrackerTableSm::Param param) {
   switch (param) {
      case FlowTrackerTableSm::Param::sampleRate:
         return "sampleRate";
      case FlowTrackerTableSm::Param::activeInterval:
         return "activeInterval";
      case FlowTrackerTableSm::Param::inactiveTimeout:
         return "inactiveTimeout";
   }
   return "unknown";
}

class FlowTrackerTableSm::StatusReactor : public HwFlowTracking::Status::Notifiee {
 public:
   StatusReactor(const Kel::Ptr<const HwFlowTracking::Status>& s, FlowTrackerTableSm* sm)
       : sm_(sm) {
      notifierIs(s);
   }
   void onSampleRate() override { sm_->handleParamChange(Param::sampleRate); }

 private:
   FlowTrackerTableSm* sm_;
};

class FlowTrackerTableSm::FtStatusReactor : public HwFlowTracking::FtStatus::Notifiee {
 public:
   FtStatusReactor(const Kel::Ptr<const HwFlowTracking::FtStatus>& s, FlowTrackerTableSm* sm)
       : sm_(sm) {
      notifierIs(s);
   }
   void onActiveInterval() override { sm_->handleParamChange(Param::activeInterval); }
   void onInactiveTimeout() override { sm_->handleParamChange(Param::inactiveTimeout); }

 private:
   FlowTrackerTableSm* sm_;
};

FlowTrackerTableSm::FlowTrackerTableSm(Kel::Ptr<OptionsDataSource> dataSource,
                                       Kel::Ptr<OptionsDataUpdate> update,
                                       Kel::Ptr<const HwFlowTracking::Status> hwStatus,
                                       Kel::Ptr<const HwFlowTracking::FtConfig> hwFtConfig,
                                       Kel::Ptr<const HwFlowTracking::FtStatus> hwFtStatus,
                                       FlowTrackingType flowTrackingType,
                                       Kel::Ptr<Bexa::TaskScheduler> scheduler)
    : dataSource_(std::move(dataSource)),
      update_(std::move(update)),
      hwStatus_(std::move(hwStatus)),
      hwFtConfig_(std::move(hwFtConfig)),
      hwFtStatus_(std::move(hwFtStatus)),
      flowTrackingType_(flowTrackingType),
      scheduler_(std::move(scheduler)),
      setIdVal_(Constants::reservedTemplateId(StaticTemplateId::flowTrackerTable)) {
   KEL_ASSERT(dataSource_ && update_ && hwStatus_ && hwFtStatus_ && scheduler_);
   statusReactor_ = std::make_unique<StatusReactor>(hwStatus_, this);
   ftStatusReactor_ = std::make_unique<FtStatusReactor>(hwFtStatus_, this);
}

FlowTrackerTableSm::~FlowTrackerTableSm() = default;

DataRecordPtr FlowTrackerTableSm::makeDataRecord() const {
   const Kel::Seconds active = hwFtStatus_->activeInterval();
   KEL_ASSERT_TEXT(active < Kel::maxU16(), "active.seconds() < Kel::maxU16()");
   const Kel::Seconds inactive = hwFtStatus_->inactiveTimeout();
   KEL_ASSERT_TEXT(inactive < Kel::maxU16(), "inactive.seconds() < Kel::maxU16()");
   const auto activeSeconds = static_cast<Kel::U16>(active);
   const auto inactiveSeconds = static_cast<Kel::U16>(inactive);
   const Kel::U32 id = hwFtConfig_ ? hwFtConfig_->ftId() : 0;
   const Kel::String name = hwFtConfig_ ? hwFtConfig_->name() : Kel::String();
   const Kel::U32 sampleRate = hwStatus_->sampleRate();

   // Room for the longest name the short form holds; a longer one stops at
   // the name's own assertion.
   std::array<Kel::U8, fixedRecordLen + 254> buffer;
   const std::size_t recordLen = std::min(buffer.size(), fixedRecordLen + name.size());
   Kel::U8* pos = buffer.data();
   const Kel::U8* const max = buffer.data() + recordLen;
   addElement(id, &pos, max);
   addElement(name, &pos, max);
   addElement(activeSeconds, &pos, max);
   addElement(inactiveSeconds, &pos, max);
   addElement(randomNOutOfNSampling, &pos, max);
   addElement(samplingSize, &pos, max);
   addElement(sampleRate, &pos, max);
   addElement(static_cast<Kel::U16>(flowTrackingType_), &pos, max);
   KEL_ASSERT(pos == max);
   KEL_TRACE(traceIpfix, 3,
             "FlowTrackerTableSm::observationDomainId: {}, observationDomainName: {}, "
             "flowActiveTimeout: {}, flowIdleTimeout: {}, selectorAlgorithm: {}, samplingSize: "
             "{}, samplingPopulation: {}, flowTrackingType: {}",
             id, name, activeSeconds, inactiveSeconds, randomNOutOfNSampling, samplingSize,
             sampleRate, flowTrackingType_);
   auto record = dataRecordFactory();
   record->append(buffer.data(), static_cast<Kel::U32>(recordLen));
   return record;
}

void FlowTrackerTableSm::handleInitialized() {
   KEL_TRACE(traceIpfix, 4, "FlowTrackerTableSm::handleInitialized for {}", hwFtStatus_->name());
   updateTask_ = std::make_unique<Bexa::Task>(scheduler_, "FlowTrackerTableSmUpdate",
                                              updateTaskPriority, [this] { doUpdate(); });
   initialized_ = true;
   const DataRecordPtr record = makeDataRecord();
   dataSource_->dataRecordDelAll();
   dataSource_->dataRecordIs(record);
   dataSource_->versionInc(1);
}

void FlowTrackerTableSm::handleParamChange(Param param) {
   KEL_TRACE(traceIpfix, 4, "FlowTrackerTableSm::handleParamChange for {}", hwFtStatus_->name());
   KEL_TRACE(traceIpfix, 3, "FlowTrackerTableSm::handleParamChange param changed {}",
             paramName(param));
   if (updateTask_) {
      updateTask_->scheduleTaskLowestDelay(updateDelay_);
   }
}

void FlowTrackerTableSm::doUpdate() {
   const DataRecordPtr record = makeDataRecord();
   KEL_ASSERT(record);
   KEL_TRACE(traceIpfix, 3, "FlowTrackerTableSm::doUpdate record len: {}", record->dataLen());
   update_->addUpdate(setId(), record);
   dataSource_->dataRecordDelAll();
   dataSource_->dataRecordIs(record);
   dataSource_->versionInc(1);
}

}  // namespace FlowTracking
