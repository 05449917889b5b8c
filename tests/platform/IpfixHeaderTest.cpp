#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
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

// Each row writes one header through its overlay at an odd offset, then states
// the octets the wire must carry there and the values the overlay reads back.
struct HeaderCase {
   const char* name;
   std::function<std::vector<Kel::U64>(const Kel::Ptr<Pkt>&, Kel::U32 offset)> writeAndRead;
   Bytes wire;
   std::vector<Kel::U64> readBack;
};

TEST(IpfixHeader, WritesEachFieldInNetworkOrderAtItsPlace) {
   const std::vector<HeaderCase> cases = {
       {"message header",
        [](const auto& pkt, Kel::U32 at) {
           Nivel::MessageHeader h(pkt, at);
           h.versionIs(10);
           h.lengthIs(0x05AC);
           h.exportTimeIs(0x6553F100);
           h.seqNoIs(0xA1B2C3D4);
           h.observationDomainIdIs(0x00000102);
           return std::vector<Kel::U64>{h.version(), h.length(), h.exportTime(), h.seqNo(),
                                        h.observationDomainId()};
        },
        {0x00, 0x0A, 0x05, 0xAC, 0x65, 0x53, 0xF1, 0x00, 0xA1, 0xB2, 0xC3, 0xD4, 0x00, 0x00, 0x01,
         0x02},
        {10, 0x05AC, 0x6553F100, 0xA1B2C3D4, 0x102}},
       {"set header",
        [](const auto& pkt, Kel::U32 at) {
           Nivel::SetHeader h(pkt, at);
           h.setIdIs(0xFFFD);
           h.lengthIs(0x0104);
           return std::vector<Kel::U64>{h.setId(), h.length()};
        },
        {0xFF, 0xFD, 0x01, 0x04},
        {0xFFFD, 0x0104}},
       {"options template record header",
        [](const auto& pkt, Kel::U32 at) {
           Nivel::TemplateHeader h(pkt, at);
           h.templateIdIs(0x0100);
           h.fieldCountIs(8);
           h.scopeFieldCountIs(1);
           return std::vector<Kel::U64>{h.templateId(), h.fieldCount(), h.scopeFieldCount()};
        },
        {0x01, 0x00, 0x00, 0x08, 0x00, 0x01},
        {0x100, 8, 1}},
       {"IANA field specifier",
        [](const auto& pkt, Kel::U32 at) {
           Nivel::FieldSpecifier f(pkt, at);
           f.elementIdIs(false, 82);
           f.fieldLengthIs(0xFFFF);
           return std::vector<Kel::U64>{f.enterpriseIe(), f.elementId(), f.fieldLength(),
                                        f.wireLen()};
        },
        {0x00, 0x52, 0xFF, 0xFF},
        {0, 82, 0xFFFF, 4}},
       {"enterprise field specifier",
        [](const auto& pkt, Kel::U32 at) {
           Nivel::FieldSpecifier f(pkt, at);
           f.elementIdIs(true, 0x7FFF);
           f.fieldLengthIs(2);
           f.enterpriseNumberIs(32473);
           return std::vector<Kel::U64>{f.enterpriseIe(), f.elementId(), f.fieldLength(),
                                        f.enterpriseNumber(), f.wireLen()};
        },
        {0xFF, 0xFF, 0x00, 0x02, 0x00, 0x00, 0x7E, 0xD9},
        {1, 0x7FFF, 2, 32473, 8}},
   };
   constexpr Kel::U32 at = 3;
   for (const auto& c : cases) {
      SCOPED_TRACE(c.name);
      const auto len = static_cast<Kel::U32>(at + c.wire.size() + 2);
      auto pkt = filledPkt(len);
      EXPECT_EQ(c.writeAndRead(pkt, at), c.readBack);

      Bytes expected(len, filler);
      std::copy(c.wire.begin(), c.wire.end(), expected.begin() + at);
      EXPECT_EQ(Bytes(pkt->data(), pkt->data() + pkt->bytes()), expected);
   }
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
