#include <gtest/gtest.h>

#include "ConfigText.h"
#include "Kel/System.h"
#include "agent/ControlProtocol.h"
#include "agent/ControlRequests.h"

namespace {

using Agent::Control::ClearRequest;

// Names as the configuration file allows them: any text up to 63 octets.
TEST(ControlProtocol, RequestsCarryAnyNameThroughTheirText) {
   const ClearRequest requests[] = {
       {},
       {"ft1", ""},
       {"ft1", "e1"},
       {"ft edge=1", "exp%20 x"},
       {"line\nbreak\r\t", std::string("nul\0byte", 8)},
       {"caf\xc3\xa9", "~-._"},
       {Kel::Name(63, 'x'), Kel::Name(63, '%')},
   };
   for (const ClearRequest& r : requests) {
      SCOPED_TRACE(r.tracker + "/" + r.exporter);
      const Kel::String text = Agent::Control::requestText(r);
      ASSERT_TRUE(text.ends_with('\n'));
      EXPECT_EQ(text.find('\n'), text.size() - 1) << "one line: " << text;
      EXPECT_LE(text.size(), Agent::Control::maxMessageLength);
      Kel::String error;
      const auto parsed = Agent::Control::parseRequest(text, &error);
      ASSERT_TRUE(parsed) << error;
      EXPECT_EQ(*parsed, r);
   }
}

TEST(ControlProtocol, MalformedRequestsAreRefusedWithTheirReason) {
   const struct {
      std::string text;
      const char* error;
   } cases[] = {
       {"", "empty request"},
       {"\n", "empty request"},
       {"clean", "unknown command 'clean'"},
       {"clear\n\n", "one line of printable ASCII"},
       {std::string("clear\0", 6), "one line of printable ASCII"},
       {"clear tracker=caf\xc3\xa9", "one line of printable ASCII"},
       {"clear ", "single spaces"},
       {"clear  tracker=ft1", "single spaces"},
       {"clear tracker", "field 'tracker' has no '='"},
       {"clear tracker=", "field 'tracker': empty name"},
       {"clear tracker=ft1 tracker=ft2", "field 'tracker' given twice"},
       {"clear tracker=ft1 colour=red", "unknown field 'colour'"},
       {"clear tracker=a%4", "not percent-encoded"},
       {"clear tracker=a%g0", "not percent-encoded"},
       {"clear tracker=a=b", "not percent-encoded"},
       {"clear tracker=a+b", "not percent-encoded"},
       {"clear exporter=e1", "an exporter needs its tracker"},
       {"clear tracker=" + std::string(64, 'x'), "tracker name longer than 63 octets"},
       {"clear tracker=t exporter=" + std::string(64, 'x'), "exporter name longer than 63"},
   };
   for (const auto& c : cases) {
      SCOPED_TRACE(c.text);
      Kel::String error;
      EXPECT_FALSE(Agent::Control::parseRequest(c.text, &error));
      EXPECT_NE(error.find(c.error), Kel::String::npos) << error;
   }
}

TEST(ControlProtocol, SocketPathStaysInItsDirectory) {
   const std::string longest(85, 'a');
   const struct {
      std::string table;
      std::optional<std::string> path;
   } cases[] = {
       {"ipfix-collector-stats", "/tmp/ipfix-agent.ipfix-collector-stats.sock"},
       {"A.b_c-9", "/tmp/ipfix-agent.A.b_c-9.sock"},
       {longest, "/tmp/ipfix-agent." + longest + ".sock"},
       {longest + "a", std::nullopt},
       {"", std::nullopt},
       {".", std::nullopt},
       {"..", std::nullopt},
       {"../../etc/x", std::nullopt},
       {"a/b", std::nullopt},
       {"a b", std::nullopt},
       {"a\nb", std::nullopt},
   };
   for (const auto& c : cases) {
      SCOPED_TRACE(c.table);
      Kel::String error;
      const auto path = Agent::Control::socketPath(c.table, &error);
      EXPECT_EQ(path, c.path);
      EXPECT_EQ(error.empty(), c.path.has_value()) << error;
   }
}

TEST(ControlProtocol, RepliesAreOneLineEitherWay) {
   const struct {
      std::string text;
      std::optional<bool> ok;
      std::string error;
   } cases[] = {
       {Agent::Control::okReply(), true, ""},
       {Agent::Control::errorReply("no tracker named 'x'"), false, "no tracker named 'x'"},
       {Agent::Control::errorReply("two\nlines\x7f"), false, "two%0Alines%7F"},
       {Agent::Control::errorReply(std::string(1000, 'e')), false,
        std::string(Agent::Control::maxMessageLength - 4 - 7, 'e') + "..."},
       {"ok", std::nullopt, ""},
       {"okay\n", std::nullopt, ""},
       {"error: a\nb\n", std::nullopt, ""},
       {"", std::nullopt, ""},
   };
   for (const auto& c : cases) {
      SCOPED_TRACE(c.text);
      EXPECT_LE(c.text.size(), Agent::Control::maxMessageLength);
      const auto reply = Agent::Control::parseReply(c.text);
      ASSERT_EQ(reply.has_value(), c.ok.has_value());
      if (reply) {
         EXPECT_EQ(reply->ok, *c.ok);
         EXPECT_EQ(reply->error, c.error);
      }
   }
}

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
