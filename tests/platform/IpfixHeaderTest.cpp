#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

#include "Nivel/IpfixHeader.h"
#include "support/ThrownText.h"

namespace {

using Bytes = std::vector<Kel::U8>;
using Nivel::Pkt;

constexpr Kel::U8 filler = 0xEE;

// A packet whose data is `len` octets of filler.
Kel::Ptr<Pkt> filledPkt(Kel::U32 len) {
   auto pkt = Pkt::pktNew(len);
   std::fill_n(pkt->append(len), len, filler);
   return pkt;
}

TEST(IpfixHeader, AccessBeyondThePacketDataIsAnAssertion) {
   const char* outOfBounds = "Kel::U64(offset_) + len <= pkt_->bytes()";
   auto pkt = filledPkt(20);

   EXPECT_EQ(thrownText([&] { Nivel::MessageHeader(pkt, 4).seqNoIs(1); }), "(nothing thrown)");
   EXPECT_EQ(thrownText([&] { Nivel::MessageHeader(pkt, 5).seqNoIs(1); }), outOfBounds);
   EXPECT_EQ(thrownText([&] { Nivel::MessageHeader(pkt, 0xFFFFFFF8).version(); }), outOfBounds);

   // A template record header fits where the options form does not.
   Nivel::TemplateHeader t(pkt, 16);
   t.fieldCountIs(3);
   EXPECT_EQ(thrownText([&] { t.scopeFieldCountIs(1); }), outOfBounds);

   // Trimming the packet takes the header out of reach of an existing overlay.
   Nivel::SetHeader s(pkt, 8);
   s.lengthIs(12);
   pkt->bytesIs(11);
   EXPECT_EQ(thrownText([&] { s.length(); }), outOfBounds);

   Nivel::FieldSpecifier f(pkt, 0);
   f.elementIdIs(false, 10);
   EXPECT_EQ(thrownText([&] { f.enterpriseNumberIs(32473); }), "enterpriseIe()");
   EXPECT_EQ(thrownText([&] { f.elementIdIs(true, 0x8000); }), "elementId < enterpriseBit");
   EXPECT_EQ(thrownText([] { Nivel::SetHeader(nullptr, 0); }), "pkt_");
}

TEST(NetOrder, ReadsAndWritesBigEndianAtUnalignedAddresses) {
   Kel::U8 buf[10] = {};
   Nivel::storeNet<Kel::U64>(buf + 1, 0x0102030405060708);
   EXPECT_EQ(Bytes(buf, buf + 10), (Bytes{0, 1, 2, 3, 4, 5, 6, 7, 8, 0}));
   EXPECT_EQ(Nivel::loadNet<Kel::U64>(buf + 1), 0x0102030405060708u);
   EXPECT_EQ(Nivel::loadNet<Kel::U16>(buf + 3), 0x0304);
}

}  // namespace
