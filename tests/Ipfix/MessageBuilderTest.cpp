#include <gtest/gtest.h>

#include <vector>

#include "Ipfix/MessageBuilder.h"

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
// A message header as finalizeMsg leaves it: export time and sequence 0.
Bytes msgHeader(Kel::U16 length) {
   return be16(10) + be16(length) + Bytes(8, 0) + be16(odid >> 16) + be16(odid & 0xFFFF);
}
Bytes set(Kel::U16 setId, const std::string& records) {
   return be16(setId) + be16(Kel::U16(4 + records.size())) + Bytes(records.begin(), records.end());
}
std::string fill(char c, std::size_t len) {
   return std::string(len, c);
}

// Everything a refused add must leave as it was.
struct BuilderState {
   Kel::U32 offset, recordCount;
   Kel::U16 setLen, setId;
   const void* setHdr;
   Bytes octets;
   bool operator==(const BuilderState&) const = default;
};
BuilderState stateOf(const MessageBuilder& b) {
   const auto& p = *b.pkt();
   return {b.offset(), b.recordCount(),  b.setLen(),
           b.setId(),  b.setHdr().ptr(), Bytes(p.data(), p.data() + p.bytes())};
}

struct Add {
   Kel::U16 setId;
   std::string record;
   Kel::U32 accepted;  // what addSetRecordStr must return
};

// One row: a fresh builder, the adds and what each must return, the message.
void packs(const char* name, Kel::U16 maxSize, const std::vector<Add>& adds, const Bytes& wire,
           Kel::U32 recordCount) {
   SCOPED_TRACE(name);
   auto builder = FlowTracking::messageBuilderFactory(maxSize, odid);
   builder->startMsg();
   for (const auto& add : adds) {
      const BuilderState before = stateOf(*builder);
      EXPECT_EQ(builder->addSetRecordStr(add.setId, add.record), add.accepted);
      if (add.accepted == 0) {
         EXPECT_TRUE(stateOf(*builder) == before) << "a refused record changed the builder";
      }
   }
   const auto msg = builder->finalizeMsg();
   const auto& pkt = *msg->msgHdr()->pkt();
   EXPECT_EQ(Bytes(pkt.data(), pkt.data() + pkt.bytes()), wire);
   EXPECT_EQ(msg->recordCount(), recordCount);
   EXPECT_EQ(pkt.buffer()->size(), maxSize) << "trimmed, not copied";
}

TEST(MessageBuilder, PacksRecordsIntoSetsByIdWithinMaxSize) {
   packs("records of one id share one set", 1452, {{256, "ab", 2}, {256, "cde", 3}},
         msgHeader(25) + set(256, "abcde"), 2);
   packs("ids A, B, A give three sets", 1452, {{256, "ab", 2}, {300, "cde", 3}, {256, "f", 1}},
         msgHeader(34) + set(256, "ab") + set(300, "cde") + set(256, "f"), 3);
   packs("fills exactly to maxSize, then refuses one octet more", 100,
         {{256, fill('a', 60), 60}, {256, fill('b', 20), 20}, {256, "c", 0}},
         msgHeader(100) + set(256, fill('a', 60) + fill('b', 20)), 2);
   packs("a new set needs room for its header too", 100,
         {{256, fill('a', 60), 60}, {257, fill('x', 17), 0}, {257, fill('y', 16), 16}},
         msgHeader(100) + set(256, fill('a', 60)) + set(257, fill('y', 16)), 2);
   packs("a record refused as the first one leaves no set behind", 30,
         {{256, fill('z', 11), 0}, {256, fill('a', 10), 10}},
         msgHeader(30) + set(256, fill('a', 10)), 1);
   packs("the largest message: 65535 octets", 65535,
         {{256, fill('m', 65515), 65515}, {256, "n", 0}},
         msgHeader(65535) + set(256, fill('m', 65515)), 1);
}

}  // namespace
