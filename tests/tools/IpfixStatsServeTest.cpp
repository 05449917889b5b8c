#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <nlohmann/json.hpp>

#include "support/ScopedTableName.h"
#include "tools/ToolTest.h"

// `ipfix-stats serve` as a monitoring system meets it: a process of its own,
// scraped over HTTP by curl, while agents (stand-ins writing the table) come
// and go; and a watch beside it, which follows them as well.
namespace {

using TestSupport::ChildProcess;

struct Response {
   int status = 0;  // 0: no answer in time
   std::string contentType;
   std::string body;
};

Response fetch(const std::string& url) {
   const std::string out = ChildProcess::run({CURL_PATH, "-sS", "--max-time", "20", "-w",
                                              "\n%{http_code} %{content_type}", url})
                               .out;
   const std::size_t last = out.rfind('\n');
   if (last == std::string::npos) {
      return {};
   }
   const std::string trailer = out.substr(last + 1);
   return {std::atoi(trailer.c_str()),
           trailer.substr(std::min(trailer.size(), trailer.find(' ') + 1)), out.substr(0, last)};
}

// A TCP connection to the server that never sends a request.
struct SilentConnection {
   explicit SilentConnection(int port) {
      const sockaddr_in addr{
          AF_INET, htons(static_cast<uint16_t>(port)), {htonl(INADDR_LOOPBACK)}, {}};
      EXPECT_EQ(::connect(fd, reinterpret_cast<const sockaddr*>(&addr), sizeof addr), 0);
   }
   ~SilentConnection() { ::close(fd); }

   const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
};

// The samples of a scrape as prometheus_client reads them.
std::string samples(const Response& scrape) {
   const ChildProcess::Result read = ToolTest::readOpenMetrics(scrape.body);
   return read.out + read.err;
}

TEST(IpfixStatsServe, AnswersScrapesAndFollowsRestartedAgents) {
   const TestSupport::ScopedTableName name("serve");
   ChildProcess server({IPFIX_STATS_PATH, "serve", "--listen", "127.0.0.1:0", "--table", name});
   const std::string line = server.readLine().value_or("");
   const std::string prefix = "Serving table " + name.str() + " at http://127.0.0.1:";
   ASSERT_TRUE(line.starts_with(prefix) && line.ends_with("/metrics")) << line;
   const std::string url = line.substr(line.find("http://"));
   const int port = std::atoi(line.c_str() + prefix.size());

   // No agent has made the table yet: the scrape fails, and says why.
   const Response before = fetch(url);
   EXPECT_EQ(before.status, 503);
   EXPECT_NE(before.body.find("no table named"), std::string::npos) << before.body;

   auto writer = std::make_unique<ToolTest::StatsWriterProcess>(name, "ft-first");
   // A watch goes on with the table of a restarted writer too.
   ChildProcess watch({IPFIX_STATS_PATH, "--watch", "--json", "--table", name.str()});
   // The tracker of the next report that has one: a watch may also report
   // the new table before its writer filled it.
   const auto nextTracker = [&]() -> std::string {
      for (int report = 0; report < 4; ++report) {
         const auto trackers = nlohmann::json::parse(watch.readLine().value())["trackers"];
         if (!trackers.empty()) {
            return trackers[0]["name"];
         }
      }
      return "(none)";
   };
   EXPECT_EQ(nextTracker(), "ft-first");
   const Response first = fetch(url);
   EXPECT_EQ(first.status, 200);
   EXPECT_EQ(first.contentType, "application/openmetrics-text; version=1.0.0; charset=utf-8");
   EXPECT_NE(samples(first).find("tracker=\"ft-first\""), std::string::npos) << samples(first);

   writer.reset();
   writer = std::make_unique<ToolTest::StatsWriterProcess>(name, "ft-second");
   const std::string restarted = samples(fetch(url));
   EXPECT_NE(restarted.find("tracker=\"ft-second\""), std::string::npos) << restarted;
   EXPECT_EQ(restarted.find("ft-first"), std::string::npos) << "the scrape read the replaced table";
   EXPECT_EQ(nextTracker(), "ft-second");
   ToolTest::stop(watch);

   // A connection that never sends a request holds up nobody else. (It
   // closes before the server stops, which would otherwise wait for its read
   // to time out.)
   {
      const SilentConnection silent(port);
      EXPECT_EQ(fetch(url).status, 200);
   }

   // A second server cannot take the port.
   const std::string taken = "127.0.0.1:" + std::to_string(port);
   ToolTest::expectFailure(ToolTest::ipfixStats({"serve", "--listen", taken, "--table", name}), 8,
                           "cannot listen on " + taken + ": Address already in use");
   ToolTest::stop(server);
}

}  // namespace
