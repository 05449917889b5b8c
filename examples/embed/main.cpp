// Embeds the export library the way a switch agent does: fills the model
// (one hardware tracker, an exporter towards a collector on loopback, a flow
// group, an interface), creates the library through its factories in their
// start order and runs the scheduler until the collector, a UDP socket of
// this program, has received an IPFIX message. Exit 0 when it has.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <stdexcept>

#include "Bexa/TaskScheduler.h"
#include "FlowTracking/ConfigReq.h"
#include "FlowTracking/IntfIndexMap.h"
#include "HwFlowTracking/Config.h"
#include "HwFlowTracking/Status.h"
#include "Ipfix/CollectorStats.h"
#include "Ipfix/FlowTrackerInfoSm.h"
#include "Ipfix/FlowTrackerTemplateSm.h"
#include "Ipfix/IpfixSm.h"
#include "Ipfix/OptionsDataManagerSm.h"
#include "Ipfix/OptionsTemplate.h"
#include "Vrf/VrfIdMap.h"

namespace {

// A UDP socket on 127.0.0.1, on a port the kernel picks.
class Collector {
 public:
   Collector() : fd_(::socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK, 0)) {
      sockaddr_in addr{};
      addr.sin_family = AF_INET;
      addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
      socklen_t len = sizeof addr;
      if (fd_ < 0 || ::bind(fd_, reinterpret_cast<sockaddr*>(&addr), len) != 0 ||
          ::getsockname(fd_, reinterpret_cast<sockaddr*>(&addr), &len) != 0) {
         std::perror("collector socket");
         throw std::runtime_error("no collector socket");
      }
      port_ = ntohs(addr.sin_port);
   }
   ~Collector() { ::close(fd_); }
   Collector(const Collector&) = delete;
   Collector& operator=(const Collector&) = delete;

   Nivel::Port port() const { return port_; }
   // The IPFIX version of a waiting message, 0 when none waits.
   unsigned version() const {
      unsigned char header[2];
      if (::recv(fd_, header, sizeof header, 0) != sizeof header) {
         return 0;
      }
      return header[0] << 8 | header[1];
   }

 private:
   int fd_;
   Nivel::Port port_ = 0;
};

Kel::Ptr<HwFlowTracking::FgStatus> flowGroup(const Ipfix::ElementIdColl& catalogue) {
   auto group = Kel::makeActive<HwFlowTracking::FgStatus>(256);
   const Ipfix::RecordType fields[] = {Ipfix::RecordType::sourceIPv4Address,
                                       Ipfix::RecordType::octetDeltaCount};
   for (Kel::U32 position = 0; position < 2; ++position) {
      auto entry = Kel::makeActive<HwFlowTracking::FtTemplateEntry>(position, fields[position]);
      FlowTracking::updateFieldInfo(catalogue, *entry);
      entry->flowKeyIs(position == 0);
      group->templateEntryIs(entry);
   }
   group->fieldCountIs(2);
   group->entryCountIs(1024);
   return group;
}

}  // namespace

int main() {
   Collector collector;
   const auto loopback = *Nivel::IpAddr::parse("127.0.0.1");

   // The model another agent of the switch would write.
   auto hwConfig = Kel::makeActive<HwFlowTracking::Config>();
   auto hwStatus = Kel::makeActive<HwFlowTracking::Status>();
   auto configReq = Kel::makeActive<FlowTracking::ConfigReq>();
   auto interfaces = Kel::makeActive<FlowTracking::IntfIndexMap>();
   interfaces->intfIdIs(1, "Ethernet1");
   interfaces->intfIndexIs("Ethernet1", 1);
   auto vrfTable = Vrf::VrfIdMap::Table::createAnonymous("vrf-id-map", 16);
   auto vrfs = Vrf::VrfIdMap::statusFactory(Vrf::VrfIdMap::Reader::attach(vrfTable));
   auto stats = Kel::makeActive<Vorpa::Ipfix::CollectorStatistics>(
       "embed-stats", Vorpa::Ipfix::CollectorStatisticsTable::createAnonymous("embed-stats", 64));

   auto scheduler = Kel::makePtr<Bexa::TaskSchedulerRoot>();
   auto init = Ipfix::ipfixInitSmFactory();
   auto info =
       Kel::makeActive<FlowTracking::FlowTrackingInfo>(FlowTracking::FlowTrackingType::hardware);
   auto tracking =
       FlowTracking::flowTrackingInfoSmFactory(scheduler, hwConfig, info, init->agentInfo());
   auto templates = FlowTracking::templateSmFactory(scheduler, configReq, hwStatus, hwConfig, stats,
                                                    info, init->elementIdCollection());
   auto optionsData = FlowTracking::optionsDataManagerSmFactory(hwConfig, hwStatus, info,
                                                                interfaces, vrfs, stats, scheduler);

   auto trackerStatus = Kel::makeActive<HwFlowTracking::FtStatus>("ft-embed");
   trackerStatus->hwFgStatusIs(flowGroup(*init->elementIdCollection()));
   hwStatus->hwFtStatusIs(trackerStatus);
   auto exporter = Kel::makeActive<HwFlowTracking::ExporterConfig>("exp-embed");
   exporter->collectorIpAndPortIs("collector", {loopback, collector.port()});
   exporter->srcIpAddrIs(loopback);
   exporter->exporterResolvedIs(true);
   auto tracker = Kel::makeActive<HwFlowTracking::FtConfig>("ft-embed");
   tracker->ftIdIs(7);
   tracker->expConfigIs(exporter);
   hwConfig->hwFtConfigIs(tracker);

   for (int turn = 0; turn < 50; ++turn) {
      scheduler->runFor(0.1);
      if (const unsigned version = collector.version()) {
         std::printf("received an IPFIX message, version %u\n", version);
         return version == 10 ? 0 : 1;
      }
   }
   std::fprintf(stderr, "no message reached the collector in 5 s\n");
   return 1;
}
