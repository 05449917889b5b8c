#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <functional>

#include "Ipfix/FlowTrackerInfoSm.h"
#include "Ipfix/FlowTrackerPktTxUtil.h"
#include "Kel/Log.h"
#include "Kel/Trace.h"
#include "TrackingTreeFixture.h"
#include "support/UdpReceiver.h"

namespace {

class ExporterTest : public TrackingTreeFixture {
 public:
   void SetUp() override {
      addTracker("t1");
      exp_ = addExporter("t1", "e1");
      exp_->collectorIpAndPortIs("c1", v4("192.0.2.1:4739"));
      exp_->collectorIp6AndPortIs("c2", v6("[2001:db8::2]:4739"));
      exp_->collectorIpAndPortIs("c3", v4("192.0.2.3:4739"));
      exp_->collectorIp6AndPortIs("c3", v6("[2001:db8::3]:4739"));
      exp_->vrfNameIs("blue");
   }
   Kel::Ptr<FlowTracking::ExporterInfo> info() const { return exporterInfo("t1", "e1"); }
   std::vector<Kel::String> collectorNames() const {
      std::vector<Kel::String> names;
      for (const auto& [name, c] : info()->collInfo()) {
         names.push_back(name);
      }
      return names;
   }

   Kel::Ptr<HwFlowTracking::ExporterConfig> exp_;
};

TEST_F(ExporterTest, SocketsAndCollectorRecordsComeFromTheManagementTask) {
   start();
   EXPECT_EQ(info()->udpPam4(), nullptr);
   EXPECT_TRUE(info()->collInfo().empty());
   EXPECT_EQ(sched_->readyCount(), 1u);
   EXPECT_EQ(exporterSm("t1", "e1")->pamManagementTask()->name(), "PamManagementTask-t1-e1");

   sched_->runFor(0);
   ASSERT_TRUE(info()->udpPam4());
   ASSERT_TRUE(info()->udpPam6());
   EXPECT_EQ(info()->udpPam4()->mode(), 1);
   EXPECT_FALSE(info()->udpPam4()->ipv6En());
   EXPECT_TRUE(info()->udpPam6()->ipv6En());
   EXPECT_EQ(info()->udpPam6()->txPrio(), 2u);
   EXPECT_EQ(collectorNames(), (std::vector<Kel::String>{"c1", "c2", "c3"}));
   EXPECT_EQ(info()->collInfo("c3")->ipfixMsgSeqNo().value(), 0u);
   EXPECT_FALSE(info()->collInfo("c3")->optTemplateSent());

   // Run outside its task, the handler leaves the open sockets alone.
   const auto pam4 = info()->udpPam4();
   exporterSm("t1", "e1")->handlePamManagementTask();
   EXPECT_EQ(info()->udpPam4(), pam4);
}

TEST_F(ExporterTest, CollectorRecordKeepsItsSequenceWhileAnyMapHasTheName) {
   start();
   sched_->runFor(0);
   info()->collInfo("c3")->ipfixMsgSeqNoIs(Ipfix::IpfixMsgSeqNo(5));
   exp_->collectorIpAndPortIs("c3", v4("192.0.2.33:2055"));  // readdressed
   EXPECT_EQ(info()->collInfo("c3")->ipfixMsgSeqNo().value(), 5u);
   exp_->collectorIpAndPortDel("c3");
   EXPECT_EQ(info()->collInfo("c3")->ipfixMsgSeqNo().value(), 5u);
   exp_->collectorIp6AndPortDel("c3");
   EXPECT_EQ(info()->collInfo("c3"), nullptr);
   exp_->collectorIpAndPortIs("c3", v4("192.0.2.3:4739"));
   EXPECT_EQ(info()->collInfo("c3")->ipfixMsgSeqNo().value(), 0u);
   EXPECT_EQ(collectorNames(), (std::vector<Kel::String>{"c1", "c2", "c3"}));
}

// Readiness and the active/inactive messages, step by step, one scenario a
// fresh tree.
struct ReadinessStep {
   const char* what;
   std::function<void(ExporterTest&)> act;
   int activeLogs;    // cumulative
   int inactiveLogs;  // cumulative
   bool ready4, ready6;
   Nivel::Port hwRxPort4;
};
struct ReadinessScenario {
   const char* name;
   bool multiThreaded;
   std::vector<ReadinessStep> steps;
};

std::function<void(ExporterTest&)> rxPort4(Nivel::Port p) {
   return [p](ExporterTest& test) { test.info()->rxPort4Is(p); };
}
std::function<void(ExporterTest&)> resolved(bool r) {
   return [r](ExporterTest& test) { test.exp_->exporterResolvedIs(r); };
}

class ExporterReadinessTest : public ExporterTest,
                              public ::testing::WithParamInterface<ReadinessScenario> {};

TEST_P(ExporterReadinessTest, ReadinessAndLogsFollowTransitionsOnly) {
   init_->agentInfo()->multiThreadedIs(GetParam().multiThreaded);
   start();
   sched_->runFor(0);
   Kel::LogCapture logs;
   for (const ReadinessStep& step : GetParam().steps) {
      SCOPED_TRACE(step.what);
      step.act(*this);
      EXPECT_EQ(logs.count("EXPORTER_ACTIVE"), std::size_t(step.activeLogs));
      EXPECT_EQ(logs.count("EXPORTER_INACTIVE"), std::size_t(step.inactiveLogs));
      EXPECT_EQ(exp_->exporter4Ready(), step.ready4);
      EXPECT_EQ(exp_->exporter6Ready(), step.ready6);
      EXPECT_EQ(exp_->rxPort4(), step.hwRxPort4);
   }
   for (const auto& line : logs.lines()) {
      const bool active = line.find("EXPORTER_ACTIVE") != std::string::npos;
      EXPECT_EQ(line, active ? "%FLOWTRACKING-6-EXPORTER_ACTIVE: IPFIX exporter e1 in VRF "
                               "blue, in Hardware flow tracker t1 is active."
                             : "%FLOWTRACKING-6-EXPORTER_INACTIVE: IPFIX exporter e1 in VRF "
                               "blue, in Hardware flow tracker t1 is inactive.");
   }
}

INSTANTIATE_TEST_SUITE_P(
    Scenarios, ExporterReadinessTest,
    ::testing::Values(
        ReadinessScenario{
            "SingleThreaded",
            false,
            {{"resolved without a port", resolved(true), 0, 0, false, false, 0},
             {"port known", rxPort4(4000), 1, 0, true, false, 4000},
             {"same state again",
              [](ExporterTest& test) { test.exporterSm("t1", "e1")->handleExporterResolved(); }, 1,
              0, true, false, 4000},
             {"v6 port too", [](ExporterTest& test) { test.info()->rxPort6Is(4001); }, 1, 0, true,
              true, 4000},
             {"unresolved", resolved(false), 1, 1, false, false, 4000},
             {"resolved again", resolved(true), 2, 1, true, true, 4000},
             {"port lost", rxPort4(0), 2, 1, false, true, 0}}},
        ReadinessScenario{"NeverActiveLogsNothing",
                          false,
                          {{"port without resolution", rxPort4(4000), 0, 0, false, false, 4000},
                           {"still unresolved", resolved(false), 0, 0, false, false, 4000}}},
        ReadinessScenario{"MultiThreadedLeavesConfigurationAlone",
                          true,
                          {{"resolved", resolved(true), 0, 0, false, false, 0},
                           {"port known", rxPort4(4000), 1, 0, false, false, 0},
                           {"unresolved", resolved(false), 1, 1, false, false, 0}}}),
    [](const auto& p) { return p.param.name; });

class ExporterDeletionTest : public ExporterTest, public ::testing::WithParamInterface<bool> {};

TEST_P(ExporterDeletionTest, DeletionClosesSocketsDropsCollectorsAndClearsPublishedState) {
   init_->agentInfo()->multiThreadedIs(GetParam());
   start();
   sched_->runFor(0);
   exp_->exporterResolvedIs(true);
   info()->rxPort4Is(info()->udpPam4()->rxPort());
   info()->rxPort6Is(info()->udpPam6()->rxPort());
   exp_->exporter4ReadyIs(true);  // as another thread would have published
   exp_->rxPort6Is(1234);
   const auto record = info();
   const auto pam4 = record->udpPam4();
   const auto pam6 = record->udpPam6();

   Kel::LogCapture logs;
   hwConfig_->hwFtConfig("t1")->expConfigDel("e1");
   EXPECT_EQ(pam4->mode(), 0);
   EXPECT_EQ(pam6->mode(), 0);
   EXPECT_EQ(record->udpPam4(), nullptr);
   EXPECT_EQ(record->udpPam6(), nullptr);
   EXPECT_TRUE(record->collInfo().empty());
   EXPECT_EQ(exp_->rxPort4(), 0);
   EXPECT_EQ(exp_->rxPort6(), 0);
   EXPECT_FALSE(exp_->exporter4Ready());
   EXPECT_FALSE(exp_->exporter6Ready());
   EXPECT_TRUE(logs.lines().empty()) << "no message on deletion";
}

INSTANTIATE_TEST_SUITE_P(Threading, ExporterDeletionTest, ::testing::Bool(), [](const auto& p) {
   return p.param ? "MultiThreaded" : "SingleThreaded";
});

TEST_F(ExporterTest, ExporterDeletedBeforeItsTaskRanOpensNothing) {
   int opens = 0;
   Nivel::UdpPam::faultsIs({.open = [&](const Nivel::UdpPam&) { return ++opens, 0; }, .tx = {}});
   start();
   const auto record = info();
   hwConfig_->hwFtConfig("t1")->expConfigDel("e1");
   sched_->runFor(1.0);
   EXPECT_EQ(opens, 0);
   EXPECT_EQ(record->udpPam4(), nullptr);
   EXPECT_TRUE(record->collInfo().empty());
   EXPECT_EQ(sched_->tasksRun(), 0u);
}

TEST_F(ExporterTest, SocketOpenFailureLeavesOnlyThatExporterInactive) {
   addExporter("t1", "e2");
   Nivel::UdpPam::faultsIs(
       {.open = [](const Nivel::UdpPam& p) { return p.name() == "udpPam4-t1-e1" ? EACCES : 0; },
        .tx = {}});
   Kel::TraceCapture capture("Ipfix", 1);
   start();
   exp_->exporterResolvedIs(true);
   sched_->runFor(0);

   EXPECT_EQ(info()->udpPam4(), nullptr);
   EXPECT_EQ(info()->udpPam6(), nullptr) << "IPv6 is not tried after IPv4 failed";
   EXPECT_EQ(collectorNames(), (std::vector<Kel::String>{"c1", "c2", "c3"}));
   EXPECT_EQ(capture.lines(1), std::vector<Kel::String>{
                                   "Caught ErrnoException: open udpPam4-t1-e1: Permission denied "
                                   "(errno 13)"});
   EXPECT_EQ(sched_->taskExceptions(), 1u);
   {
      // The scheduler counts what the library reported, without a second report.
      Kel::TraceCapture scheduler("Bexa", 1);
      hwConfig_->hwFtConfig("t1")->expConfigDel("e1");
      addExporter("t1", "e1");
      sched_->runFor(0);
      EXPECT_EQ(sched_->taskExceptions(), 2u);
      EXPECT_TRUE(scheduler.lines(1).empty());
   }

   const auto other = exporterInfo("t1", "e2");
   ASSERT_TRUE(other->udpPam4());
   ASSERT_TRUE(other->udpPam6());
}

TEST_F(ExporterTest, SendPathWritesSourceDestinationAndUnshiftedTos) {
   TestSupport::UdpReceiver rx4(false), rx6(true);
   start();
   sched_->runFor(0);
   auto pkt = Nivel::Pkt::pktNew(32);
   std::memcpy(pkt->append(6), "IPFIX!", 6);

   FlowTracking::sendPkt4(pkt, info()->udpPam4(), *Nivel::IpAddr::parse("127.0.0.9"),
                          rx4.ipAndPort(), 0xB8);
   FlowTracking::sendPkt6(pkt, info()->udpPam6(), *Nivel::Ip6Addr::parse("::1"), rx6.ip6AndPort(),
                          0x2E);
   sched_->runFor(0);
   const auto d4 = rx4.receive();
   const auto d6 = rx6.receive();
   ASSERT_TRUE(d4 && d6);
   EXPECT_EQ(std::string(d4->payload.begin(), d4->payload.end()), "IPFIX!");
   EXPECT_EQ(d4->source.str(), "127.0.0.9");
   EXPECT_EQ(d4->sourcePort, info()->udpPam4()->rxPort());
   EXPECT_EQ(d4->tos, 0xB8);
   EXPECT_EQ(d6->payload, d4->payload);
   EXPECT_EQ(d6->source.str(), "::1");
   EXPECT_EQ(d6->sourcePort, info()->udpPam6()->rxPort());
   EXPECT_EQ(d6->tos, 0x2E);
}

}  // namespace
