#include "Ipfix/MessageBuilder.h"

#include <cstring>

#include "Kel/Exception.h"
#include "Kel/System.h"

namespace FlowTracking {

using Nivel::IpfixConst;

Message::Message(Kel::Ptr<Nivel::Pkt> pkt)
    : pktHolder_(std::move(pkt)), msgHdr_(Kel::makePtr<Nivel::MessageHeader>(pktHolder_, 0)) {}

const Kel::Ptr<Nivel::Pkt>& Message::pkt(Kel::U32 seqNo, Kel::U32 observationDomainId) {
   msgHdr_->exportTimeIs(static_cast<Kel::U32>(Kel::System::currentTimeUtcSeconds()));
   msgHdr_->seqNoIs(seqNo);
   msgHdr_->observationDomainIdIs(observationDomainId);
   return pktHolder_;
}

MessageBuilder::MessageBuilder(Kel::U16 maxSize, Kel::U32 observationDomainId)
    : maxSize_(maxSize), observationDomainId_(observationDomainId) {}

Kel::U32 MessageBuilder::calcOverhead(Kel::U32 setCount) {
   return IpfixConst::messageHeaderLen() + IpfixConst::setHeaderLen() * setCount;
}

Kel::Ptr<Nivel::Pkt> MessageBuilder::newPkt() const {
   return Nivel::Pkt::pktNew(maxSize_);
}

void MessageBuilder::startMsg() {
   KEL_ASSERT(!pkt());
   KEL_ASSERT(offset() == 0);
   pkt_ = newPkt();
   pktBufSize_ = pkt_->buffer()->size();
   // Records are copied straight into the buffer; finalizeMsg trims the data
   // back to what was written.
   pkt_->bytesIs(pktBufSize_);
   msg_ = Kel::makePtr<Message>(pkt_);
   offset_ = IpfixConst::messageHeaderLen();
}

Kel::U32 MessageBuilder::addSetRecord(TemplateId setId, const Kel::Ptr<const DataRecord>& record) {
   return addSetRecordBytes(this, setId, record->data().data(), record->dataLen());
}

Kel::U32 MessageBuilder::addSetRecordStr(TemplateId setId, const std::string& record) {
   return addSetRecordBytes(this, setId, record.data(), static_cast<Kel::U32>(record.size()));
}

Kel::U32 addSetRecordBytes(MessageBuilder* builder, TemplateId setId, const char* data,
                           Kel::U32 bytes) {
   KEL_ASSERT(builder->pkt());
   KEL_ASSERT(bytes < Kel::maxU16());
   if (builder->setHdr() && builder->setId() == setId) {
      if (builder->offset() + bytes > builder->maxSize()) {
         return 0;
      }
      ++builder->recordCount_;
   } else {
      // Sized in 32 bits: a record of 65532 octets or more with its set
      // header exceeds any 16-bit maximum and is refused like any record that
      // does not fit, before anything changes.
      const Kel::U32 withSetHeader = bytes + IpfixConst::setHeaderLen();
      if (builder->offset() + withSetHeader > builder->maxSize()) {
         return 0;
      }
      ++builder->recordCount_;
      if (builder->setHdr()) {
         builder->finalizeSet_();
      }
      builder->startSet_(setId);
   }
   KEL_ASSERT(builder->offset() + bytes <= builder->pktBufSize());
   std::memcpy(builder->pkt_->data() + builder->offset_, data, bytes);
   builder->offset_ += bytes;
   builder->setLen_ = static_cast<Kel::U16>(builder->setLen_ + bytes);
   return bytes;
}

void MessageBuilder::startSet_(TemplateId setId) {
   KEL_ASSERT(pkt());
   KEL_ASSERT(!setHdr());
   setHdr_ = Kel::makePtr<Nivel::SetHeader>(pkt_, offset_);
   setHdr_->setIdIs(setId);
   setLen_ = IpfixConst::setHeaderLen();
   setId_ = setId;
   offset_ += IpfixConst::setHeaderLen();
}

void MessageBuilder::finalizeSet_() {
   KEL_ASSERT(pkt());
   KEL_ASSERT(setHdr());
   setHdr_->lengthIs(setLen_);
   setLen_ = 0;
   setHdr_ = nullptr;
}

Kel::Ptr<Message> MessageBuilder::finalizeMsg() {
   if (setHdr()) {
      finalizeSet_();
   }
   KEL_ASSERT(pkt());
   KEL_ASSERT(offset() > IpfixConst::messageHeaderLen());

   const Kel::U32 msgLen = offset_;
   Nivel::MessageHeader& hdr = *msg_->msgHdr();
   hdr.versionIs(IpfixConst::version());
   hdr.lengthIs(static_cast<Kel::U16>(msgLen));
   // Stamped per send by Message::pkt().
   hdr.exportTimeIs(0);
   hdr.seqNoIs(0);
   hdr.observationDomainIdIs(observationDomainId_);
   offset_ = 0;

   msg_->recordCount_ = recordCount_;
   recordCount_ = 0;

   Kel::Ptr<Message> finished = std::move(msg_);
   KEL_ASSERT(msgLen <= pktBufSize());
   const Kel::Ptr<Nivel::Pkt> packet = std::move(pkt_);
   packet->bytesIs(msgLen);
   KEL_ASSERT_TEXT(packet->bytes() == msgLen, "_pkt->bytes() == msgLen");
   return finished;
}

Kel::Ptr<MessageBuilder> messageBuilderFactory(Kel::U16 maxSize, Kel::U32 observationDomainId) {
   return Kel::makePtr<MessageBuilder>(maxSize, observationDomainId);
}

}  // namespace FlowTracking
