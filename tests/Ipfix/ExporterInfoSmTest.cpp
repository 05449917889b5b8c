#include <gtest/gtest.h>

#include <cerrno>
#include <functional>

#include "ExportFixture.h"
#include "Ipfix/FlowTrackerInfoSm.h"
#include "Kel/Log.h"
#include "Kel/Trace.h"

namespace {

class ExporterTest : public ExportFixture {
 public:
   void SetUp() override {
      addTracker("t1");
      exp_ = addExporter("t1", "e1");
      exp_->collectorIpAndPortIs("c1", *Nivel::IpAndPort::parse("192.0.2.1:4739"));
      exp_->collectorIp6AndPortIs("c2", *Nivel::Ip6AndPort::parse("[2001:db8::2]:4739"));
   }
   Kel::Ptr<FlowTracking::ExporterInfo> info() const { return exporterInfo("t1", "e1"); }

   Kel::Ptr<HwFlowTracking::ExporterConfig> exp_;
};

// Readiness and the active/inactive messages, step by step, in both threading
// modes: with several threads the library leaves the configuration's
// readiness and port to the thread that owns them, and only logs.
class ExporterThreadingTest : public ExporterTest, public ::testing::WithParamInterface<bool> {
 protected:
   void SetUp() override {
      ExporterTest::SetUp();
      init_->agentInfo()->multiThreadedIs(GetParam());
      start();
      sched_->runFor(0);
   }
};

TEST_P(ExporterThreadingTest, ReadinessAndLogsFollowTransitionsOnly) {
   const auto rxPort4 = [this](Nivel::Port p) { return [this, p] { info()->rxPort4Is(p); }; };
   const auto resolved = [this](bool r) { return [this, r] { exp_->exporterResolvedIs(r); }; };
   const struct {
      const char* what;
      std::function<void()> act;
      int activeLogs, inactiveLogs;  // cumulative
      bool ready4, ready6;
      Nivel::Port hwRxPort4;
   } steps[] = {
       {"port without resolution", rxPort4(4000), 0, 0, false, false, 4000},
       {"still unresolved: never active, no message", resolved(false), 0, 0, false, false, 4000},
       {"resolved", resolved(true), 1, 0, true, false, 4000},
       {"same state again",
        [this] { sm_->ftInfoSm("t1")->expInfoSm("e1")->handleExporterResolved(); }, 1, 0, true,
        false, 4000},
       {"v6 port too", [this] { info()->rxPort6Is(4001); }, 1, 0, true, true, 4000},
       {"unresolved", resolved(false), 1, 1, false, false, 4000},
       {"resolved again", resolved(true), 2, 1, true, true, 4000},
       {"port lost", rxPort4(0), 2, 1, false, true, 0},
   };
   const bool multiThreaded = GetParam();
   Kel::LogCapture logs;
   for (const auto& step : steps) {
      SCOPED_TRACE(step.what);
      step.act();
      EXPECT_EQ(logs.count("EXPORTER_ACTIVE"), std::size_t(step.activeLogs));
      EXPECT_EQ(logs.count("EXPORTER_INACTIVE"), std::size_t(step.inactiveLogs));
      EXPECT_EQ(exp_->exporter4Ready(), step.ready4 && !multiThreaded);
      EXPECT_EQ(exp_->exporter6Ready(), step.ready6 && !multiThreaded);
      EXPECT_EQ(exp_->rxPort4(), multiThreaded ? 0 : step.hwRxPort4);
   }
}

TEST_P(ExporterThreadingTest, DeletionClosesSocketsDropsCollectorsAndClearsPublishedState) {
   exp_->exporterResolvedIs(true);
   info()->rxPort4Is(info()->udpPam4()->rxPort());
   info()->rxPort6Is(info()->udpPam6()->rxPort());
   exp_->exporter4ReadyIs(true);  // as another thread would have published
   exp_->rxPort6Is(1234);
   const auto record = info();

   Kel::LogCapture logs;
   hwConfig_->hwFtConfig("t1")->expConfigDel("e1");
   EXPECT_EQ(record->udpPam4(), nullptr);
   EXPECT_EQ(record->udpPam6(), nullptr);
   EXPECT_TRUE(record->collInfo().empty());
   EXPECT_EQ(exp_->rxPort4(), 0);
   EXPECT_EQ(exp_->rxPort6(), 0);
   EXPECT_FALSE(exp_->exporter4Ready());
   EXPECT_FALSE(exp_->exporter6Ready());
   EXPECT_TRUE(logs.lines().empty()) << "no message on deletion";
}

INSTANTIATE_TEST_SUITE_P(Threading, ExporterThreadingTest, ::testing::Bool(), [](const auto& p) {
   return p.param ? "MultiThreaded" : "SingleThreaded";
});

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
   EXPECT_EQ(info()->collInfo().size(), 2u) << "the collectors stay";
   EXPECT_EQ(capture.lines(1).size(), 1u) << "reported once";
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

}  // namespace
