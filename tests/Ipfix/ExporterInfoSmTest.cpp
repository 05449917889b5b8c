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
   Kel::Ptr<FlowTracking::ExporterInfoSm> exporterSm(const Kel::Name& tracker,
                                                     const Kel::Name& exporter) const {
      const auto t = sm_->ftInfoSm(tracker);
      return t ? t->expInfoSm(exporter) : nullptr;
   }
   void SetUp() override {
      addTracker("t1");
      exp_ = addExporter("t1", "e1");
      exp_->collectorIpAndPortIs("c1", *Nivel::IpAndPort::parse("192.0.2.1:4739"));
      exp_->collectorIp6AndPortIs("c2", *Nivel::Ip6AndPort::parse("[2001:db8::2]:4739"));
   }
   Kel::Ptr<FlowTracking::ExporterInfo> info() const { return exporterInfo("t1", "e1"); }

   Kel::Ptr<HwFlowTracking::ExporterConfig> exp_;
};

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
