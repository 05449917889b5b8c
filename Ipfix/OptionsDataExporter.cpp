#include "Ipfix/OptionsDataExporter.h"

#include "Kel/Exception.h"

namespace FlowTracking {

void BuilderWrapper::builderIs(Kel::U16 maxSize, Kel::U32 observationDomainId) {
   if (!builder_ || builder_->maxSize() != maxSize ||
       builder_->observationDomainId() != observationDomainId) {
      builder_ = messageBuilderFactory(maxSize, observationDomainId);
   }
}

void BuilderWrapper::startMsg() {
   KEL_ASSERT(builder_ && !building_);
   msgWrap_ = Kel::makePtr<MessageWrapper>();
}

Kel::U32 BuilderWrapper::addSetRecord(TemplateId setId, const DataRecordPtr& record) {
   if (!building_) {
      builder_->startMsg();
      building_ = true;
   }
   const Kel::U32 consumed = builder_->addSetRecord(setId, record);
   if (consumed > 0) {
      auto& sets = msgWrap_->setRecord;
      if (sets.empty() || sets.back().setId != Vorpa::Ipfix::SetId(setId)) {
         sets.push_back({Vorpa::Ipfix::SetId(setId), 0});
      }
      ++sets.back().count;
   }
   return consumed;
}

Kel::Ptr<MessageWrapper> BuilderWrapper::finalizeMsg() {
   KEL_ASSERT(hasRecords());
   msgWrap_->msg = builder_->finalizeMsg();
   building_ = false;
   return std::move(msgWrap_);
}

}  // namespace FlowTracking
