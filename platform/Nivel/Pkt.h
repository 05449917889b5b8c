#pragma once

#include <memory>

#include "Kel/Ptr.h"
#include "Kel/Types.h"

namespace Nivel {

// The octets of one or more packets. A finished packet shares its buffer with
// every send instead of copying it.
class PktBuffer : public Kel::PtrInterface {
 public:
   explicit PktBuffer(Kel::U32 size);
   Kel::U8* data() noexcept { return data_.get(); }
   const Kel::U8* data() const noexcept { return data_.get(); }
   Kel::U32 size() const noexcept { return size_; }

 private:
   std::unique_ptr<Kel::U8[]> data_;
   Kel::U32 size_;
};

// A packet: a window [headroom, headroom + bytes) over a shared buffer. A
// builder can reserve a body at the tail and later push headers in front of it
// (into the headroom) without moving the body, and can trim a finished packet
// to its length without copying.
class Pkt : public Kel::PtrInterface {
 public:
   // A packet over a new zeroed buffer of `bufferSize` octets whose data starts
   // `headroom` octets in and is empty.
   static Kel::Ptr<Pkt> pktNew(Kel::U32 bufferSize, Kel::U32 headroom = 0);

   Pkt(Kel::Ptr<PktBuffer> buffer, Kel::U32 headroom);

   Kel::U8* data() noexcept { return buffer_->data() + headroom_; }
   const Kel::U8* data() const noexcept { return buffer_->data() + headroom_; }
   // Octets of packet data.
   Kel::U32 bytes() const noexcept { return bytes_; }
   // Sets the data length; growing it exposes (zeroed or earlier) buffer
   // octets, shrinking it trims the tail.
   void bytesIs(Kel::U32 bytes);
   Kel::U32 headroom() const noexcept { return headroom_; }
   // Octets after the data that the packet can still grow into.
   Kel::U32 tailroom() const noexcept { return buffer_->size() - headroom_ - bytes_; }

   // Grows the data by `n` octets at the tail and returns where they start.
   Kel::U8* append(Kel::U32 n);
   // Grows the data by `n` octets in front, out of the headroom, and returns
   // the new start of the data.
   Kel::U8* prepend(Kel::U32 n);

   const Kel::Ptr<PktBuffer>& buffer() const noexcept { return buffer_; }

 private:
   Kel::Ptr<PktBuffer> buffer_;
   Kel::U32 headroom_;
   Kel::U32 bytes_ = 0;
};

// The packet's data as hex octets, 16 to a line, for traces.
Kel::String hexDump(const Pkt& pkt);

}  // namespace Nivel
