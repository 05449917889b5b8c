#include <gtest/gtest.h>

#include "Ipfix/FlowTrackerInfoSm.h"
#include "Kel/Exception.h"
#include "Kel/Trace.h"
#include "TrackingTreeFixture.h"

namespace {

using TrackingTree = TrackingTreeFixture;

// Records, when an exporter record goes, whether its machine was already gone.
class ExpInfoWatcher : public FlowTracking::FlowTrackerInfo::Notifiee {
 public:
   ExpInfoWatcher(const Kel::Ptr<FlowTracking::FlowTrackerInfo>& info,
                  Kel::Ptr<FlowTracking::FlowTrackerInfoSm> sm)
       : sm_(std::move(sm)) {
      notifierIs(info);
   }
   void onExpInfo(const Kel::Name& name) override {
      if (!notifier()->expInfo(name)) {
         removals.push_back(name + (sm_->expInfoSm(name) ? ": machine alive" : ": machine gone"));
      }
   }
   std::vector<Kel::String> removals;

 private:
   Kel::Ptr<FlowTracking::FlowTrackerInfoSm> sm_;
};

TEST_F(TrackingTree, RemovalDeletesMachineBeforeRecord) {
   addTracker("t1");
   addExporter("t1", "e1");
   addExporter("t1", "e2");
   start();
   ExpInfoWatcher watcher(ftInfo_->ftInfo("t1"), sm_->ftInfoSm("t1"));
   Kel::TraceCapture capture("Ipfix", 3);

   hwConfig_->hwFtConfig("t1")->expConfigDel("e1");
   EXPECT_EQ(watcher.removals, std::vector<Kel::String>{"e1: machine gone"});
   EXPECT_EQ(exporterInfo("t1", "e1"), nullptr);
   EXPECT_EQ(exporterSm("t1", "e1"), nullptr);
   EXPECT_TRUE(capture.contains("Deleted ExporterInfoSm for e1"));

   hwConfig_->hwFtConfigDel("t1");
   EXPECT_EQ(watcher.removals, (std::vector<Kel::String>{"e1: machine gone", "e2: machine gone"}));
   EXPECT_EQ(sm_->ftInfoSm("t1"), nullptr);
   EXPECT_EQ(ftInfo_->ftInfo("t1"), nullptr);
   EXPECT_TRUE(capture.contains("Deleted FlowTrackerInfoSm for t1"));
}

TEST_F(TrackingTree, SameEntryTwiceIsOneMachine) {
   addTracker("t1");
   addExporter("t1", "e1");
   start();
   const auto machine = exporterSm("t1", "e1");
   const auto record = exporterInfo("t1", "e1");
   sm_->ftInfoSm("t1")->handleHwExpConfig("e1");
   sm_->handleHwFtConfig("t1");
   EXPECT_EQ(exporterSm("t1", "e1"), machine);
   EXPECT_EQ(exporterInfo("t1", "e1"), record);
   EXPECT_EQ(sm_->ftInfoSm("t1")->expInfoSm().size(), 1u);
}

TEST_F(TrackingTree, ReplacedEntryIsRefusedWithNameInUse) {
   addTracker("t1");
   const auto old = addExporter("t1", "e1");
   start();
   auto replacement = Kel::makeActive<HwFlowTracking::ExporterConfig>("e1");
   try {
      hwConfig_->hwFtConfig("t1")->expConfigIs(replacement);
      FAIL() << "replacement accepted";
   } catch (const Kel::NameInUseException& e) {
      EXPECT_EQ(Kel::String(e.what()),
                fmt::format("Reinstantiating the pointer interface where constructor parameter "
                            "attribute _hwExpConfig has a different value of {} than the current "
                            "value of {} not allowed",
                            replacement, old));
   }
   EXPECT_EQ(exporterSm("t1", "e1")->hwExpConfig(), old);

   // Removing first, then adding, takes the new object up.
   hwConfig_->hwFtConfig("t1")->expConfigDel("e1");
   hwConfig_->hwFtConfig("t1")->expConfigIs(replacement);
   EXPECT_EQ(exporterSm("t1", "e1")->hwExpConfig(), replacement);

   EXPECT_THROW(hwConfig_->hwFtConfigIs(Kel::makeActive<HwFlowTracking::FtConfig>("t1")),
                Kel::NameInUseException);
}

}  // namespace
