#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <string>
#include <vector>

#include "Bexa/TaskScheduler.h"
#include "Kel/Exception.h"
#include "Kel/System.h"
#include "Nivel/Addr.h"
#include "Nivel/TxBatch.h"
#include "Nivel/UdpPam.h"
#include "support/UdpReceiver.h"

namespace {

TEST(NivelAddr, ParsesAndPrintsTextForms) {
   const struct {
      const char* text;
      bool valid;
      const char* canonical;
   } cases[] = {
       {"192.0.2.1:4739", true, "192.0.2.1:4739"},
       {"[2001:db8::1]:2055", true, "[2001:db8::1]:2055"},
       {"[2001:0db8:0:0:0:0:0:1]:1", true, "[2001:db8::1]:1"},
       {"192.0.2.1:65536", false, ""},
       {"192.0.2.1:", false, ""},
       {"192.0.2:80", false, ""},
       {"2001:db8::1:80", false, ""},
       {"[192.0.2.1]:80", false, ""},
       {"[::1]:x", false, ""},
   };
   for (const auto& c : cases) {
      SCOPED_TRACE(c.text);
      const auto v4 = Nivel::IpAndPort::parse(c.text);
      const auto v6 = Nivel::Ip6AndPort::parse(c.text);
      EXPECT_EQ(v4.has_value() || v6.has_value(), c.valid);
      if (v4) {
         EXPECT_EQ(v4->str(), c.canonical);
      }
      if (v6) {
         EXPECT_EQ(v6->str(), c.canonical);
      }
   }
   EXPECT_EQ(Nivel::IpAddr::parse("10.1.2.3")->value(), 0x0a010203u);
   EXPECT_TRUE(Nivel::IpGenAddr::parse("::ffff:10.1.2.3").has_value());
   EXPECT_FALSE(Nivel::IpGenAddr::parse("10.1.2.3.4").has_value());
   EXPECT_EQ(fmt::format("{}", Nivel::IpGenAddr(*Nivel::Ip6Addr::parse("fe80::1"))), "fe80::1");
}

Kel::Ptr<Nivel::Pkt> payload(const char* text) {
   auto pkt = Nivel::Pkt::pktNew(64);
   std::memcpy(pkt->append(static_cast<Kel::U32>(std::strlen(text))), text, std::strlen(text));
   return pkt;
}

// Sources, ToS and source ports of both families are checked through the
// exporters' send path; here, an unspecified source and closing.
TEST(UdpPam, UnspecifiedSourceIsTheKernelsChoiceAndClosingReleasesThePort) {
   TestSupport::UdpReceiver receiver(false);
   auto pam = Nivel::UdpPam::create("udpPam4-t-e");
   pam->txPrioIs(2);
   pam->modeIs(1);
   ASSERT_GE(pam->fd(), 0);
   ASSERT_NE(pam->rxPort(), 0);
   pam->txSrcIpAddrIs(*Nivel::IpAddr::parse("0.0.0.0"));
   pam->txDstIpAddrIs(receiver.ipAndPort().ip);
   pam->txPortIs(receiver.port());
   pam->txTosIs(static_cast<Nivel::DscpValue>(0x20));
   EXPECT_TRUE(pam->tx(*payload("ipfix")));
   Nivel::UdpPam::txFlush();

   const auto d = receiver.receive();
   ASSERT_TRUE(d.has_value());
   EXPECT_EQ(std::string(d->payload.begin(), d->payload.end()), "ipfix");
   EXPECT_EQ(d->source.str(), "127.0.0.1");
   EXPECT_EQ(d->sourcePort, pam->rxPort());
   EXPECT_EQ(d->tos, 0x20);
   EXPECT_EQ(pam->txPkts(), 1u);
   EXPECT_EQ(pam->txBytes(), 5u);

   pam->modeIs(0);
   EXPECT_EQ(pam->fd(), -1);
   EXPECT_EQ(pam->rxPort(), 0);
}

TEST(UdpPam, FailuresAreCountedNotThrown) {
   TestSupport::UdpReceiver receiver(false);
   auto pam = Nivel::UdpPam::create("udpPam4-x");
   pam->txDstIpAddrIs(receiver.ipAndPort().ip);
   pam->txPortIs(receiver.port());
   EXPECT_FALSE(pam->tx(*payload("closed")));
   EXPECT_EQ(pam->lastTxErrno(), EBADF);

   pam->modeIs(1);
   Nivel::UdpPam::faultsIs(
       {.open = {}, .tx = [](const Nivel::UdpPam& p) { return p.txPort() == 9 ? ENOBUFS : 0; }});
   pam->txPortIs(9);
   EXPECT_FALSE(pam->tx(*payload("dropped")));
   EXPECT_EQ(pam->lastTxErrno(), ENOBUFS);
   pam->txPortIs(receiver.port());
   EXPECT_TRUE(pam->tx(*payload("kept")));
   Nivel::UdpPam::faultsIs({});
   Nivel::UdpPam::txFlush();
   EXPECT_EQ(pam->txErrors(), 2u);
   EXPECT_EQ(pam->txPkts(), 1u);
   ASSERT_EQ(receiver.receiveAll().size(), 1u);
}

TEST(UdpPam, OpenFailureThrowsAndLeavesItClosed) {
   Nivel::UdpPam::faultsIs({.open = [](const Nivel::UdpPam&) { return EMFILE; }, .tx = {}});
   auto pam = Nivel::UdpPam::create("udpPam4-fail");
   try {
      pam->modeIs(1);
      ADD_FAILURE() << "open did not fail";
   } catch (const Kel::ErrnoException& e) {
      EXPECT_EQ(e.errnoValue(), EMFILE);
   }
   Nivel::UdpPam::faultsIs({});
   EXPECT_EQ(pam->mode(), 0);
   EXPECT_EQ(pam->rxPort(), 0);
   pam->modeIs(1);
   EXPECT_EQ(pam->mode(), 1);
}

// Two sockets to two receivers, their datagrams interleaved: what each
// receiver gets, in order, and what each socket counts.
class UdpPamBatch : public ::testing::Test {
 protected:
   UdpPamBatch() {
      for (int i = 0; i < 2; ++i) {
         pam_[i] = Nivel::UdpPam::create(fmt::format("udpPam4-batch{}", i));
         pam_[i]->modeIs(1);
         pam_[i]->txDstIpAddrIs(rx_[i].ipAndPort().ip);
         pam_[i]->txPortIs(rx_[i].port());
      }
   }

   // Hands datagram `text` to socket `i`.
   void tx(int i, const std::string& text) { EXPECT_TRUE(pam_[i]->tx(*payload(text.c_str()))); }

   std::vector<std::string> received(int i) {
      std::vector<std::string> texts;
      for (const auto& d : rx_[i].receiveAll()) {
         texts.emplace_back(d.payload.begin(), d.payload.end());
      }
      return texts;
   }

   TestSupport::UdpReceiver rx_[2] = {TestSupport::UdpReceiver(false),
                                      TestSupport::UdpReceiver(false)};
   Kel::Ptr<Nivel::UdpPam> pam_[2];
};

TEST_F(UdpPamBatch, HandedOverDatagramsLeaveInOrderAtTheFlush) {
   std::vector<std::string> expected[2];
   for (int n = 0; n < 10; ++n) {
      const int i = n % 3 == 0 ? 1 : 0;
      expected[i].push_back(fmt::format("d{}", n));
      tx(i, expected[i].back());
   }
   EXPECT_EQ(pam_[0]->txPkts(), 0u) << "counted when sent, not when handed over";
   EXPECT_TRUE(rx_[0].receiveAll().empty());
   Nivel::UdpPam::txFlush();
   for (int i = 0; i < 2; ++i) {
      EXPECT_EQ(received(i), expected[i]);
      EXPECT_EQ(pam_[i]->txPkts(), expected[i].size());
      EXPECT_EQ(pam_[i]->txBytes(), 2 * expected[i].size());
   }
}

TEST_F(UdpPamBatch, AFullBatchLeavesWithoutWaitingForTheFlush) {
   const std::size_t full = Nivel::TxBatch::capacity;
   std::vector<std::string> expected;
   for (std::size_t n = 0; n <= full; ++n) {
      expected.push_back(fmt::format("{:03}", n));
      tx(0, expected.back());
   }
   EXPECT_EQ(received(0), std::vector<std::string>(expected.begin(), expected.begin() + full));
   Nivel::UdpPam::txFlush();
   EXPECT_EQ(received(0), std::vector<std::string>{expected.back()});
}

TEST_F(UdpPamBatch, AFailedDatagramIsCountedAndTheRestOfTheBatchStillGoes) {
   tx(0, "a1");
   tx(1, "b1");
   pam_[0]->txPortIs(0);  // the kernel refuses port 0 at the send
   tx(0, "lost");
   pam_[0]->txPortIs(rx_[0].port());
   tx(0, "a2");
   tx(1, "b2");
   Nivel::UdpPam::txFlush();
   EXPECT_EQ(received(0), (std::vector<std::string>{"a1", "a2"}));
   EXPECT_EQ(received(1), (std::vector<std::string>{"b1", "b2"}));
   EXPECT_EQ(pam_[0]->txErrors(), 1u);
   EXPECT_EQ(pam_[0]->lastTxErrno(), EINVAL);
   EXPECT_EQ(pam_[0]->txPkts(), 2u);
   EXPECT_EQ(pam_[1]->txErrors(), 0u);
}

TEST_F(UdpPamBatch, EachDestinationGetsTheHeaderStampedForIt) {
   // One packet restamped per destination, as the exporters send a cached
   // message: the front is each destination's, the rest is shared.
   const std::string body = "-shared body";
   auto pkt = Nivel::Pkt::pktNew(64);
   std::memcpy(pkt->append(Nivel::TxBatch::stampedOctets + Kel::U32(body.size())) +
                   Nivel::TxBatch::stampedOctets,
               body.data(), body.size());
   std::string expected[2];
   for (int i = 0; i < 2; ++i) {
      expected[i] = std::string(Nivel::TxBatch::stampedOctets, char('a' + i)) + body;
      std::memset(pkt->data(), 'a' + i, Nivel::TxBatch::stampedOctets);
      EXPECT_TRUE(pam_[i]->tx(*pkt));
   }
   pkt = nullptr;  // the batch holds the buffer until it is sent
   Nivel::UdpPam::txFlush();
   for (int i = 0; i < 2; ++i) {
      EXPECT_EQ(received(i), std::vector<std::string>{expected[i]});
   }
}

TEST_F(UdpPamBatch, ClosingASocketSendsWhatItWasHanded) {
   tx(0, "before close");
   tx(1, "other");
   pam_[0]->modeIs(0);
   EXPECT_EQ(received(0), std::vector<std::string>{"before close"});
   EXPECT_EQ(pam_[0]->txPkts(), 1u);
   EXPECT_EQ(received(1), std::vector<std::string>{"other"}) << "the batch went out whole";
}

TEST_F(UdpPamBatch, TheSchedulerSendsAtTheEndOfEachTaskTurn) {
   Kel::ScopedManualClock clock;
   auto sched = Kel::makePtr<Bexa::TaskSchedulerRoot>();
   std::size_t seenInTask = 0;
   Bexa::Task task(sched, "sender", Bexa::TaskPriority{0}, [&] {
      tx(0, "from a task");
      seenInTask = rx_[0].receiveAll().size();
   });
   task.scheduleTask();
   ASSERT_TRUE(sched->runOnce());
   EXPECT_EQ(seenInTask, 0u);
   EXPECT_EQ(received(0), std::vector<std::string>{"from a task"});

   // A task that throws after handing a datagram over still ends its turn.
   Bexa::Task failing(sched, "failing", Bexa::TaskPriority{0}, [&] {
      tx(0, "before the exception");
      throw std::runtime_error("task failed");
   });
   failing.scheduleTask();
   ASSERT_TRUE(sched->runOnce());
   EXPECT_EQ(received(0), std::vector<std::string>{"before the exception"});

   tx(0, "outside any task");
   sched->runFor(0);
   EXPECT_EQ(received(0), std::vector<std::string>{"outside any task"});
}

}  // namespace
