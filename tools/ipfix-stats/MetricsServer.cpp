#include "MetricsServer.h"

#include <httplib.h>
#include <signal.h>
#include <sys/socket.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <iostream>
#include <thread>

namespace IpfixStats {

namespace {

// How often a stop request is repeated until the server has stopped: a stop
// that comes before the server runs is otherwise lost.
constexpr auto stopRetryInterval = std::chrono::milliseconds(10);

// No SO_REUSEPORT, which the library sets by default: with it a second server
// on the same port would share the connections instead of failing to bind.
void reuseAddressOnly(int sock) {
   const int yes = 1;
   ::setsockopt(sock, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
}

// "192.0.2.1:9739", "[2001:db8::1]:9739"
std::string hostAndPort(const Nivel::IpGenAddr& address, Nivel::Port port) {
   return address.isV4() ? Nivel::IpAndPort{address.v4(), port}.str()
                         : Nivel::Ip6AndPort{address.v6(), port}.str();
}

}  // namespace

std::optional<ListenAddress> parseListenAddress(std::string_view text) {
   if (const auto v4 = Nivel::IpAndPort::parse(text)) {
      return ListenAddress{v4->ip, v4->port};
   }
   if (const auto v6 = Nivel::Ip6AndPort::parse(text)) {
      return ListenAddress{v6->ip, v6->port};
   }
   return std::nullopt;
}

ExitCode serveMetrics(ScrapeSource& source, const ListenAddress& listen) {
   // Blocked in every thread (the server's inherit the mask), so that only
   // the stopper's sigwait takes them.
   sigset_t stopSignals;
   sigemptyset(&stopSignals);
   sigaddset(&stopSignals, SIGTERM);
   sigaddset(&stopSignals, SIGINT);
   pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);
   // The server sends without MSG_NOSIGNAL: a scraper that hangs up in the
   // middle of an answer must cost that answer only, not the process.
   ::signal(SIGPIPE, SIG_IGN);

   httplib::Server server;
   server.set_socket_options(reuseAddressOnly);
   // A scrape is a GET without a body.
   server.set_payload_max_length(0);
   server.Get("/metrics", [&](const httplib::Request&, httplib::Response& response) {
      const Scrape scrape = source.scrape();
      response.status = scrape.status;
      response.set_content(scrape.body, scrape.contentType.c_str());
   });

   const std::string host = listen.address.str();
   errno = 0;
   const int port = listen.port == 0 ? server.bind_to_any_port(host)
                                     : (server.bind_to_port(host, listen.port) ? listen.port : -1);
   if (port < 0) {
      std::cerr << "ipfix-stats: cannot listen on " << hostAndPort(listen.address, listen.port)
                << ": " << (errno != 0 ? std::strerror(errno) : "bind failed") << '\n';
      return exitListen;
   }
   std::cout << "Serving table " << source.tableName() << " at http://"
             << hostAndPort(listen.address, static_cast<Nivel::Port>(port)) << "/metrics"
             << std::endl;

   std::atomic<bool> listening = true;
   std::atomic<bool> stopRequested = false;
   std::thread stopper([&] {
      int signal = 0;
      sigwait(&stopSignals, &signal);
      stopRequested = true;
      while (listening) {
         server.stop();
         std::this_thread::sleep_for(stopRetryInterval);
      }
   });
   server.listen_after_bind();
   listening = false;
   const bool stopped = stopRequested;
   if (!stopped) {
      // The server ended on its own: wake the stopper from its wait.
      pthread_kill(stopper.native_handle(), SIGTERM);
   }
   stopper.join();
   if (!stopped) {
      std::cerr << "ipfix-stats: the server stopped accepting connections\n";
      return exitFailure;
   }
   return exitOk;
}

}  // namespace IpfixStats
