#pragma once

#include <map>
#include <memory>

#include "HwFlowTracking/Status.h"
#include "Ipfix/OptionsData.h"

namespace FlowTracking {

// The tracker-scope data source that tells collectors which fields of each
// data template are flow keys: one "FlowKey" record (template id, flow key
// indicator) per flow-group template the hardware reports, kept equal to the
// set of complete templates.
class FlowKeySm : public Kel::PtrInterface {
 public:
   FlowKeySm(Kel::Ptr<OptionsDataSource> dataSource, Kel::Ptr<OptionsDataUpdate> update,
             Kel::Ptr<const HwFlowTracking::FtStatus> hwFtStatus);
   ~FlowKeySm() override;

   static TemplateId setId();

   const Kel::Ptr<OptionsDataSource>& dataSource() const { return dataSource_; }
   const Kel::Ptr<OptionsDataUpdate>& update() const { return update_; }
   const Kel::Ptr<const HwFlowTracking::FtStatus>& hwFtStatus() const { return hwFtStatus_; }
   bool initialized() const { return initialized_; }

   // The record published for each template.
   const std::map<TemplateId, DataRecordPtr>& dataRecord() const { return dataRecord_; }
   std::size_t dataRecords() const { return dataRecord_.size(); }

   // The record of `templateId`, or null when the hardware has no such
   // template or its address fields mix IPv4 and IPv6.
   DataRecordPtr makeDataRecord(TemplateId templateId) const;

   void handleTemplate(TemplateId templateId);

 private:
   class FtStatusReactor;
   class FgStatusReactor;

   void handleInitialized();
   void hwFgStatusIs(TemplateId templateId);
   void checkInvariant() const;

   const Kel::Ptr<OptionsDataSource> dataSource_;
   const Kel::Ptr<OptionsDataUpdate> update_;
   const Kel::Ptr<const HwFlowTracking::FtStatus> hwFtStatus_;
   std::map<TemplateId, DataRecordPtr> dataRecord_;
   std::map<TemplateId, std::unique_ptr<FgStatusReactor>> hwFgStatus_;
   std::unique_ptr<FtStatusReactor> ftStatusReactor_;
   bool initialized_ = false;
};

}  // namespace FlowTracking
