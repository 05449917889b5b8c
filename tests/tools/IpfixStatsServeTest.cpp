#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include "support/ChildProcess.h"
#include "support/ScopedTableName.h"
#include "tools/OpenMetricsParser.h"
#include "tools/StatsWriterProcess.h"

// `ipfix-stats serve` as a monitoring system meets it: a process of its own,
// scraped over HTTP by curl, while agents (stand-ins writing the table) come
// and go.
namespace {

using TestSupport::ChildProcess;

const std::string ipfixStats = IPFIX_STATS_PATH;

struct Response {
   int status = 0;
   std::string contentType;
   std::string body;
};

// curl's view of one request; status 0 when it got no answer in time.
Response fetch(const std::string& url, const std::vector<std::string>& options = {}) {
   std::vector<std::string> args{CURL_PATH, "-sS", "--max-time",
                                 "20",      "-w",  "\n%{http_code} %{content_type}"};
   args.insert(args.end(), options.begin(), options.end());
   args.push_back(url);
   const ChildProcess::Result result = ChildProcess::run(args);
   const std::size_t last = result.out.rfind('\n');
   Response r;
   if (last == std::string::npos) {
      return r;
   }
   r.body = result.out.substr(0, last);
   const std::string trailer = result.out.substr(last + 1);
   r.status = std::atoi(trailer.c_str());
   r.contentType = trailer.substr(std::min(trailer.size(), trailer.find(' ') + 1));
   return r;
}

// A TCP connection to the server, for what curl would not send.
class RawConnection {
 public:
   explicit RawConnection(int port) : fd_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
      sockaddr_in addr{};
      addr.sin_family = AF_INET;
      addr.sin_port = htons(static_cast<uint16_t>(port));
      addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
      if (::connect(fd_, reinterpret_cast<const sockaddr*>(&addr), sizeof addr) != 0) {
         throw std::runtime_error("connect");
      }
   }
   ~RawConnection() { ::close(fd_); }
   RawConnection(const RawConnection&) = delete;
   RawConnection& operator=(const RawConnection&) = delete;

   void send(const std::string& bytes) { ::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL); }
   // The status line of the server's answer; what came when it closes or
   // goes quiet for ten seconds first.
   std::string statusLine() {
      std::string got;
      pollfd p{fd_, POLLIN, 0};
      char buffer[4096];
      ssize_t n = 0;
      while (got.find("\r\n") == std::string::npos && ::poll(&p, 1, 10'000) == 1 &&
             (n = ::recv(fd_, buffer, sizeof buffer, 0)) > 0) {
         got.append(buffer, static_cast<std::size_t>(n));
      }
      return got.substr(0, got.find("\r\n"));
   }

 private:
   int fd_;
};

// serve on a free port of 127.0.0.1; the URL it prints once it listens.
class Server {
 public:
   explicit Server(const std::string& table)
       : process_({ipfixStats, "serve", "--listen", "127.0.0.1:0", "--table", table}) {
      const auto line = process_.readLine();
      const std::string prefix = "http://127.0.0.1:";
      const std::size_t at = line ? line->find(" at " + prefix) : std::string::npos;
      if (line && line->starts_with("Serving table " + table) && line->ends_with("/metrics") &&
          at != std::string::npos) {
         url_ = line->substr(at + 4);
         port_ = std::atoi(url_.c_str() + prefix.size());
      }
   }
   const std::string& url() const { return url_; }
   int port() const { return port_; }
   ChildProcess& process() { return process_; }

 private:
   ChildProcess process_;
   std::string url_;
   int port_ = 0;
};

// Whether a scrape has collector samples of `tracker`.
bool hasTracker(const Response& scrape, const std::string& tracker) {
   return scrape.body.find("ipfix_collector_messages_total{tracker=\"" + tracker + "\"") !=
          std::string::npos;
}

TEST(IpfixStatsServe, AnswersScrapesAndFollowsRestartedAgents) {
   const TestSupport::ScopedTableName name("serve");
   Server server(name);
   ASSERT_NE(server.port(), 0) << "serve did not say where it listens";

   // No agent has made the table yet: the scrape fails, and says why.
   const Response before = fetch(server.url());
   EXPECT_EQ(before.status, 503);
   EXPECT_NE(before.body.find("no table named"), std::string::npos) << before.body;

   auto writer = std::make_unique<TestSupport::StatsWriterProcess>(name, "ft-first");
   ASSERT_TRUE(writer->started());
   const Response first = fetch(server.url());
   EXPECT_EQ(first.status, 200);
   EXPECT_EQ(first.contentType, "application/openmetrics-text; version=1.0.0; charset=utf-8");
   EXPECT_EQ(TestSupport::parseOpenMetrics(first.body).error, "") << first.body;
   EXPECT_TRUE(hasTracker(first, "ft-first")) << first.body;

   writer->stop(true);
   writer = std::make_unique<TestSupport::StatsWriterProcess>(name, "ft-second");
   ASSERT_TRUE(writer->started());
   const Response restarted = fetch(server.url());
   EXPECT_TRUE(hasTracker(restarted, "ft-second")) << restarted.body;
   EXPECT_FALSE(hasTracker(restarted, "ft-first")) << "the scrape read the replaced table";

   // Requests it does not serve are refused, one that never ends holds up
   // nobody else, and the server goes on serving. (The connections close
   // before the server stops, which would otherwise wait for their reads to
   // time out.)
   {
      const RawConnection silent(server.port());
      const std::string base = server.url().substr(0, server.url().rfind('/'));
      const std::vector<std::string> refused[] = {
          {base + "/"},
          {base + "/metrics", "-X", "DELETE"},
          {base + "/metrics", "-X", "POST", "--data", "x"},
      };
      for (const auto& request : refused) {
         SCOPED_TRACE(request.back());
         const int status =
             fetch(request.front(), std::vector<std::string>(request.begin() + 1, request.end()))
                 .status;
         EXPECT_GE(status, 400);
         EXPECT_LT(status, 500);
      }
      RawConnection garbage(server.port());
      garbage.send("\x16\x03\x01 not http\r\n\r\n");
      EXPECT_EQ(garbage.statusLine(), "HTTP/1.1 400 Bad Request") << "a request that is not HTTP";
      EXPECT_EQ(fetch(server.url()).status, 200);
   }

   // A second server cannot take the port.
   const ChildProcess::Result second =
       ChildProcess::run({ipfixStats, "serve", "--listen",
                          "127.0.0.1:" + std::to_string(server.port()), "--table", name});
   EXPECT_EQ(second.exitCode, 8);
   EXPECT_EQ(second.err, "ipfix-stats: cannot listen on 127.0.0.1:" +
                             std::to_string(server.port()) + ": Address already in use\n");

   server.process().signal(SIGTERM);
   const ChildProcess::Result end = server.process().finish();
   EXPECT_EQ(end.exitCode, 0) << end.err;
}

TEST(IpfixStatsServe, RefusesBadCommandLines) {
   const struct {
      std::vector<std::string> args;
      const char* message;
   } cases[] = {
       {{"serve", "--listen", "localhost:9739"}, "--listen: 'localhost:9739' is not ADDR:PORT"},
       {{"serve", "--listen", "127.0.0.1:65536"}, "is not ADDR:PORT"},
       {{"serve", "--listen", "::1:9739"}, "is not ADDR:PORT"},
       {{"serve"}, "--listen is required"},
       {{"--table", "a/b", "serve", "--listen", "127.0.0.1:0"}, "invalid table name 'a/b'"},
       {{"--format", "openmetrics", "serve", "--listen", "127.0.0.1:0"},
        "--json, --format and --watch do not go with serve"},
       {{"--format", "xml"}, "--format: xml not in {text,json,openmetrics}"},
   };
   for (const auto& c : cases) {
      std::vector<std::string> args = c.args;
      args.insert(args.begin(), ipfixStats);
      const ChildProcess::Result result = ChildProcess::run(args);
      SCOPED_TRACE(args[1] + " " + args.back());
      EXPECT_EQ(result.exitCode, 2);
      EXPECT_EQ(result.out, "");
      EXPECT_NE(result.err.find(c.message), std::string::npos) << result.err;
   }
}

}  // namespace
