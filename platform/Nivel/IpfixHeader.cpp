#include "Nivel/IpfixHeader.h"

#include "Kel/Exception.h"

namespace Nivel {

PktOverlay::PktOverlay(Kel::Ptr<Pkt> pkt, Kel::U32 offset) : pkt_(std::move(pkt)), offset_(offset) {
   KEL_ASSERT(pkt_);
}

Kel::U8* PktOverlay::octets(Kel::U32 len) const {
   // In 64 bits, so that an offset near the top of the range cannot wrap.
   KEL_ASSERT(Kel::U64(offset_) + len <= pkt_->bytes());
   return pkt_->data() + offset_;
}

void FieldSpecifier::elementIdIs(bool enterpriseIe, Kel::U16 elementId) {
   KEL_ASSERT(elementId < enterpriseBit);
   fieldIs(&Wire::elementId, static_cast<Kel::U16>(elementId | (enterpriseIe ? enterpriseBit : 0)));
}

Kel::U32 FieldSpecifier::enterpriseNumber() const {
   KEL_ASSERT(enterpriseIe());
   return field(&EnterpriseWire::enterpriseNumber);
}

void FieldSpecifier::enterpriseNumberIs(Kel::U32 v) {
   // Without the bit the next specifier starts where the number would go.
   KEL_ASSERT(enterpriseIe());
   fieldIs(&EnterpriseWire::enterpriseNumber, v);
}

}  // namespace Nivel
