// A full options-data transmission to many collectors against the bare send
// path: the message cache is encoded once and shared, and sends are batched,
// so what each send adds to the kernel's own sendmmsg must be small. All are
// measured in one run, on the same socket, with the same datagrams and
// ancillary data.
#include <benchmark/benchmark.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <vector>

#include "BenchCounters.h"
#include "FlowTracking/Constants.h"
#include "Ipfix/OptionsDataExporterSm.h"
#include "Kel/System.h"

namespace {

constexpr int collectorCount = 64;
constexpr Kel::U32 recordCount = 100000;

// A loopback port per collector; nobody reads, so the kernel drops what does
// not fit, which costs the sender nothing extra.
struct Sinks {
   Sinks() {
      for (int i = 0; i < collectorCount; ++i) {
         const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
         sockaddr_in a{};
         a.sin_family = AF_INET;
         a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
         socklen_t len = sizeof a;
         bind(fd, reinterpret_cast<sockaddr*>(&a), len);
         getsockname(fd, reinterpret_cast<sockaddr*>(&a), &len);
         fds.push_back(fd);
         ports.push_back(ntohs(a.sin_port));
      }
   }
   ~Sinks() {
      for (int fd : fds) {
         close(fd);
      }
   }
   std::vector<int> fds;
   std::vector<Nivel::Port> ports;
};

struct Setup {
   Setup() {
      const auto setId =
          FlowTracking::Constants::reservedTemplateId(FlowTracking::StaticTemplateId::intfTable);
      auto coll = Kel::makeActive<FlowTracking::OptionsDataSourceColl>(
          FlowTracking::OptionsDataScope::scopeGlobal);
      auto source = coll->sourceIs("InterfaceTable", setId);
      for (Kel::U32 i = 0; i < recordCount; ++i) {
         const std::string name = fmt::format("Ethernet{}/{}", i / 48 + 1, i % 48 + 1);
         const std::string bytes = fmt::format("{}{}{}{}{}{}", char(i >> 24), char(i >> 16),
                                               char(i >> 8), char(i), char(name.size()), name);
         source->dataRecordIs(FlowTracking::dataRecordFactory(bytes));
      }
      container->dataIs(coll);
      pam->txPrioIs(2);
      pam->modeIs(1);
      expInfo->udpPam4Is(pam);
      config->srcIpAddrIs(Nivel::IpAddr(INADDR_LOOPBACK));
      config->dscpIs(0xB8);
      for (int i = 0; i < collectorCount; ++i) {
         const std::string name = fmt::format("c{}", i);
         expInfo->collInfoIs(name)->optTemplateSentIs(true);
         config->collectorIpAndPortIs(name, {Nivel::IpAddr(INADDR_LOOPBACK), sinks.ports[i]});
      }
      exporter = FlowTracking::optionsDataExporterSmFactory("e1", "t1", 1, nullptr, config, expInfo,
                                                            stats, container, sched);
   }

   Sinks sinks;
   Kel::Ptr<Bexa::TaskSchedulerRoot> sched = Kel::makePtr<Bexa::TaskSchedulerRoot>();
   Kel::Ptr<FlowTracking::OptionsDataContainer> container =
       FlowTracking::optionsDataContainerFactory("t1");
   Kel::Ptr<HwFlowTracking::ExporterConfig> config =
       Kel::makeActive<HwFlowTracking::ExporterConfig>("e1");
   Kel::Ptr<FlowTracking::ExporterInfo> expInfo = Kel::makeActive<FlowTracking::ExporterInfo>("e1");
   Kel::Ptr<Nivel::UdpPam> pam = Nivel::UdpPam::create("udpPam4-bench");
   Kel::Ptr<Vorpa::Ipfix::CollectorStatistics> stats =
       Kel::makeActive<Vorpa::Ipfix::CollectorStatistics>(
           "bench", Vorpa::Ipfix::CollectorStatisticsTable::createAnonymous("bench", 256));
   Kel::Ptr<FlowTracking::OptionsDataExporterSm> exporter;
};

Setup& setup() {
   static Setup s;
   return s;
}

// One periodic full transmission: every cached message to every collector.
void fullTransmission(benchmark::State& state) {
   Setup& s = setup();
   s.exporter->maybeBeginPeriodicTransmission();  // builds the cache once
   const auto messages = s.exporter->msgCacheCount();
   for (auto _ : state) {
      s.exporter->maybeBeginPeriodicTransmission();
      Nivel::UdpPam::txFlush();
   }
   reportTimePerItem(state, "ns_per_datagram",
                     double(state.iterations()) * double(messages) * collectorCount);
   state.counters["messages"] = double(messages);
   state.counters["cache_builds"] = s.exporter->msgCacheBuildCount();
}
BENCHMARK(fullTransmission)->Unit(benchmark::kMillisecond);

// The kernel's part alone: datagrams of the cache's size from the same socket
// to the collectors in turn, with the same source-address and ToS ancillary
// data, one sendmsg each or one sendmmsg per 64 (a full batch).
void bareSend(benchmark::State& state, bool batched) {
   Setup& s = setup();
   constexpr std::size_t batch = 64;
   std::vector<char> datagram(1452, 'x');
   in_pktinfo info{};
   info.ipi_spec_dst.s_addr = htonl(INADDR_LOOPBACK);
   alignas(cmsghdr) char control[CMSG_SPACE(sizeof(in_pktinfo)) + CMSG_SPACE(sizeof(int))] = {};
   auto* c = reinterpret_cast<cmsghdr*>(control);
   c->cmsg_level = IPPROTO_IP;
   c->cmsg_type = IP_PKTINFO;
   c->cmsg_len = CMSG_LEN(sizeof(in_pktinfo));
   std::memcpy(CMSG_DATA(c), &info, sizeof info);
   c = reinterpret_cast<cmsghdr*>(control + CMSG_SPACE(sizeof(in_pktinfo)));
   c->cmsg_level = IPPROTO_IP;
   c->cmsg_type = IP_TOS;
   c->cmsg_len = CMSG_LEN(sizeof(int));
   const int tos = 0xB8;
   std::memcpy(CMSG_DATA(c), &tos, sizeof tos);
   std::vector<sockaddr_in> dst(batch);
   std::vector<iovec> iov(batch);
   std::vector<mmsghdr> msgs(batch);
   for (std::size_t i = 0; i < batch; ++i) {
      dst[i].sin_family = AF_INET;
      dst[i].sin_addr.s_addr = htonl(INADDR_LOOPBACK);
      dst[i].sin_port = htons(s.sinks.ports[i % collectorCount]);
      iov[i] = {datagram.data(), datagram.size()};
      msghdr& msg = msgs[i].msg_hdr;
      msg.msg_name = &dst[i];
      msg.msg_namelen = sizeof dst[i];
      msg.msg_iov = &iov[i];
      msg.msg_iovlen = 1;
      msg.msg_control = control;
      msg.msg_controllen = sizeof control;
   }
   for (auto _ : state) {
      if (batched) {
         benchmark::DoNotOptimize(sendmmsg(s.pam->fd(), msgs.data(), batch, 0));
      } else {
         for (const mmsghdr& m : msgs) {
            benchmark::DoNotOptimize(sendmsg(s.pam->fd(), &m.msg_hdr, 0));
         }
      }
   }
   reportTimePerItem(state, "ns_per_datagram", double(state.iterations()) * batch);
}
BENCHMARK_CAPTURE(bareSend, sendmsg, false);
BENCHMARK_CAPTURE(bareSend, sendmmsg, true);

}  // namespace
