#pragma once

#include <memory>
#include <string_view>

#include "Bexa/TaskScheduler.h"
#include "HwFlowTracking/Config.h"
#include "HwFlowTracking/Status.h"
#include "Ipfix/FlowTrackingTypes.h"
#include "Ipfix/OptionsData.h"

namespace FlowTracking {

// The tracker-scope data source that describes one flow tracker to
// collectors: observation domain id and name, active and idle timeouts,
// sampling and flow-tracking type, in one record that follows its inputs.
// Changes are coalesced for `updateDelay` seconds into one update.
class FlowTrackerTableSm : public Kel::PtrInterface {
 public:
   // The input that changed.
   enum class Param { sampleRate, activeInterval, inactiveTimeout };

   FlowTrackerTableSm(Kel::Ptr<OptionsDataSource> dataSource, Kel::Ptr<OptionsDataUpdate> update,
                      Kel::Ptr<const HwFlowTracking::Status> hwStatus,
                      Kel::Ptr<const HwFlowTracking::FtConfig> hwFtConfig,
                      Kel::Ptr<const HwFlowTracking::FtStatus> hwFtStatus,
                      FlowTrackingType flowTrackingType, Kel::Ptr<Bexa::TaskScheduler> scheduler);
   ~FlowTrackerTableSm() override;

   const Kel::Ptr<OptionsDataSource>& dataSource() const { return dataSource_; }
   const Kel::Ptr<OptionsDataUpdate>& update() const { return update_; }
   const Kel::Ptr<const HwFlowTracking::Status>& hwStatus() const { return hwStatus_; }
   const Kel::Ptr<const HwFlowTracking::FtConfig>& hwFtConfig() const { return hwFtConfig_; }
   const Kel::Ptr<const HwFlowTracking::FtStatus>& hwFtStatus() const { return hwFtStatus_; }
   FlowTrackingType flowTrackingType() const { return flowTrackingType_; }

   TemplateId setId() const { return setIdVal_; }
   void setIdValIs(TemplateId id) { setIdVal_ = id; }
   bool initialized() const { return initialized_; }
   Kel::Seconds updateDelay() const { return updateDelay_; }
   void updateDelayIs(Kel::Seconds delay) { updateDelay_ = delay; }
   const Bexa::Task& updateTask() const { return *updateTask_; }

   // The tracker's record as its inputs are now.
   DataRecordPtr makeDataRecord() const;

   // Starts the source: the record in the source, no update announced.
   void handleInitialized();
   void handleParamChange(Param param);
   // Announces the current record and makes it the source's only one.
   void doUpdate();

 private:
   class StatusReactor;
   class FtStatusReactor;

   const Kel::Ptr<OptionsDataSource> dataSource_;
   const Kel::Ptr<OptionsDataUpdate> update_;
   const Kel::Ptr<const HwFlowTracking::Status> hwStatus_;
   const Kel::Ptr<const HwFlowTracking::FtConfig> hwFtConfig_;
   const Kel::Ptr<const HwFlowTracking::FtStatus> hwFtStatus_;
   const FlowTrackingType flowTrackingType_;
   const Kel::Ptr<Bexa::TaskScheduler> scheduler_;
   TemplateId setIdVal_;
   Kel::Seconds updateDelay_ = 2.0;
   bool initialized_ = false;
   std::unique_ptr<Bexa::Task> updateTask_;
   std::unique_ptr<StatusReactor> statusReactor_;
   std::unique_ptr<FtStatusReactor> ftStatusReactor_;
};

// "sampleRate", "activeInterval", "inactiveTimeout".
std::string_view paramName(FlowTrackerTableSm::Param param);

}  // namespace FlowTracking
