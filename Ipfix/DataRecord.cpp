#include "Ipfix/DataRecord.h"

#include <cstring>

namespace FlowTracking {

void DataRecord::append(const Kel::U8* bytes, Kel::U32 len) {
   if (len == 0) {
      return;
   }
   // Records are written whole and then never grow: no room is kept for
   // more, which a table of tens of thousands of records would pay for.
   data_.reserve(data_.size() + len);
   data_.append(reinterpret_cast<const char*>(bytes), len);
   notify(&Notifiee::onData);
}

Kel::Ptr<DataRecord> dataRecordFactory(Kel::String data) {
   return Kel::makeActive<DataRecord>(std::move(data));
}

void addElement(const Kel::String& element, Kel::U8** pos, const Kel::U8* max) {
   const std::size_t elementLen = element.size();
   KEL_ASSERT(elementLen < 255);
   addElement(static_cast<Kel::U8>(elementLen), pos, max);
   KEL_ASSERT(*pos + elementLen <= max);
   std::memcpy(*pos, element.data(), elementLen);
   *pos += elementLen;
}

}  // namespace FlowTracking
