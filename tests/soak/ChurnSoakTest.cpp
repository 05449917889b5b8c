// Configuration churn against the whole library: random changes go through the
// agent's model writer, as reloads would bring them, the scheduler runs in
// virtual time, and collectors that are real loopback sockets decode what they
// get with libfixbuf. After every step the state machines must match the
// configuration and what each collector reconstructed must match the model.
//
// SOAK_STEPS sets the number of steps (default 2000), SOAK_SEED replays a run.
#include <dirent.h>
#include <fmt/format.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <map>
#include <memory>
#include <random>
#include <set>

#include "CollectorStream.h"
#include "FlowTracking/Constants.h"
#include "Ipfix/FlowTrackerTemplateSm.h"
#include "Ipfix/IpfixSm.h"
#include "Ipfix/OptionsDataManagerSm.h"
#include "Kel/Log.h"
#include "Kel/System.h"
#include "agent/ModelWriter.h"
#include "agent/VrfIdMapWriter.h"
#include "support/UdpReceiver.h"

namespace {

using Agent::AgentConfig;
using FlowTracking::FlowTrackingType;
using FlowTracking::StaticTemplateId;
using Value = IpfixCollect::DecodedValue;
using Row = std::vector<Value>;
using R = Ipfix::RecordType;

constexpr auto hardware = FlowTrackingType::hardware;
constexpr int receiversPerFamily = 6;

Kel::U64 envNumber(const char* name, Kel::U64 fallback) {
   const char* text = std::getenv(name);
   return text ? std::strtoull(text, nullptr, 10) : fallback;
}

std::size_t openFds() {
   std::size_t n = 0;
   if (DIR* d = opendir("/proc/self/fd")) {
      while (readdir(d)) {
         ++n;
      }
      closedir(d);
   }
   return n;
}

HwFlowTracking::TemplateId setIdOf(StaticTemplateId id) {
   return FlowTracking::Constants::reservedTemplateId(id);
}

// What one collector socket reconstructs from the messages it decodes: per
// exporter stream the sequence numbers it expects, and per observation domain
// the latest row of each options data key.
struct Receiver {
   struct Stream {
      std::unique_ptr<IpfixCollect::CollectorStream> decoder =
          std::make_unique<IpfixCollect::CollectorStream>();
      // Held, so that a new collector record never takes a dead one's address.
      Kel::Ptr<FlowTracking::CollectorInfo> owner;
      std::optional<Kel::U32> expectedSeq;
      Kel::U64 records = 0;  // data records since the stream's owner took it
   };

   explicit Receiver(bool ipv6) : rx(ipv6) {}

   TestSupport::UdpReceiver rx;
   std::map<Nivel::Port, Stream> streams;
   // domain -> set id -> first field's value -> latest row
   std::map<Kel::U32, std::map<Kel::U16, std::map<Value, Row>>> tables;
   std::map<Kel::U32, std::set<Kel::U16>> dataTemplates;
};

class ChurnSoak : public ::testing::Test {
 protected:
   ChurnSoak() {
      for (int i = 0; i < receiversPerFamily; ++i) {
         v4_.push_back(std::make_unique<Receiver>(false));
         v6_.push_back(std::make_unique<Receiver>(true));
      }
      fdsAtStart_ = openFds();
      info_ = Kel::makeActive<FlowTracking::FlowTrackingInfo>(hardware);
      const auto& model = writer_.model(hardware);
      tree_ =
          FlowTracking::flowTrackingInfoSmFactory(sched_, model.config, info_, init_->agentInfo());
      templates_ = FlowTracking::templateSmFactory(sched_, configReq_, model.status, model.config,
                                                   stats_, info_, init_->elementIdCollection());
      options_ = FlowTracking::optionsDataManagerSmFactory(
          model.config, model.status, info_, interfaces_, vrfs_.status(), stats_, sched_);
   }

   // One random change of the configuration.
   void mutate(AgentConfig& c);
   void step(const AgentConfig& next);
   void checkStructure() const;
   void checkCollectors();
   void drain(Receiver& r, bool ipv6);

   const Agent::Tracker* trackerOf(Kel::U32 domain) const {
      for (const auto& [name, t] : config_.tracking.at(hardware).trackers) {
         if (t.id == domain) {
            return &t;
         }
      }
      return nullptr;
   }

   std::mt19937_64 rng_;
   Kel::U32 nextId_ = 1;
   Kel::ScopedManualClock clock_;
   Kel::Ptr<Bexa::TaskSchedulerRoot> sched_ = Kel::makePtr<Bexa::TaskSchedulerRoot>();
   Kel::Ptr<Ipfix::IpfixInitSm> init_ = Ipfix::ipfixInitSmFactory();
   Kel::Ptr<FlowTracking::IntfIndexMap> interfaces_ = Kel::makeActive<FlowTracking::IntfIndexMap>();
   Agent::VrfIdMapWriter vrfs_;
   Agent::ModelWriter writer_{init_->elementIdCollection(), interfaces_, vrfs_};
   Kel::Ptr<FlowTracking::ConfigReq> configReq_ = Kel::makeActive<FlowTracking::ConfigReq>();
   Kel::Ptr<Vorpa::Ipfix::CollectorStatistics> stats_ =
       Kel::makeActive<Vorpa::Ipfix::CollectorStatistics>(
           "soak", Vorpa::Ipfix::CollectorStatisticsTable::createAnonymous("soak", 1024));
   Kel::Ptr<FlowTracking::FlowTrackingInfo> info_;
   Kel::Ptr<FlowTracking::FlowTrackingInfoSm> tree_;
   Kel::Ptr<FlowTracking::TemplateSm> templates_;
   Kel::Ptr<FlowTracking::OptionsDataManagerSm> options_;
   std::vector<std::unique_ptr<Receiver>> v4_, v6_;
   AgentConfig config_;
   std::size_t fdsAtStart_ = 0;
   // What the run checked, for its closing line.
   Kel::U64 datagrams_ = 0;
   Kel::U64 collectorChecks_ = 0;
   Kel::U64 rowChecks_ = 0;
};

template <class Map>
auto pick(std::mt19937_64& rng, Map& m) {
   auto it = m.begin();
   std::advance(it, std::uniform_int_distribution<std::size_t>(0, m.size() - 1)(rng));
   return it;
}

void ChurnSoak::mutate(AgentConfig& c) {
   auto& tracking = c.tracking[hardware];
   auto& trackers = tracking.trackers;
   const auto roll = [&](int n) { return std::uniform_int_distribution<int>(0, n - 1)(rng_); };
   const auto receiverFor = [&](Agent::Exporter& e) {
      // Collectors of one exporter use distinct sockets, so that a socket's
      // stream from an exporter belongs to one collector.
      std::set<std::pair<bool, Nivel::Port>> used;
      for (const auto& [n, col] : e.collectors) {
         used.insert({!col.address.isV4(), col.port});
      }
      for (int tries = 0; tries < 8; ++tries) {
         const bool ipv6 = roll(2) == 1;
         const auto& r = (ipv6 ? v6_ : v4_)[roll(receiversPerFamily)]->rx;
         if (!used.contains({ipv6, r.port()})) {
            return std::optional<Agent::Collector>(
                ipv6 ? Agent::Collector{Nivel::IpGenAddr(r.ip6AndPort().ip), r.port()}
                     : Agent::Collector{Nivel::IpGenAddr(r.ipAndPort().ip), r.port()});
         }
      }
      return std::optional<Agent::Collector>();
   };
   const auto newExporter = [&] {
      Agent::Exporter e;
      e.srcIpv4 = *Nivel::IpAddr::parse("127.0.0.1");
      e.srcIpv6 = *Nivel::Ip6Addr::parse("::1");
      e.templateIntervalMs = 1000 * (5 + roll(60));
      e.mtu = 400 + roll(1100);
      for (int i = roll(3); i >= 0; --i) {
         if (const auto col = receiverFor(e)) {
            e.collectors[fmt::format("c{}", nextId_++)] = *col;
         }
      }
      return e;
   };
   const auto newFlowGroup = [&] {
      static constexpr R elements[] = {R::sourceIPv4Address,
                                       R::destinationIPv4Address,
                                       R::sourceIPv6Address,
                                       R::destinationIPv6Address,
                                       R::protocolIdentifier,
                                       R::sourceTransportPort,
                                       R::destinationTransportPort,
                                       R::packetDeltaCount,
                                       R::octetDeltaCount,
                                       R::ingressInterface,
                                       R::ingressVRFID};
      Agent::FlowGroup g;
      g.entryCount = roll(4) == 0 ? 0 : 1024;
      for (int i = roll(6); i >= 0; --i) {
         g.fields.push_back({elements[roll(std::size(elements))], roll(2) == 1});
      }
      return g;
   };

   switch (roll(12)) {
      case 0:
         if (trackers.size() < 4) {
            Agent::Tracker t;
            t.id = nextId_++;
            t.activeIntervalMs = 1000 * (30 + roll(90));
            for (int i = roll(2); i >= 0; --i) {
               t.exporters[fmt::format("e{}", nextId_++)] = newExporter();
            }
            for (int i = roll(3); i > 0; --i) {
               t.flowGroups[static_cast<HwFlowTracking::TemplateId>(256 + roll(40))] =
                   newFlowGroup();
            }
            trackers[fmt::format("t{}", nextId_++)] = t;
            break;
         }
         [[fallthrough]];
      case 1:
         if (!trackers.empty()) {
            trackers.erase(pick(rng_, trackers));
         }
         break;
      case 2:
         if (!trackers.empty()) {
            auto& t = pick(rng_, trackers)->second;
            (roll(2) ? t.activeIntervalMs : t.inactiveTimeoutMs) = 1000 * (1 + roll(600));
         }
         break;
      case 3:
         if (!trackers.empty()) {
            auto& t = pick(rng_, trackers)->second;
            if (t.exporters.size() < 3 && roll(2)) {
               t.exporters[fmt::format("e{}", nextId_++)] = newExporter();
            } else if (!t.exporters.empty()) {
               t.exporters.erase(pick(rng_, t.exporters));
            }
         }
         break;
      case 4:
      case 5:
         if (!trackers.empty()) {
            auto& t = pick(rng_, trackers)->second;
            if (t.exporters.empty()) {
               break;
            }
            auto& e = pick(rng_, t.exporters)->second;
            const int what = roll(4);
            if (what == 0 || e.collectors.empty()) {
               if (const auto col = receiverFor(e)) {
                  e.collectors[fmt::format("c{}", nextId_++)] = *col;
               }
            } else if (what == 1) {
               e.collectors.erase(pick(rng_, e.collectors));
            } else if (what == 2) {
               // A new address for a collector that keeps its name.
               const auto col = receiverFor(e);
               if (col) {
                  pick(rng_, e.collectors)->second = *col;
               }
            } else {
               e.templateIntervalMs = 1000 * (5 + roll(60));
               e.dscp = static_cast<Kel::U8>(roll(64));
            }
         }
         break;
      case 6:
         if (!trackers.empty()) {
            auto& t = pick(rng_, trackers)->second;
            const auto id = static_cast<HwFlowTracking::TemplateId>(256 + roll(40));
            if (roll(3) == 0) {
               t.flowGroups.erase(id);
            } else {
               t.flowGroups[id] = newFlowGroup();
            }
         }
         break;
      case 7:
      case 8:
         if (roll(3) == 0 && !c.interfaces.empty()) {
            c.interfaces.erase(pick(rng_, c.interfaces));
         } else {
            c.interfaces[fmt::format("Ethernet{}", 1 + roll(40))] = 1 + roll(60);
         }
         break;
      case 9:
      case 10:
         if (roll(3) == 0 && !c.vrfs.empty()) {
            c.vrfs.erase(pick(rng_, c.vrfs));
         } else {
            c.vrfs[1 + roll(20)] = fmt::format("vrf{}", roll(1000));
         }
         break;
      case 11:
         tracking.sampleRate = 1 + roll(4096);
         break;
   }
   // Interface indexes are unique, as the configuration file requires.
   std::set<Kel::U32> indexes;
   for (auto it = c.interfaces.begin(); it != c.interfaces.end();) {
      it = indexes.insert(it->second).second ? std::next(it) : c.interfaces.erase(it);
   }
}

void ChurnSoak::step(const AgentConfig& next) {
   writer_.configIs(next);
   config_ = next;
   // Long enough for coalesced updates (one second) and flow-tracker table
   // changes (two, then one more at the exporter) to have gone out.
   sched_->runFor(3.5);
   for (auto& r : v4_) {
      drain(*r, false);
   }
   for (auto& r : v6_) {
      drain(*r, true);
   }
   // Tracker ids are never reused: what receivers hold for a removed one is
   // dropped, so that a long run's memory tells about the library alone.
   std::set<Kel::U32> domains;
   for (const auto& [name, t] : config_.tracking[hardware].trackers) {
      domains.insert(t.id);
   }
   for (auto* family : {&v4_, &v6_}) {
      for (auto& r : *family) {
         std::erase_if(r->tables, [&](const auto& e) { return !domains.contains(e.first); });
         std::erase_if(r->dataTemplates, [&](const auto& e) { return !domains.contains(e.first); });
      }
   }
}

// Decodes what a receiver got and checks each stream's sequence numbers: a
// data message carries the records sent before it, a template message the
// current count without advancing it.
void ChurnSoak::drain(Receiver& r, bool ipv6) {
   // Which collector record owns each exporter stream now.
   std::map<Nivel::Port, Kel::Ptr<FlowTracking::CollectorInfo>> owners;
   for (const auto& [ftName, t] : config_.tracking[hardware].trackers) {
      const auto ft = info_->ftInfo(ftName);
      for (const auto& [expName, e] : t.exporters) {
         const auto exp = ft ? ft->expInfo(expName) : nullptr;
         const auto& pam = exp ? (ipv6 ? exp->udpPam6() : exp->udpPam4()) : nullptr;
         for (const auto& [colName, col] : e.collectors) {
            if (pam && !col.address.isV4() == ipv6 && col.port == r.rx.port()) {
               owners[pam->rxPort()] = exp->collInfo(colName);
            }
         }
      }
   }
   // A stream whose collector is gone or moved starts afresh; one that no
   // collector owns now is dropped, with the templates its decoder learnt.
   for (auto it = r.streams.begin(); it != r.streams.end();) {
      const auto owner = owners.find(it->first);
      if (owner == owners.end()) {
         it = r.streams.erase(it);
         continue;
      }
      if (owner->second != it->second.owner) {
         it->second = Receiver::Stream{};
      }
      ++it;
   }
   while (auto d = r.rx.receive()) {
      Receiver::Stream& s = r.streams[d->sourcePort];
      if (const auto it = owners.find(d->sourcePort); it != owners.end() && !s.owner) {
         s.owner = it->second;
      }
      const auto m = s.decoder->read(d->payload.data(), d->payload.size());
      ++datagrams_;
      ASSERT_EQ(m.error, "") << "options data before its template, or bad framing";
      const Kel::U32 seq = Nivel::loadNet<Kel::U32>(d->payload.data() + 8);
      if (s.expectedSeq) {
         ASSERT_EQ(seq, *s.expectedSeq) << "sequence number on port " << d->sourcePort;
      }
      s.expectedSeq = seq + static_cast<Kel::U32>(m.records.size());
      s.records += m.records.size();
      for (const auto& t : m.templates) {
         if (t.scopeCount == 0) {
            r.dataTemplates[m.observationDomain].insert(t.id);
         }
      }
      for (const auto& rec : m.records) {
         r.tables[m.observationDomain][rec.templateId][rec.values.front()] = rec.values;
      }
   }
}

// The flow key record a flow group's layout calls for, nullopt when its
// address fields mix families.
std::optional<Kel::U64> flowKeyIndicator(const Agent::FlowGroup& g) {
   Kel::U64 indicator = 0;
   int family = 0;
   for (std::size_t i = 0; i < g.fields.size(); ++i) {
      const R e = g.fields[i].element;
      const int f = (e == R::sourceIPv4Address || e == R::destinationIPv4Address)   ? 4
                    : (e == R::sourceIPv6Address || e == R::destinationIPv6Address) ? 6
                                                                                    : 0;
      if (f != 0 && family != 0 && f != family) {
         return std::nullopt;
      }
      family = f != 0 ? f : family;
      if (g.fields[i].flowKey) {
         indicator |= Kel::U64{1} << i;
      }
   }
   return indicator;
}

void ChurnSoak::checkStructure() const {
   const auto& trackers = config_.tracking.at(hardware).trackers;
   ASSERT_EQ(info_->ftInfo().size(), trackers.size());
   ASSERT_EQ(templates_->ftTemplateSm().size(), trackers.size());
   ASSERT_EQ(options_->ftManagerSm().size(), trackers.size());
   for (const auto& [name, t] : trackers) {
      const auto ft = info_->ftInfo(name);
      const auto tpl = templates_->ftTemplateSm(name);
      const auto opt = options_->ftManagerSm(name);
      ASSERT_TRUE(ft && tpl && opt) << name;
      ASSERT_EQ(opt->ftId(), t.id);
      ASSERT_EQ(ft->expInfo().size(), t.exporters.size());
      ASSERT_EQ(tpl->ftExporterSm().size(), t.exporters.size());
      ASSERT_EQ(opt->exporterSm().size(), t.exporters.size());
      for (const auto& [expName, e] : t.exporters) {
         const auto exp = ft->expInfo(expName);
         ASSERT_TRUE(exp && opt->exporterSm(expName)) << expName;
         ASSERT_EQ(exp->collInfo().size(), e.collectors.size()) << expName;
      }
   }
}

void ChurnSoak::checkCollectors() {
   const auto& tracking = config_.tracking.at(hardware);
   std::set<Vorpa::Ipfix::CollectorStatisticsKey> live;
   for (const auto& [ftName, t] : tracking.trackers) {
      // The rows every collector of this tracker must have received, by set.
      std::map<Kel::U16, std::vector<Row>> rows;
      auto& intf = rows[setIdOf(StaticTemplateId::intfTable)];
      for (const auto& [name, index] : config_.interfaces) {
         intf.push_back({Kel::U64{index}, name});
      }
      for (const auto& [index, name] : std::map<Kel::U64, const char*>{{0x80000000, "multicast"},
                                                                       {0x40000000, "discard"},
                                                                       {0x3FFFFFFF, "CPU"},
                                                                       {0, "unknown"}}) {
         intf.push_back({index, name});
      }
      auto& vrf = rows[setIdOf(StaticTemplateId::vrfTable)];
      vrf.push_back({Kel::U64{0xFFFFFF}, ""});
      for (const auto& [id, name] : config_.vrfs) {
         vrf.push_back({Kel::U64{id}, name});
      }
      for (const auto& [id, g] : t.flowGroups) {
         if (const auto indicator = flowKeyIndicator(g)) {
            rows[setIdOf(StaticTemplateId::flowKey)].push_back({Kel::U64{id}, *indicator});
         }
      }
      rows[setIdOf(StaticTemplateId::flowTrackerTable)].push_back(
          {Kel::U64{t.id}, ftName, Kel::U64{t.activeIntervalMs / 1000},
           Kel::U64{t.inactiveTimeoutMs / 1000}, Kel::U64{3}, Kel::U64{1},
           Kel::U64{tracking.sampleRate}, std::string("\0\2", 2)});

      for (const auto& [expName, e] : t.exporters) {
         const auto exp = info_->ftInfo(ftName)->expInfo(expName);
         for (const auto& [colName, col] : e.collectors) {
            SCOPED_TRACE(fmt::format("{}/{}/{}", ftName, expName, colName));
            const bool ipv6 = !col.address.isV4();
            Receiver* r = nullptr;
            for (auto& candidate : ipv6 ? v6_ : v4_) {
               r = candidate->rx.port() == col.port ? candidate.get() : r;
            }
            ASSERT_NE(r, nullptr);
            for (const auto& [setId, expected] : rows) {
               for (const Row& row : expected) {
                  const auto& got = r->tables[t.id][setId];
                  const auto it = got.find(row.front());
                  ASSERT_TRUE(it != got.end()) << "set " << setId << " has no row for its key";
                  ASSERT_EQ(it->second, row) << "set " << setId;
                  ++rowChecks_;
               }
            }
            for (const auto& [id, g] : t.flowGroups) {
               if (g.entryCount > 0) {
                  ASSERT_TRUE(r->dataTemplates[t.id].contains(id)) << "template " << id;
               }
            }
            // The records on this collector's stream are the ones its
            // statistics entry counts since it took its address.
            const auto& pam = ipv6 ? exp->udpPam6() : exp->udpPam4();
            ASSERT_TRUE(pam);
            const auto& stream = r->streams[pam->rxPort()];
            const auto key = Vorpa::Ipfix::CollectorStatisticsKey(
                ftName, expName,
                Vorpa::Ipfix::CollectorInfo(col.address, static_cast<Nivel::Port>(col.port)));
            const auto entry = stats_->stats(key);
            ASSERT_TRUE(entry);
            ASSERT_EQ(stream.owner, exp->collInfo(colName));
            ASSERT_EQ(entry->exportedFlowRecordTotalCount(), stream.records);
            ASSERT_EQ(exp->collInfo(colName)->ipfixMsgSeqNo().value(), *stream.expectedSeq);
            live.insert(key);
            ++collectorChecks_;
         }
      }
   }
   std::set<Vorpa::Ipfix::CollectorStatisticsKey> entries;
   stats_->statsControl().forEach([&](const auto& key, const auto&) { entries.insert(key); });
   ASSERT_EQ(entries, live) << "statistics entries exist exactly for live collectors";
}

TEST_F(ChurnSoak, LibraryFollowsRandomConfigurationChanges) {
   const Kel::U64 seed = envNumber("SOAK_SEED", std::random_device{}());
   const Kel::U64 steps = envNumber("SOAK_STEPS", 2000);
   std::printf("churn soak: SOAK_SEED=%llu SOAK_STEPS=%llu\n",
               static_cast<unsigned long long>(seed), static_cast<unsigned long long>(steps));
   rng_.seed(seed);
   Kel::LogCapture exporterLogs;
   AgentConfig next;
   next.tracking[hardware];
   for (Kel::U64 i = 0; i < steps; ++i) {
      SCOPED_TRACE(fmt::format("step {} of seed {}", i, seed));
      mutate(next);
      ASSERT_NO_FATAL_FAILURE(step(next));
      ASSERT_NO_FATAL_FAILURE(checkStructure());
      ASSERT_NO_FATAL_FAILURE(checkCollectors());
   }
   step(AgentConfig{});
   EXPECT_TRUE(info_->ftInfo().empty());
   std::size_t entries = 0;
   stats_->statsControl().forEach([&](const auto&, const auto&) { ++entries; });
   EXPECT_EQ(entries, 0u);
   EXPECT_EQ(openFds(), fdsAtStart_) << "every exporter socket is closed";
   std::printf("churn soak: %llu datagrams decoded, %llu collector and %llu row checks\n",
               static_cast<unsigned long long>(datagrams_),
               static_cast<unsigned long long>(collectorChecks_),
               static_cast<unsigned long long>(rowChecks_));
}

}  // namespace
