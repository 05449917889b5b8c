#include "ReceiverProcess.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <map>
#include <stdexcept>
#include <utility>

#include "FlowTracking/Constants.h"
#include "Nivel/NetOrder.h"

namespace Scale {

namespace {

using FlowTracking::Constants;
using FlowTracking::StaticTemplateId;

// Counts of one collector stream.
struct Counts {
   bool templates = false;
   bool optionsTemplates = false;
   Kel::U64 interfaces = 0;
   Kel::U64 vrfs = 0;
   Kel::U64 flowKeys = 0;
   Kel::U64 trackers = 0;
   bool reported = false;

   bool complete(const Expected& e) const {
      return templates && optionsTemplates && interfaces >= e.interfaces && vrfs >= e.vrfs &&
             flowKeys >= e.flowKeys && trackers >= 1;
   }
};

// Records of a set of index (or id) and short-form name.
Kel::U64 namedRecords(const Kel::U8* p, const Kel::U8* end) {
   Kel::U64 n = 0;
   while (p + 5 <= end) {
      p += 5 + p[4];
      ++n;
   }
   return n;
}

// Flow-tracker table records: id, short-form name, then 18 octets.
Kel::U64 trackerRecords(const Kel::U8* p, const Kel::U8* end) {
   Kel::U64 n = 0;
   while (p + 5 <= end) {
      p += 5 + p[4] + 18;
      ++n;
   }
   return n;
}

void count(Counts& c, const Kel::U8* msg, std::size_t len) {
   const Kel::U8* end = msg + len;
   for (const Kel::U8* set = msg + 16; set + 4 <= end;) {
      const Kel::U16 id = Nivel::loadNet<Kel::U16>(set);
      const Kel::U16 setLen = Nivel::loadNet<Kel::U16>(set + 2);
      if (setLen < 4 || set + setLen > end) {
         return;
      }
      const Kel::U8* body = set + 4;
      const Kel::U8* bodyEnd = set + setLen;
      if (id == 2) {
         c.templates = true;
      } else if (id == 3) {
         c.optionsTemplates = true;
      } else if (id == Constants::reservedTemplateId(StaticTemplateId::intfTable)) {
         c.interfaces += namedRecords(body, bodyEnd);
      } else if (id == Constants::reservedTemplateId(StaticTemplateId::vrfTable)) {
         c.vrfs += namedRecords(body, bodyEnd);
      } else if (id == Constants::reservedTemplateId(StaticTemplateId::flowKey)) {
         c.flowKeys += Kel::U64(bodyEnd - body) / 10;
      } else if (id == Constants::reservedTemplateId(StaticTemplateId::flowTrackerTable)) {
         c.trackers += trackerRecords(body, bodyEnd);
      }
      set = bodyEnd;
   }
}

[[noreturn]] void drain(const std::vector<Receiver>& receivers, const Expected& expected,
                        int report) {
   std::vector<pollfd> fds;
   for (const auto& r : receivers) {
      fds.push_back({r.fd, POLLIN, 0});
   }
   std::map<std::pair<std::size_t, Nivel::Port>, Counts> streams;
   constexpr int batch = 64;
   std::vector<std::vector<Kel::U8>> buffers(batch, std::vector<Kel::U8>(65536));
   std::vector<sockaddr_in6> sources(batch);
   std::vector<iovec> iov(batch);
   std::vector<mmsghdr> msgs(batch);
   for (;;) {
      if (poll(fds.data(), fds.size(), 1000) <= 0) {
         continue;
      }
      for (std::size_t i = 0; i < fds.size(); ++i) {
         if (!(fds[i].revents & POLLIN)) {
            continue;
         }
         for (int k = 0; k < batch; ++k) {
            iov[k] = {buffers[k].data(), buffers[k].size()};
            msgs[k] = {};
            msgs[k].msg_hdr.msg_name = &sources[k];
            msgs[k].msg_hdr.msg_namelen = sizeof(sockaddr_in6);
            msgs[k].msg_hdr.msg_iov = &iov[k];
            msgs[k].msg_hdr.msg_iovlen = 1;
         }
         const int n = recvmmsg(fds[i].fd, msgs.data(), batch, MSG_DONTWAIT, nullptr);
         for (int k = 0; k < n; ++k) {
            // The port sits at the same offset in both address families.
            const Nivel::Port port = ntohs(sources[k].sin6_port);
            Counts& c = streams[{i, port}];
            count(c, buffers[k].data(), msgs[k].msg_len);
            if (!c.reported && c.complete(expected)) {
               c.reported = true;
               const char one = 1;
               if (write(report, &one, 1) != 1) {
                  _exit(1);
               }
            }
         }
      }
   }
}

}  // namespace

Receivers::Receivers(int count) {
   for (int i = 0; i < count; ++i) {
      const bool ipv6 = i % 2 == 1;
      const int fd = socket(ipv6 ? AF_INET6 : AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
      const int big = 64 << 20;
      setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &big, sizeof big);
      sockaddr_in6 a6{};
      sockaddr_in a4{};
      socklen_t len;
      sockaddr* addr;
      if (ipv6) {
         a6.sin6_family = AF_INET6;
         a6.sin6_addr = in6addr_loopback;
         addr = reinterpret_cast<sockaddr*>(&a6);
         len = sizeof a6;
      } else {
         a4.sin_family = AF_INET;
         a4.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
         addr = reinterpret_cast<sockaddr*>(&a4);
         len = sizeof a4;
      }
      if (fd < 0 || bind(fd, addr, len) != 0 || getsockname(fd, addr, &len) != 0) {
         throw std::runtime_error("cannot open a receiver socket");
      }
      receivers_.push_back({ipv6, ntohs(ipv6 ? a6.sin6_port : a4.sin_port), fd});
   }
}

Receivers::~Receivers() {
   closeAll();
}

void Receivers::closeAll() {
   for (auto& r : receivers_) {
      if (r.fd >= 0) {
         close(r.fd);
         r.fd = -1;
      }
   }
}

ReceiverProcess::ReceiverProcess(Receivers& receivers, const Expected& expected, Kel::U64 streams)
    : streams_(streams) {
   int fds[2];
   if (pipe(fds) != 0) {
      throw std::runtime_error("pipe");
   }
   pid_ = fork();
   if (pid_ == 0) {
      close(fds[0]);
      drain(receivers.all(), expected, fds[1]);
   }
   close(fds[1]);
   pipe_ = fds[0];
   fcntl(pipe_, F_SETFL, O_NONBLOCK);
   receivers.closeAll();
}

ReceiverProcess::~ReceiverProcess() {
   if (pid_ > 0) {
      kill(pid_, SIGKILL);
      waitpid(pid_, nullptr, 0);
   }
   close(pipe_);
}

Kel::U64 ReceiverProcess::completeStreams() {
   char buf[256];
   ssize_t n;
   while ((n = read(pipe_, buf, sizeof buf)) > 0) {
      completed_ += Kel::U64(n);
   }
   return completed_;
}

}  // namespace Scale
