#include "Nivel/Pkt.h"

#include "Kel/Exception.h"

namespace Nivel {

PktBuffer::PktBuffer(Kel::U32 size) : data_(new Kel::U8[size]()), size_(size) {}

Kel::Ptr<Pkt> Pkt::pktNew(Kel::U32 bufferSize, Kel::U32 headroom) {
   KEL_ASSERT(headroom <= bufferSize);
   return Kel::makePtr<Pkt>(Kel::makePtr<PktBuffer>(bufferSize), headroom);
}

Pkt::Pkt(Kel::Ptr<PktBuffer> buffer, Kel::U32 headroom)
    : buffer_(std::move(buffer)), headroom_(headroom) {
   KEL_ASSERT(buffer_ && headroom_ <= buffer_->size());
}

void Pkt::bytesIs(Kel::U32 bytes) {
   KEL_ASSERT(bytes <= buffer_->size() - headroom_);
   bytes_ = bytes;
}

Kel::U8* Pkt::append(Kel::U32 n) {
   KEL_ASSERT(n <= tailroom());
   Kel::U8* const at = data() + bytes_;
   bytes_ += n;
   return at;
}

Kel::U8* Pkt::prepend(Kel::U32 n) {
   KEL_ASSERT(n <= headroom_);
   headroom_ -= n;
   bytes_ += n;
   return data();
}

Kel::String hexDump(const Pkt& pkt) {
   static constexpr char digits[] = "0123456789abcdef";
   Kel::String out;
   out.reserve(pkt.bytes() * 3 + pkt.bytes() / 16 + 1);
   for (Kel::U32 i = 0; i < pkt.bytes(); ++i) {
      const Kel::U8 octet = pkt.data()[i];
      out += i % 16 == 0 ? '\n' : ' ';
      out += digits[octet >> 4];
      out += digits[octet & 0xf];
   }
   return out;
}

}  // namespace Nivel
