// Sequences of MessageBuilder operations decoded from the input: the maximum
// message size, then start / add / finalize steps with set ids and records of
// any length the builder accepts (under 65535 octets). The harness keeps its
// own account of what each message must hold and checks every finished
// message's IPFIX framing from its octets, without the builder's overlays.
//
// Properties: a record is accepted exactly when the message with it stays
// within the maximum size; a refused record (0) leaves the builder and the
// packet as they were; a finished message has version 10, a length equal to
// its octets and at most the maximum size, sets of at least 4 octets with
// data set ids that add up to the message length and hold the records added,
// in order, and the record count of the records added.

#include <fuzzer/FuzzedDataProvider.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <string>
#include <vector>

#include "Ipfix/MessageBuilder.h"
#include "Kel/Exception.h"
#include "Kel/System.h"

namespace {

using Bytes = std::vector<Kel::U8>;
using FlowTracking::MessageBuilder;

constexpr Kel::U32 headerLen = 16;
constexpr Kel::U32 setHeaderLen = 4;

[[noreturn]] void finding(const std::string& what) {
   std::fprintf(stderr, "message_builder: %s\n", what.c_str());
   std::abort();
}

void check(bool ok, const std::string& what) {
   if (!ok) {
      finding(what);
   }
}

Kel::U32 be16(const Kel::U8* p) {
   return Kel::U32(p[0]) << 8 | p[1];
}
Kel::U32 be32(const Kel::U8* p) {
   return be16(p) << 16 | be16(p + 2);
}

// What the harness expects of the message under construction.
struct ExpectedSet {
   Kel::U16 id;
   Bytes content;  // the records, one after the other
};
struct Expected {
   bool open = false;
   Kel::U32 length = 0;  // octets so far, headers included
   Kel::U32 records = 0;
   std::vector<ExpectedSet> sets;
};

// Everything a refused record must leave as it was.
struct BuilderState {
   Kel::U32 offset, recordCount;
   Kel::U16 setLen, setId;
   const void* setHdr;
   Bytes buffer;
   bool operator==(const BuilderState&) const = default;
};
BuilderState stateOf(const MessageBuilder& b) {
   const auto& pkt = b.pkt();
   return {b.offset(), b.recordCount(),  b.setLen(),
           b.setId(),  b.setHdr().ptr(), Bytes(pkt->data(), pkt->data() + b.pktBufSize())};
}

void checkMessage(FlowTracking::Message& msg, const Expected& expected, Kel::U16 maxSize,
                  Kel::U32 odid, Kel::U32 seqNo) {
   check(msg.recordCount() == expected.records, "record count of the message");
   const auto& pkt = msg.pkt(seqNo, odid);
   const Kel::U8* p = pkt->data();
   const Kel::U32 bytes = pkt->bytes();
   check(bytes == expected.length, "message octets differ from what was added");
   check(bytes <= maxSize, "message longer than the maximum size");
   check(bytes >= headerLen + setHeaderLen, "message without a set");
   check(be16(p) == 10, "version");
   check(be16(p + 2) == bytes, "header length differs from the message's octets");
   check(be32(p + 8) == seqNo, "sequence number");
   check(be32(p + 12) == odid, "observation domain id");
   Kel::U32 at = headerLen;
   std::size_t set = 0;
   while (at < bytes) {
      check(bytes - at >= setHeaderLen, "set header cut by the message end");
      const Kel::U32 id = be16(p + at);
      const Kel::U32 len = be16(p + at + 2);
      check(len >= setHeaderLen, "set shorter than its header");
      check(len <= bytes - at, "set beyond the message end");
      check(id >= 256, "data set id below 256");
      check(set < expected.sets.size(), "more sets than expected");
      const ExpectedSet& e = expected.sets[set];
      check(id == e.id, "set id");
      check(len == setHeaderLen + e.content.size() &&
                std::memcmp(p + at + setHeaderLen, e.content.data(), e.content.size()) == 0,
            "set content differs from the records added");
      at += len;
      ++set;
   }
   check(at == bytes, "set lengths do not add up to the message length");
   check(set == expected.sets.size(), "fewer sets than expected");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
   static Kel::ScopedManualClock clock;
   FuzzedDataProvider in(data, size);
   const auto maxSize = in.ConsumeIntegral<Kel::U16>();
   const auto odid = in.ConsumeIntegral<Kel::U32>();
   try {
      const auto builder = FlowTracking::messageBuilderFactory(maxSize, odid);
      Expected expected;
      Kel::U32 seqNo = 0;
      Kel::U16 lastId = 256;
      const auto finish = [&] {
         const Kel::Ptr<FlowTracking::Message> msg = builder->finalizeMsg();
         check(!builder->pkt() && builder->offset() == 0 && builder->recordCount() == 0,
               "builder not reset by finalizeMsg");
         checkMessage(*msg, expected, maxSize, odid, seqNo);
         seqNo += msg->recordCount();
         expected = Expected();
      };
      while (in.remaining_bytes() > 0) {
         if (!expected.open) {
            builder->startMsg();
            expected.open = true;
            expected.length = headerLen;
         }
         switch (in.ConsumeIntegralInRange(0, 7)) {
            case 0:
               // Finalizing a message without records is a misuse the
               // builder asserts; the harness never asks for it.
               if (expected.records > 0) {
                  finish();
               }
               break;
            default: {
               const int idChoice = in.ConsumeIntegralInRange(0, 3);
               const Kel::U16 id = idChoice == 0   ? lastId
                                   : idChoice == 1 ? Kel::U16(lastId + 1)
                                   : idChoice == 2 ? Kel::U16(256)
                                                   : in.ConsumeIntegral<Kel::U16>();
               if (id < 256) {
                  break;  // not a data set: not the builder's use
               }
               lastId = id;
               // Records are never empty: 0 octets added means "did not fit".
               std::string record;
               if (in.ConsumeBool()) {
                  record = in.ConsumeBytesAsString(in.ConsumeIntegralInRange<std::size_t>(1, 64));
                  if (record.empty()) {
                     break;  // the input ran out
                  }
               } else {
                  // Long records of one repeated octet, up to the longest
                  // the builder takes.
                  const auto len = in.ConsumeIntegralInRange<std::size_t>(1, Kel::maxU16() - 1);
                  record.assign(len, static_cast<char>(in.ConsumeIntegral<Kel::U8>()));
               }
               const bool sameSet =
                   !expected.sets.empty() && builder->setHdr() && expected.sets.back().id == id;
               const Kel::U32 grown =
                   expected.length + Kel::U32(record.size()) + (sameSet ? 0 : setHeaderLen);
               const bool fits = grown <= maxSize;
               const BuilderState before = stateOf(*builder);
               const Kel::U32 added =
                   in.ConsumeBool()
                       ? builder->addSetRecordStr(id, record)
                       : builder->addSetRecord(id, FlowTracking::dataRecordFactory(record));
               if (added == 0) {
                  check(!fits, "a record that fits was refused");
                  check(stateOf(*builder) == before, "a refused record changed the builder");
                  break;
               }
               check(fits, "a record beyond the maximum size was accepted");
               check(added == record.size(), "octets added differ from the record's");
               if (!sameSet) {
                  expected.sets.push_back({id, {}});
               }
               expected.sets.back().content.insert(expected.sets.back().content.end(),
                                                   record.begin(), record.end());
               expected.length = grown;
               ++expected.records;
               check(builder->offset() == expected.length, "builder offset");
               check(builder->recordCount() == expected.records, "builder record count");
               break;
            }
         }
      }
      if (expected.records > 0) {
         finish();
      }
   } catch (const Kel::AssertionError& e) {
      finding(std::string("assertion: ") + e.what());
   } catch (const std::exception& e) {
      finding(std::string("exception: ") + e.what());
   }
   return 0;
}
