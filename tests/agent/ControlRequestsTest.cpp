#include <gtest/gtest.h>

#include "Kel/System.h"
#include "agent/ConfigLoader.h"
#include "agent/ControlRequests.h"

namespace {

// Which names a clear reaches and how refusals read is checked through
// ipfix-stats against a running agent (IpfixStatsClear). What only shows
// here: the library reacts to a changed request only, so the same request
// again, at the same clock reading, must still reach it with a later time.
TEST(ClearRequests, RepeatedRequestsReachTheLibraryEachTime) {
   struct Recorder : FlowTracking::ConfigReq::Notifiee {
      void onClearCounters() override { written.push_back(notifier()->clearCounters()); }
      std::vector<FlowTracking::ClearCountersRequest> written;
   } recorder;
   Kel::ScopedManualClock clock{500};
   const auto configReq = Kel::makeActive<FlowTracking::ConfigReq>();
   recorder.notifierIs(configReq);
   const auto parsed =
       Agent::parse("flow-tracking:\n  hardware:\n    trackers: [ { name: ft1, id: 1 } ]\n", "t");
   ASSERT_TRUE(parsed.config);
   const Agent::AgentConfig& config = *parsed.config;
   for (int i = 0; i < 3; ++i) {
      clock.clock().advanceTo(i < 2 ? 500 : 501);
      EXPECT_EQ(Agent::answerControlRequest("clear tracker=ft1\n", config, *configReq), "ok\n");
   }
   ASSERT_EQ(recorder.written.size(), 3u);
   EXPECT_EQ(recorder.written[0], (FlowTracking::ClearCountersRequest{"ft1", "", 500}));
   EXPECT_GT(recorder.written[1].requestTime, recorder.written[0].requestTime);
   EXPECT_EQ(recorder.written[2].requestTime, 501);
}

}  // namespace
