#include <gtest/gtest.h>

#include <functional>
#include <vector>

#include "Ipfix/MessageBuilder.h"
#include "Kel/System.h"
#include "support/ThrownText.h"

namespace {

using Bytes = std::vector<Kel::U8>;
using FlowTracking::MessageBuilder;

constexpr Kel::U32 odid = 0x0A0B0C0D;

Bytes operator+(Bytes a, const Bytes& b) {
   a.insert(a.end(), b.begin(), b.end());
   return a;
}
Bytes be16(Kel::U16 v) {
   return {Kel::U8(v >> 8), Kel::U8(v)};
}
Bytes be32(Kel::U32 v) {
   return be16(Kel::U16(v >> 16)) + be16(Kel::U16(v));
}
// A message header as finalizeMsg leaves it: export time and sequence 0.
Bytes msgHeader(Kel::U16 length) {
   return be16(10) + be16(length) + be32(0) + be32(0) + be32(odid);
}
Bytes setHeader(Kel::U16 setId, Kel::U16 length) {
   return be16(setId) + be16(length);
}
std::string record(char fill, std::size_t len) {
   return std::string(len, fill);
}
Bytes bytesOf(const std::string& s) {
   return Bytes(s.begin(), s.end());
}
Bytes wire(const Kel::Ptr<Nivel::Pkt>& pkt) {
   return Bytes(pkt->data(), pkt->data() + pkt->bytes());
}

// Everything a failed add must leave as it was.
struct BuilderState {
   Kel::U32 offset, recordCount;
   Kel::U16 setLen, setId;
   const void* setHdr;
   Bytes octets;
   bool operator==(const BuilderState&) const = default;
};
BuilderState stateOf(const MessageBuilder& b) {
   return {b.offset(), b.recordCount(), b.setLen(), b.setId(), b.setHdr().ptr(), wire(b.pkt())};
}

struct Add {
   Kel::U16 setId;
   std::string record;
   Kel::U32 accepted;  // what addSetRecordStr must return
};

struct PackCase {
   const char* name;
   Kel::U16 maxSize;
   std::vector<Add> adds;
   Bytes wire;
   Kel::U32 recordCount;
};

TEST(MessageBuilder, PacksRecordsIntoSetsByIdWithinMaxSize) {
   const std::vector<PackCase> cases = {
       {"records of one id share one set",
        1452,
        {{256, "ab", 2}, {256, "cde", 3}},
        msgHeader(25) + setHeader(256, 9) + bytesOf("abcde"),
        2},
       {"ids A, B, A give three sets",
        1452,
        {{256, "ab", 2}, {300, "cde", 3}, {256, "f", 1}},
        msgHeader(34) + setHeader(256, 6) + bytesOf("ab") + setHeader(300, 7) + bytesOf("cde") +
            setHeader(256, 5) + bytesOf("f"),
        3},
       {"fills exactly to maxSize, then refuses one octet more",
        100,
        {{256, record('a', 60), 60}, {256, record('b', 20), 20}, {256, "c", 0}},
        msgHeader(100) + setHeader(256, 84) + bytesOf(record('a', 60) + record('b', 20)),
        2},
       {"a new set needs room for its header too",
        100,
        {{256, record('a', 60), 60}, {257, record('x', 17), 0}, {257, record('y', 16), 16}},
        msgHeader(100) + setHeader(256, 64) + bytesOf(record('a', 60)) + setHeader(257, 20) +
            bytesOf(record('y', 16)),
        2},
       {"a record refused as the first one leaves no set behind",
        30,
        {{256, record('z', 11), 0}, {256, record('a', 10), 10}},
        msgHeader(30) + setHeader(256, 14) + bytesOf(record('a', 10)),
        1},
       {"the largest message: 65535 octets",
        65535,
        {{256, record('m', 65515), 65515}, {256, "n", 0}},
        msgHeader(65535) + setHeader(256, 65519) + bytesOf(record('m', 65515)),
        1},
   };
   for (const auto& c : cases) {
      SCOPED_TRACE(c.name);
      auto builder = FlowTracking::messageBuilderFactory(c.maxSize, odid);
      builder->startMsg();
      for (const auto& add : c.adds) {
         const BuilderState before = stateOf(*builder);
         EXPECT_EQ(builder->addSetRecordStr(add.setId, add.record), add.accepted);
         if (add.accepted == 0) {
            EXPECT_TRUE(stateOf(*builder) == before) << "a refused record changed the builder";
         }
      }
      const auto msg = builder->finalizeMsg();
      EXPECT_EQ(wire(msg->msgHdr()->pkt()), c.wire);
      EXPECT_EQ(msg->recordCount(), c.recordCount);
      EXPECT_EQ(msg->msgHdr()->pkt()->buffer()->size(), c.maxSize) << "trimmed, not copied";
   }
}

TEST(MessageBuilder, RecordLengthLimits) {
   auto builder = FlowTracking::messageBuilderFactory(Kel::maxU16(), odid);
   builder->startMsg();
   builder->addSetRecordStr(256, "a");
   const BuilderState before = stateOf(*builder);

   // Below the limit, a record is judged by the room left.
   EXPECT_EQ(builder->addSetRecordStr(256, record('b', 65534)), 0u);
   EXPECT_TRUE(stateOf(*builder) == before);
   EXPECT_EQ(thrownText([&] { builder->addSetRecordStr(256, record('c', 65535)); }),
             "bytes < Kel::maxU16()");
   EXPECT_TRUE(stateOf(*builder) == before);
   // Opening a set, a record whose length with the set header passes 16 bits
   // is refused like any other that does not fit, not an assertion.
   for (const Kel::U32 len : {65532u, 65533u, 65534u}) {
      SCOPED_TRACE(len);
      EXPECT_EQ(builder->addSetRecordStr(257, record('d', len)), 0u);
      EXPECT_TRUE(stateOf(*builder) == before);
   }
}

TEST(MessageBuilder, MisuseIsAnAssertion) {
   const struct {
      const char* name;
      std::function<void(MessageBuilder&)> misuse;
      const char* text;
   } cases[] = {
       {"start twice", [](auto& b) { b.startMsg(), b.startMsg(); }, "!pkt()"},
       {"add without a message", [](auto& b) { b.addSetRecordStr(256, "a"); }, "builder->pkt()"},
       {"finalize without a message", [](auto& b) { b.finalizeMsg(); }, "pkt()"},
       {"finalize without a set", [](auto& b) { b.startMsg(), b.finalizeMsg(); },
        "offset() > IpfixConst::messageHeaderLen()"},
   };
   for (const auto& c : cases) {
      SCOPED_TRACE(c.name);
      MessageBuilder builder(1452, odid);
      EXPECT_EQ(thrownText([&] { c.misuse(builder); }), c.text);
   }
}

TEST(MessageBuilder, FinishedMessageIsSharedAndStampedPerSend) {
   Kel::ScopedManualClock clock(1000.0, 1700000000.75);
   auto builder = FlowTracking::messageBuilderFactory(1452, odid);
   builder->startMsg();
   builder->addSetRecordStr(256, "abcd");
   builder->addSetRecordStr(257, "ef");
   const auto msg = builder->finalizeMsg();

   const Bytes body = setHeader(256, 8) + bytesOf("abcd") + setHeader(257, 6) + bytesOf("ef");
   const auto& hdr = *msg->msgHdr();
   EXPECT_EQ(wire(hdr.pkt()), msgHeader(30) + body);

   const Kel::Ptr<Nivel::Pkt> first = msg->pkt(7, odid);
   EXPECT_EQ(first, hdr.pkt()) << "the message's own packet, not a copy";
   EXPECT_EQ(hdr.exportTime(), 1700000000u) << "whole seconds, fraction dropped";
   EXPECT_EQ(hdr.seqNo(), 7u);

   // Sent again for another tracker: its own observation domain.
   clock.advance(2.5);
   EXPECT_EQ(msg->pkt(8, odid + 1), first);
   const Bytes stamped = be16(10) + be16(30) + be32(1700000003) + be32(8) + be32(odid + 1) + body;
   EXPECT_EQ(wire(first), stamped);

   // Building the next message leaves the finished one alone.
   builder->startMsg();
   builder->addSetRecordStr(256, "zzzz");
   EXPECT_NE(builder->pkt()->buffer(), first->buffer());
   builder->finalizeMsg();
   EXPECT_EQ(wire(first), stamped);
}

}  // namespace
