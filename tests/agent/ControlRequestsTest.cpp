#include <gtest/gtest.h>

#include "ConfigText.h"
#include "Kel/System.h"
#include "agent/ControlRequests.h"

namespace {

// What the agent does with a request: only a clear of names it has reaches
// the library, each with a request time later than the one before. Clears of
// a hardware tracker and exporter are made through ipfix-stats against a
// running agent.
class ClearRequests : public ::testing::Test, public FlowTracking::ConfigReq::Notifiee {
 protected:
   ClearRequests() { notifierIs(configReq); }
   void onClearCounters() override { written.push_back(configReq->clearCounters()); }

   Kel::ScopedManualClock clock{500};
   Kel::Ptr<FlowTracking::ConfigReq> configReq = Kel::makeActive<FlowTracking::ConfigReq>();
   std::vector<FlowTracking::ClearCountersRequest> written;
   const Agent::AgentConfig config = ConfigText::configOf(R"(flow-tracking:
  hardware:
    trackers:
      - name: ft1
        id: 1
        exporters:
          - { name: e1, collectors: [ { name: c1, address: 127.0.0.1, port: 4739 } ] }
  sampled:
    trackers:
      - name: ft 2
        id: 2
        exporters:
          - { name: e=2, collectors: [ { name: c1, address: 127.0.0.1, port: 4739 } ] }
)");
};

TEST_F(ClearRequests, OnlyNamesTheAgentHasAreCleared) {
   const struct {
      const char* request;
      std::string reply;
      std::optional<FlowTracking::ClearCountersRequest> written;
   } cases[] = {
       {"clear\n", "ok\n", FlowTracking::ClearCountersRequest{"", "", 500}},
       {"clear tracker=ft%202 exporter=e%3D2\n", "ok\n",
        FlowTracking::ClearCountersRequest{"ft 2", "e=2", 500}},
       {"clear tracker=ft2\n", "error: no tracker named 'ft2'\n", std::nullopt},
       {"clear tracker=ft1 exporter=e%3D2\n", "error: tracker 'ft1' has no exporter named 'e=2'\n",
        std::nullopt},
       {"clear tracker=ft1 now\n", "error: unknown field 'now': expected tracker= or exporter=\n",
        std::nullopt},
   };
   for (const auto& c : cases) {
      SCOPED_TRACE(c.request);
      written.clear();
      configReq->clearCountersIs({});
      written.clear();
      EXPECT_EQ(Agent::answerControlRequest(c.request, config, *configReq), c.reply);
      if (c.written) {
         ASSERT_EQ(written.size(), 1u);
         EXPECT_EQ(written[0], *c.written);
      } else {
         EXPECT_TRUE(written.empty());
         EXPECT_EQ(configReq->clearCounters(), FlowTracking::ClearCountersRequest{});
      }
   }
}

// The library reacts to a changed request only: the same request again, at
// the same clock reading, must still reach it.
TEST_F(ClearRequests, RepeatedRequestsReachTheLibraryEachTime) {
   for (int i = 0; i < 3; ++i) {
      EXPECT_EQ(Agent::answerControlRequest("clear tracker=ft1\n", config, *configReq), "ok\n");
   }
   clock.clock().advanceTo(501);
   EXPECT_EQ(Agent::answerControlRequest("clear tracker=ft1\n", config, *configReq), "ok\n");
   ASSERT_EQ(written.size(), 4u);
   EXPECT_EQ(written[0].requestTime, 500);
   EXPECT_GT(written[1].requestTime, written[0].requestTime);
   EXPECT_GT(written[2].requestTime, written[1].requestTime);
   EXPECT_EQ(written[3].requestTime, 501);
}

}  // namespace
