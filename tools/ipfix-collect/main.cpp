// ipfix-collect: a small IPFIX collector built on libfixbuf, for the demo. It
// listens on UDP ports of 127.0.0.1 and ::1 and prints every template, options
// template and data record it decodes, so what the agent sends is read by an
// implementation independent of ours.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cstdio>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <variant>
#include <vector>

#include "CollectorStream.h"

namespace {

volatile sig_atomic_t stopping = 0;

std::string hex(const std::string& octets) {
   std::string s;
   char b[3];
   for (const unsigned char c : octets) {
      std::snprintf(b, sizeof b, "%02x", c);
      s += b;
   }
   return s;
}

std::string valueText(const IpfixCollect::DecodedField& f, const IpfixCollect::DecodedValue& v) {
   if (const auto* n = std::get_if<std::uint64_t>(&v)) {
      return std::to_string(*n);
   }
   const std::string& octets = std::get<std::string>(v);
   if (f.length == FB_IE_VARLEN) {
      return "\"" + octets + "\"";
   }
   char addr[INET6_ADDRSTRLEN];
   if (f.length == 16) {
      return inet_ntop(AF_INET6, octets.data(), addr, sizeof addr);
   }
   return "0x" + hex(octets);
}

void print(const std::string& source, const IpfixCollect::DecodedMessage& m) {
   for (const auto& t : m.templates) {
      std::printf("%s domain %u: %s %u:", source.c_str(), m.observationDomain,
                  t.scopeCount ? "options template" : "template", t.id);
      for (std::size_t i = 0; i < t.fields.size(); ++i) {
         std::printf(" %s%s(%u)", i < t.scopeCount ? "scope " : "", t.fields[i].name.c_str(),
                     t.fields[i].length);
      }
      std::printf("\n");
   }
   for (const auto& r : m.records) {
      std::printf("%s domain %u: data set %u:", source.c_str(), m.observationDomain, r.templateId);
      for (std::size_t i = 0; i < r.fields.size(); ++i) {
         std::printf(" %s=%s", r.fields[i].name.c_str(),
                     valueText(r.fields[i], r.values[i]).c_str());
      }
      std::printf("\n");
   }
   if (!m.error.empty()) {
      std::printf("%s: decode error: %s\n", source.c_str(), m.error.c_str());
   }
   std::fflush(stdout);
}

int openSocket(bool ipv6, int port) {
   const int fd = socket(ipv6 ? AF_INET6 : AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
   sockaddr_storage addr{};
   socklen_t len;
   if (ipv6) {
      auto* a = reinterpret_cast<sockaddr_in6*>(&addr);
      a->sin6_family = AF_INET6;
      a->sin6_addr = in6addr_loopback;
      a->sin6_port = htons(static_cast<std::uint16_t>(port));
      len = sizeof *a;
   } else {
      auto* a = reinterpret_cast<sockaddr_in*>(&addr);
      a->sin_family = AF_INET;
      a->sin_addr.s_addr = htonl(INADDR_LOOPBACK);
      a->sin_port = htons(static_cast<std::uint16_t>(port));
      len = sizeof *a;
   }
   if (fd < 0 || bind(fd, reinterpret_cast<sockaddr*>(&addr), len) != 0) {
      std::fprintf(stderr, "ipfix-collect: cannot listen on %s port %d: %s\n",
                   ipv6 ? "::1" : "127.0.0.1", port, std::strerror(errno));
      std::exit(1);
   }
   return fd;
}

std::string sourceName(const sockaddr_storage& src) {
   char addr[INET6_ADDRSTRLEN];
   if (src.ss_family == AF_INET6) {
      const auto* a = reinterpret_cast<const sockaddr_in6*>(&src);
      return std::string("[") + inet_ntop(AF_INET6, &a->sin6_addr, addr, sizeof addr) +
             "]:" + std::to_string(ntohs(a->sin6_port));
   }
   const auto* a = reinterpret_cast<const sockaddr_in*>(&src);
   return std::string(inet_ntop(AF_INET, &a->sin_addr, addr, sizeof addr)) + ":" +
          std::to_string(ntohs(a->sin_port));
}

}  // namespace

int main(int argc, char** argv) {
   CLI::App app{
       "Prints the templates and records of IPFIX messages received over UDP on "
       "127.0.0.1 and ::1, decoded with libfixbuf."};
   std::vector<int> ports4{4739};
   std::vector<int> ports6;
   app.add_option("--ipv4-port", ports4, "UDP port on 127.0.0.1 (repeatable)");
   app.add_option("--ipv6-port", ports6, "UDP port on ::1 (repeatable)");
   CLI11_PARSE(app, argc, argv);

   signal(SIGTERM, [](int) { stopping = 1; });
   signal(SIGINT, [](int) { stopping = 1; });
   std::vector<pollfd> fds;
   for (int p : ports4) {
      fds.push_back({openSocket(false, p), POLLIN, 0});
   }
   for (int p : ports6) {
      fds.push_back({openSocket(true, p), POLLIN, 0});
   }
   std::map<std::string, std::unique_ptr<IpfixCollect::CollectorStream>> streams;
   std::vector<std::uint8_t> buf(65536);
   while (!stopping) {
      if (poll(fds.data(), fds.size(), 200) <= 0) {
         continue;
      }
      for (const pollfd& p : fds) {
         if (!(p.revents & POLLIN)) {
            continue;
         }
         sockaddr_storage src{};
         socklen_t srcLen = sizeof src;
         const ssize_t n =
             recvfrom(p.fd, buf.data(), buf.size(), 0, reinterpret_cast<sockaddr*>(&src), &srcLen);
         if (n <= 0) {
            continue;
         }
         const std::string source = sourceName(src);
         auto& stream = streams[source];
         if (!stream) {
            stream = std::make_unique<IpfixCollect::CollectorStream>();
         }
         print(source, stream->read(buf.data(), static_cast<std::size_t>(n)));
      }
   }
   return 0;
}
