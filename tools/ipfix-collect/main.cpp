// ipfix-collect: a small IPFIX collector built on libfixbuf, for the demo. It
// listens on UDP ports of 127.0.0.1 and ::1 and prints every template, options
// template and data record it decodes, so what the agent sends is read by an
// implementation independent of ours.
#include <arpa/inet.h>
#include <fixbuf/public.h>
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
#include <set>
#include <string>
#include <vector>

namespace {

volatile sig_atomic_t stopping = 0;

std::string elementName(const fbInfoElement_t* ie) {
   const fbInfoElement_t* canon = ie->ref.canon;
   if (canon && canon->ref.name && std::strncmp(canon->ref.name, "_alienInformationElement", 24)) {
      return canon->ref.name;
   }
   return std::to_string(ie->ent) + "/" + std::to_string(ie->num);
}

std::string hex(const std::uint8_t* p, std::size_t n) {
   std::string s;
   char b[3];
   for (std::size_t i = 0; i < n; ++i) {
      std::snprintf(b, sizeof b, "%02x", p[i]);
      s += b;
   }
   return s;
}

// One value of a decoded record in the collector's memory layout.
std::string valueText(const fbInfoElement_t* ie, const std::uint8_t* at) {
   if (ie->len == FB_IE_VARLEN) {
      fbVarfield_t v;
      std::memcpy(&v, at, sizeof v);
      return "\"" + std::string(reinterpret_cast<const char*>(v.buf), v.len) + "\"";
   }
   char addr[INET6_ADDRSTRLEN];
   if (ie->len == 16) {
      return inet_ntop(AF_INET6, at, addr, sizeof addr);
   }
   if (ie->len == 1 || ie->len == 2 || ie->len == 4 || ie->len == 8) {
      std::uint64_t n = 0;
      std::memcpy(&n, at, ie->len);  // host order, at its own length
      return std::to_string(n);
   }
   return "0x" + hex(at, ie->len);
}

std::size_t memoryLength(const fbInfoElement_t* ie) {
   return ie->len == FB_IE_VARLEN ? sizeof(fbVarfield_t) : ie->len;
}

// The decoding state of one exporter (source address and port).
class ExporterStream {
 public:
   explicit ExporterStream(std::string name)
       : name_(std::move(name)), model_(fbInfoModelAlloc()), session_(fbSessionAlloc(model_)) {
      fbSessionAddNewTemplateCallback(session_, &ExporterStream::onTemplate, this);
      fbuf_ = fBufAllocForCollection(session_, nullptr);
      fBufSetAutomaticMode(fbuf_, FALSE);
   }
   ~ExporterStream() {
      fBufFree(fbuf_);
      fbInfoModelFree(model_);
   }

   void read(const std::uint8_t* data, std::size_t len) {
      buffer_.assign(data, data + len);
      fBufSetBuffer(fbuf_, buffer_.data(), buffer_.size());
      GError* err = nullptr;
      for (;;) {
         std::uint16_t tid = 0;
         fbTemplate_t* external = fBufNextCollectionTemplate(fbuf_, &tid, &err);
         if (!external || !internalFor(tid, external, &err)) {
            break;
         }
         std::vector<std::uint8_t> record(recordLength(external));
         std::size_t recordLen = record.size();
         if (!fBufNext(fbuf_, record.data(), &recordLen, &err)) {
            break;
         }
         print(tid, external, record.data());
      }
      if (!g_error_matches(err, FB_ERROR_DOMAIN, FB_ERROR_EOM)) {
         std::printf("%s: decode error: %s\n", name_.c_str(), err ? err->message : "?");
      }
      g_clear_error(&err);
      std::fflush(stdout);
   }

 private:
   static void onTemplate(fbSession_t* session, std::uint16_t tid, fbTemplate_t* tmpl, void* self,
                          void**, fbTemplateCtxFree_fn*) {
      auto* s = static_cast<ExporterStream*>(self);
      const std::uint32_t scope = fbTemplateGetOptionsScope(tmpl);
      std::printf("%s domain %u: %s %u:", s->name_.c_str(), fbSessionGetDomain(session),
                  scope ? "options template" : "template", tid);
      for (std::uint32_t i = 0; i < fbTemplateCountElements(tmpl); ++i) {
         const fbInfoElement_t* ie = fbTemplateGetIndexedIE(tmpl, i);
         std::printf(" %s%s(%u)", i < scope ? "scope " : "", elementName(ie).c_str(), ie->len);
      }
      std::printf("\n");
      s->internals_.erase(tid);
   }

   static std::size_t recordLength(fbTemplate_t* t) {
      std::size_t n = 0;
      for (std::uint32_t i = 0; i < fbTemplateCountElements(t); ++i) {
         n += memoryLength(fbTemplateGetIndexedIE(t, i));
      }
      return n;
   }

   // Decodes records of `tid` into a layout equal to the template's own.
   bool internalFor(std::uint16_t tid, fbTemplate_t* external, GError** err) {
      if (!internals_.contains(tid)) {
         fbTemplate_t* internal = fbTemplateAlloc(model_);
         for (std::uint32_t i = 0; i < fbTemplateCountElements(external); ++i) {
            if (!fbTemplateAppend(internal, fbTemplateGetIndexedIE(external, i), err)) {
               return false;
            }
         }
         if (!fbSessionAddTemplate(session_, TRUE, tid, internal, err)) {
            return false;
         }
         internals_.insert(tid);
      }
      return fBufSetInternalTemplate(fbuf_, tid, err);
   }

   void print(std::uint16_t tid, fbTemplate_t* t, const std::uint8_t* at) const {
      std::printf("%s domain %u: data set %u:", name_.c_str(), fbSessionGetDomain(session_), tid);
      for (std::uint32_t i = 0; i < fbTemplateCountElements(t); ++i) {
         const fbInfoElement_t* ie = fbTemplateGetIndexedIE(t, i);
         std::printf(" %s=%s", elementName(ie).c_str(), valueText(ie, at).c_str());
         at += memoryLength(ie);
      }
      std::printf("\n");
   }

   std::string name_;
   fbInfoModel_t* model_;
   fbSession_t* session_;
   fBuf_t* fbuf_;
   std::vector<std::uint8_t> buffer_;
   std::set<std::uint16_t> internals_;
};

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
   std::map<std::string, std::unique_ptr<ExporterStream>> streams;
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
         auto& stream = streams[sourceName(src)];
         if (!stream) {
            stream = std::make_unique<ExporterStream>(sourceName(src));
         }
         stream->read(buf.data(), static_cast<std::size_t>(n));
      }
   }
   return 0;
}
