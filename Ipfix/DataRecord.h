#pragma once

#include "Kel/Entity.h"
#include "Kel/Exception.h"
#include "Nivel/NetOrder.h"

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

// Record encoding: each addElement writes one field value at `*pos` and moves
// `*pos` past it, never beyond `max`, the end of the record's buffer.

// An 8-, 16- or 32-bit value in network byte order.
template <class BaseType>
void addElement(BaseType value, Kel::U8** pos, const Kel::U8* max) {
   KEL_ASSERT_TEXT(*pos + sizeof(BaseType) <= max, "*pos + sizeof( BaseType ) <= max");
   Nivel::storeNet(*pos, value);
   *pos += sizeof(BaseType);
}

// A variable-length text in the short form: one length octet, then the text.
// Texts of 255 octets or more would need the long form and are refused.
void addElement(const Kel::String& element, Kel::U8** pos, const Kel::U8* max);

}  // namespace FlowTracking
