#include <gtest/gtest.h>

#include <cstring>

#include "Kel/Exception.h"
#include "Nivel/Pkt.h"

namespace {

TEST(Pkt, BodyAtTailThenHeadersInFrontWithoutMovingIt) {
   auto pkt = Nivel::Pkt::pktNew(64, 20);
   Kel::U8* body = pkt->append(8);
   std::memcpy(body, "BODYBODY", 8);
   EXPECT_EQ(pkt->bytes(), 8u);
   EXPECT_EQ(pkt->tailroom(), 64u - 20u - 8u);

   std::memcpy(pkt->prepend(4), "SETH", 4);
   std::memcpy(pkt->prepend(16), "MESSAGEHEADER16.", 16);
   EXPECT_EQ(pkt->headroom(), 0u);
   EXPECT_EQ(pkt->data() + 20, body);
   EXPECT_EQ(std::string(reinterpret_cast<const char*>(pkt->data()), pkt->bytes()),
             "MESSAGEHEADER16.SETHBODYBODY");
   EXPECT_THROW(pkt->prepend(1), Kel::AssertionError);
}

TEST(Pkt, TrimKeepsTheSameBuffer) {
   auto pkt = Nivel::Pkt::pktNew(1452);
   pkt->bytesIs(1452);
   const Kel::U8* before = pkt->data();
   auto buffer = pkt->buffer();
   pkt->bytesIs(100);
   EXPECT_EQ(pkt->bytes(), 100u);
   EXPECT_EQ(pkt->data(), before);
   EXPECT_EQ(pkt->buffer(), buffer);
   EXPECT_THROW(pkt->bytesIs(1453), Kel::AssertionError);
   EXPECT_THROW(pkt->append(1353), Kel::AssertionError);
}

}  // namespace
