#pragma once

#include "Kel/Entity.h"

namespace FlowTracking {

// One options data record, encoded exactly as it goes into a data set: field
// values in network byte order, no set header. A producer builds it with
// append() and then publishes it as a pointer to const; a published record is
// never changed again (a change is a new record), so the exporter can share
// it between sets, messages and collectors without copying.
class DataRecord : public Kel::Entity {
 public:
   class Notifiee : public Kel::BaseNotifiee<DataRecord> {
    public:
      virtual void onData() {}
   };

   explicit DataRecord(Kel::String data) : data_(std::move(data)) {}

   // The encoded octets; a string only as a byte buffer.
   const Kel::String& data() const { return data_; }
   Kel::U32 dataLen() const { return static_cast<Kel::U32>(data_.size()); }
   // Appends `len` raw octets.
   void append(const Kel::U8* bytes, Kel::U32 len);

 private:
   Kel::String data_;
};

Kel::Ptr<DataRecord> dataRecordFactory(Kel::String data = {});

}  // namespace FlowTracking
