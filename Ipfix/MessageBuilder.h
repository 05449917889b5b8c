#pragma once

#include <string>

#include "HwFlowTracking/Status.h"
#include "Ipfix/DataRecord.h"
#include "Nivel/IpfixHeader.h"

namespace FlowTracking {

using HwFlowTracking::TemplateId;

// A finished IPFIX message: one packet, trimmed to the message length, that
// is built once and sent many times, possibly for several trackers. Only the
// export time, the sequence number and the observation domain change between
// sends, and they are rewritten in the shared packet's header, which the send
// path copies for each destination.
class Message : public Kel::PtrInterface {
 public:
   explicit Message(Kel::Ptr<Nivel::Pkt> pkt);

   // Stamps the current UTC time (whole seconds), `seqNo` and
   // `observationDomainId` into the header and returns the packet for
   // sending; no copy is made.
   const Kel::Ptr<Nivel::Pkt>& pkt(Kel::U32 seqNo, Kel::U32 observationDomainId);
   const Kel::Ptr<Nivel::MessageHeader>& msgHdr() const { return msgHdr_; }
   // Data records in the message, which is what the sequence number counts.
   Kel::U32 recordCount() const { return recordCount_; }

 private:
   friend class MessageBuilder;

   Kel::Ptr<Nivel::Pkt> pktHolder_;
   Kel::Ptr<Nivel::MessageHeader> msgHdr_;
   Kel::U32 recordCount_ = 0;
};

// Packs already-encoded records into IPFIX messages of at most `maxSize`
// octets, opening a set whenever the set id changes, and yields finished
// messages. For each message: startMsg(), the addSetRecord operations until
// one returns 0 (the record did not fit: finalize, start a new message and add
// it again) or the records run out, then finalizeMsg(). Records are never
// split across messages. Misuse is an assertion; running out of room is not.
class MessageBuilder : public Kel::PtrInterface {
 public:
   MessageBuilder(Kel::U16 maxSize, Kel::U32 observationDomainId);

   // Octets a message with `setCount` sets spends on its headers.
   static Kel::U32 calcOverhead(Kel::U32 setCount);

   void startMsg();
   // Add one record to the message and return the octets added, or 0 (and
   // change nothing) when it does not fit.
   Kel::U32 addSetRecord(TemplateId setId, const Kel::Ptr<const DataRecord>& record);
   Kel::U32 addSetRecordStr(TemplateId setId, const std::string& record);
   Kel::Ptr<Message> finalizeMsg();

   // A packet over a fresh buffer of `maxSize` octets.
   Kel::Ptr<Nivel::Pkt> newPkt() const;

   Kel::U16 maxSize() const { return maxSize_; }
   Kel::U32 observationDomainId() const { return observationDomainId_; }
   // The message under construction; null between messages.
   const Kel::Ptr<Nivel::Pkt>& pkt() const { return pkt_; }
   const Kel::Ptr<Message>& msg() const { return msg_; }
   // The header of the message under construction; null between messages.
   Kel::Ptr<Nivel::MessageHeader> msgHdr() const { return msg_ ? msg_->msgHdr() : nullptr; }
   Kel::U32 pktBufSize() const { return pktBufSize_; }
   // The open set; null when none is.
   const Kel::Ptr<Nivel::SetHeader>& setHdr() const { return setHdr_; }
   // Next free octet of the packet: 0 between messages.
   Kel::U32 offset() const { return offset_; }
   // The open set's length so far, its header included.
   Kel::U16 setLen() const { return setLen_; }
   // Id of the set opened last; kept when the set closes.
   Kel::U16 setId() const { return setId_; }
   Kel::U32 recordCount() const { return recordCount_; }

 private:
   friend Kel::U32 addSetRecordBytes(MessageBuilder* builder, TemplateId setId, const char* data,
                                     Kel::U32 bytes);

   void startSet_(TemplateId setId);
   void finalizeSet_();

   Kel::U16 maxSize_;
   Kel::U32 observationDomainId_;
   Kel::Ptr<Nivel::Pkt> pkt_;
   Kel::Ptr<Message> msg_;
   Kel::U32 pktBufSize_ = 0;
   Kel::Ptr<Nivel::SetHeader> setHdr_;
   Kel::U32 offset_ = 0;
   Kel::U16 setLen_ = 0;
   Kel::U16 setId_ = Kel::maxU16();
   Kel::U32 recordCount_ = 0;
};

// Adds the `bytes` octets at `data` as one record of set `setId`: the step
// that both addSetRecord forms end in. Returns `bytes`, or 0 when the record
// does not fit, in which case the builder is left exactly as it was.
Kel::U32 addSetRecordBytes(MessageBuilder* builder, TemplateId setId, const char* data,
                           Kel::U32 bytes);

Kel::Ptr<MessageBuilder> messageBuilderFactory(Kel::U16 maxSize, Kel::U32 observationDomainId);

}  // namespace FlowTracking
