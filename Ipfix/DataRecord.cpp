#include "Ipfix/DataRecord.h"

namespace FlowTracking {

void DataRecord::append(const Kel::U8* bytes, Kel::U32 len) {
   if (len == 0) {
      return;
   }
   data_.append(reinterpret_cast<const char*>(bytes), len);
   notify(&Notifiee::onData);
}

Kel::Ptr<DataRecord> dataRecordFactory(Kel::String data) {
   return Kel::makeActive<DataRecord>(std::move(data));
}

}  // namespace FlowTracking
