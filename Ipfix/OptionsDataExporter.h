#pragma once

#include <deque>

#include "Ipfix/CollectorStatsUpdate.h"
#include "Ipfix/MessageBuilder.h"
#include "Ipfix/OptionsData.h"
#include "Kel/Exception.h"

namespace FlowTracking {

// The queued update records of one data set, oldest first.
using UpdateSetQueue = std::deque<DataRecordPtr>;

// A finished options-data message and how many records of each set it holds,
// for the collectors' statistics.
struct MessageWrapper : Kel::PtrInterface {
   Kel::Ptr<Message> msg;
   // Records per set id, in the order the sets appear.
   std::vector<Vorpa::Ipfix::SetCount> setRecord;

   Kel::U32 recordCount() const { return msg ? msg->recordCount() : 0; }
};

// A message builder and the wrapper of the message it fills. The builder's
// message is opened with the first record, so a message that gets no record
// is never built.
class BuilderWrapper {
 public:
   // Keeps the builder while size and observation domain stay the same.
   void builderIs(Kel::U16 maxSize, Kel::U32 observationDomainId);
   // Starts a new, empty message.
   void startMsg();
   // Octets consumed, 0 when the record does not fit the current message.
   Kel::U32 addSetRecord(TemplateId setId, const DataRecordPtr& record);
   // Adds the record; one that does not fit closes the message, hands it to
   // `full` and goes into the next one. A record that does not fit an empty
   // message is a bug the configuration checks rule out.
   template <class Full>
   void addRecord(TemplateId setId, const DataRecordPtr& record, Full&& full);
   bool hasRecords() const { return !msgWrap_->setRecord.empty(); }
   Kel::Ptr<MessageWrapper> finalizeMsg();

 private:
   Kel::Ptr<MessageBuilder> builder_;
   Kel::Ptr<MessageWrapper> msgWrap_;
   bool building_ = false;
};

template <class Full>
void BuilderWrapper::addRecord(TemplateId setId, const DataRecordPtr& record, Full&& full) {
   Kel::U32 consumed = addSetRecord(setId, record);
   if (consumed == 0 && hasRecords()) {
      full(finalizeMsg());
      startMsg();
      consumed = addSetRecord(setId, record);
   }
   KEL_ASSERT(consumed > 0);
}

}  // namespace FlowTracking
