#pragma once

#include <cstring>

#include "Kel/Ptr.h"
#include "Nivel/NetOrder.h"
#include "Nivel/Pkt.h"

// Overlays that read and write the headers of IPFIX (RFC 7011) messages in
// place, in a packet's data, in network byte order. Each overlay is a view at
// an octet offset into one packet; it keeps the packet alive and checks on
// every access that the whole header lies inside the packet's data, so a
// trimmed or too-short packet is an assertion, never a stray write.
namespace Nivel {

// Common part of the overlays: the packet, the offset and the checked field
// access. A field is named by a member of the header's wire struct, which
// states the layout once; access copies through the struct, so no object is
// ever read at an unaligned packet address.
class PktOverlay : public Kel::PtrInterface {
 public:
   const Kel::Ptr<Pkt>& pkt() const noexcept { return pkt_; }
   Kel::U32 offset() const noexcept { return offset_; }

 protected:
   PktOverlay(Kel::Ptr<Pkt> pkt, Kel::U32 offset);

   template <class Wire, class T>
   T field(NetOrder<T> Wire::*member) const {
      Wire wire;
      std::memcpy(&wire, octets(sizeof(Wire)), sizeof(Wire));
      return (wire.*member).value();
   }

   template <class Wire, class T>
   void fieldIs(NetOrder<T> Wire::*member, T value) {
      Kel::U8* const at = octets(sizeof(Wire));
      Wire wire;
      std::memcpy(&wire, at, sizeof(Wire));
      wire.*member = NetOrder<T>(value);
      std::memcpy(at, &wire, sizeof(Wire));
   }

 private:
   // The header's first octet, once `len` octets from there are packet data.
   Kel::U8* octets(Kel::U32 len) const;

   Kel::Ptr<Pkt> pkt_;
   Kel::U32 offset_;
};

// The message header in front of every IPFIX message.
class MessageHeader : public PktOverlay {
 public:
   // RFC 7011 section 3.1, Message Header Format.
   struct Wire {
      U16Net version;
      U16Net length;
      U32Net exportTime;
      U32Net seqNo;
      U32Net observationDomainId;
   };
   static_assert(sizeof(Wire) == 16);

   MessageHeader(Kel::Ptr<Pkt> pkt, Kel::U32 offset) : PktOverlay(std::move(pkt), offset) {}

   Kel::U16 version() const { return field(&Wire::version); }
   void versionIs(Kel::U16 v) { fieldIs(&Wire::version, v); }
   // The whole message in octets, this header included.
   Kel::U16 length() const { return field(&Wire::length); }
   void lengthIs(Kel::U16 v) { fieldIs(&Wire::length, v); }
   // Seconds since the Unix epoch (UTC).
   Kel::U32 exportTime() const { return field(&Wire::exportTime); }
   void exportTimeIs(Kel::U32 v) { fieldIs(&Wire::exportTime, v); }
   Kel::U32 seqNo() const { return field(&Wire::seqNo); }
   void seqNoIs(Kel::U32 v) { fieldIs(&Wire::seqNo, v); }
   Kel::U32 observationDomainId() const { return field(&Wire::observationDomainId); }
   void observationDomainIdIs(Kel::U32 v) { fieldIs(&Wire::observationDomainId, v); }
};

// The header in front of every set's records.
class SetHeader : public PktOverlay {
 public:
   // RFC 7011 section 3.3.2, Set Header Format.
   struct Wire {
      U16Net setId;
      U16Net length;
   };
   static_assert(sizeof(Wire) == 4);

   SetHeader(Kel::Ptr<Pkt> pkt, Kel::U32 offset) : PktOverlay(std::move(pkt), offset) {}

   Kel::U16 setId() const { return field(&Wire::setId); }
   void setIdIs(Kel::U16 v) { fieldIs(&Wire::setId, v); }
   // The set in octets, this header included.
   Kel::U16 length() const { return field(&Wire::length); }
   void lengthIs(Kel::U16 v) { fieldIs(&Wire::length, v); }
};

// The header of a template record, or of an options template record, which
// adds the scope field count.
class TemplateHeader : public PktOverlay {
 public:
   // RFC 7011 section 3.4.1, Template Record Format.
   struct Wire {
      U16Net templateId;
      U16Net fieldCount;
   };
   static_assert(sizeof(Wire) == 4);
   // RFC 7011 section 3.4.2.2, Options Template Record Format.
   struct OptionsWire {
      U16Net templateId;
      U16Net fieldCount;
      U16Net scopeFieldCount;
   };
   static_assert(sizeof(OptionsWire) == 6);

   TemplateHeader(Kel::Ptr<Pkt> pkt, Kel::U32 offset) : PktOverlay(std::move(pkt), offset) {}

   Kel::U16 templateId() const { return field(&Wire::templateId); }
   void templateIdIs(Kel::U16 v) { fieldIs(&Wire::templateId, v); }
   // Every field of the record, scope fields included.
   Kel::U16 fieldCount() const { return field(&Wire::fieldCount); }
   void fieldCountIs(Kel::U16 v) { fieldIs(&Wire::fieldCount, v); }
   // Options template records only.
   Kel::U16 scopeFieldCount() const { return field(&OptionsWire::scopeFieldCount); }
   void scopeFieldCountIs(Kel::U16 v) { fieldIs(&OptionsWire::scopeFieldCount, v); }
};

// One field specifier of a template record: an information element, its
// length, and the enterprise number when the element is enterprise-specific.
class FieldSpecifier : public PktOverlay {
 public:
   // RFC 7011 section 3.2, Field Specifier Format: the top bit of the element
   // id is the enterprise bit.
   struct Wire {
      U16Net elementId;
      U16Net fieldLength;
   };
   static_assert(sizeof(Wire) == 4);
   // The same, with the enterprise bit set.
   struct EnterpriseWire {
      U16Net elementId;
      U16Net fieldLength;
      U32Net enterpriseNumber;
   };
   static_assert(sizeof(EnterpriseWire) == 8);

   static constexpr Kel::U16 enterpriseBit = 0x8000;

   FieldSpecifier(Kel::Ptr<Pkt> pkt, Kel::U32 offset) : PktOverlay(std::move(pkt), offset) {}

   bool enterpriseIe() const { return (field(&Wire::elementId) & enterpriseBit) != 0; }
   // The element id without the enterprise bit.
   Kel::U16 elementId() const { return field(&Wire::elementId) & ~enterpriseBit; }
   // Writes the enterprise bit and the 15-bit element id together.
   void elementIdIs(bool enterpriseIe, Kel::U16 elementId);
   Kel::U16 fieldLength() const { return field(&Wire::fieldLength); }
   void fieldLengthIs(Kel::U16 v) { fieldIs(&Wire::fieldLength, v); }
   // Present only after the enterprise bit is set.
   Kel::U32 enterpriseNumber() const;
   void enterpriseNumberIs(Kel::U32 v);
   // Octets this specifier takes: 8 with an enterprise number, else 4.
   Kel::U32 wireLen() const { return enterpriseIe() ? sizeof(EnterpriseWire) : sizeof(Wire); }
};

// The fixed numbers of the message format.
struct IpfixConst {
   static constexpr Kel::U16 version() { return 10; }
   static constexpr Kel::U32 messageHeaderLen() { return sizeof(MessageHeader::Wire); }
   static constexpr Kel::U32 setHeaderLen() { return sizeof(SetHeader::Wire); }
   static constexpr Kel::U16 templateSetId() { return 2; }
   static constexpr Kel::U16 optionsTemplateSetId() { return 3; }
   // Data sets use their template's id, 256 or above.
   static constexpr Kel::U16 minDataSetId() { return 256; }
};

}  // namespace Nivel
