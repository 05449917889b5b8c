#include <gtest/gtest.h>

#include <list>

#include "ExportFixture.h"
#include "FlowTracking/Constants.h"
#include "Ipfix/MessageRun.h"
#include "Ipfix/OptionsDataManagerSm.h"
#include "Kel/Trace.h"
#include "Kel/TypeRegistry.h"
#include "support/LoopbackCollector.h"

namespace {

using FlowTracking::OptionsDataScope;
using FlowTracking::StaticTemplateId;
using Values = TestSupport::LoopbackCollector::Values;
using R = Ipfix::RecordType;

HwFlowTracking::TemplateId setIdOf(StaticTemplateId id) {
   return FlowTracking::Constants::reservedTemplateId(id);
}

// The library of one flow-tracking type with its options data manager over
// an interface index map and a shared-memory VRF id map.
class OptionsDataManagerTest : public ExportFixture {
 protected:
   void startManager() {
      manager_ = FlowTracking::optionsDataManagerSmFactory(hwConfig_, hwStatus_, ftInfo_, intfMap_,
                                                           vrfStatus_, stats_, sched_);
   }

   void vrfIs(Kel::U32 id, const std::string& name) {
      vrfTable_.entryIs(id, Vrf::VrfIdMap::VrfName(name));
      vrfStatus_->sync();
   }

   Kel::Ptr<FlowTracking::FtOptionsDataManagerSm> ftManager(const Kel::Name& tracker) const {
      return manager_->ftManagerSm(tracker);
   }

   Kel::Ptr<FlowTracking::IntfIndexMap> intfMap_ = Kel::makeActive<FlowTracking::IntfIndexMap>();
   Vrf::VrfIdMap::Table vrfTable_ = Vrf::VrfIdMap::Table::createAnonymous("vrfs", 64);
   Kel::Ptr<Vrf::VrfIdMap::Status> vrfStatus_ =
       Vrf::VrfIdMap::statusFactory(Vrf::VrfIdMap::Reader::attach(vrfTable_));
   Kel::Ptr<FlowTracking::OptionsDataManagerSm> manager_;
};

// Status records are written by hand here, so that each of the three records
// a tracker needs can come and go on its own.
TEST_F(OptionsDataManagerTest, TrackerExistsWhileConfigurationStatusAndRecordAllDo) {
   startManager();
   struct Step {
      const char* name;
      std::function<void()> change;
      bool exists;
   };
   const Step steps[] = {
       {"configuration", [&] { addTracker("t1", 5); }, false},
       {"status record", [&] { ftInfo_->ftInfoIs("t1"); }, false},
       {"hardware status", [&] { addStatus("t1"); }, true},
       {"status record removed", [&] { ftInfo_->ftInfoDel("t1"); }, false},
       {"status record again", [&] { ftInfo_->ftInfoIs("t1"); }, true},
       {"hardware status removed", [&] { hwStatus_->hwFtStatusDel("t1"); }, false},
       {"hardware status again", [&] { addStatus("t1"); }, true},
       {"configuration removed", [&] { hwConfig_->hwFtConfigDel("t1"); }, false},
   };
   Kel::Ptr<FlowTracking::FtOptionsDataManagerSm> previous;
   for (const Step& s : steps) {
      SCOPED_TRACE(s.name);
      s.change();
      const auto ft = ftManager("t1");
      EXPECT_EQ(ft != nullptr, s.exists);
      EXPECT_EQ(manager_->dataContainer("t1") != nullptr, s.exists);
      EXPECT_EQ(manager_->dataAll()->trackerData("t1") != nullptr, s.exists);
      if (ft) {
         EXPECT_NE(ft, previous) << "a tracker that comes back is built afresh";
         EXPECT_EQ(ft->ftId(), 5u);
         const auto trackerData = manager_->dataAll()->trackerData("t1")->data();
         EXPECT_EQ(trackerData->source("t1-FlowKey")->dataSetId(),
                   setIdOf(StaticTemplateId::flowKey));
         EXPECT_EQ(trackerData->source("t1-FlowTrackerTable")->dataSetId(),
                   setIdOf(StaticTemplateId::flowTrackerTable));
         previous = ft;
      }
   }
}

TEST_F(OptionsDataManagerTest, TrackersShareTheGlobalSourcesAndOwnTheirs) {
   for (const char* t : {"t1", "t2"}) {
      addTracker(t);
      addStatus(t);
      ftInfo_->ftInfoIs(t);
   }
   startManager();
   const auto& all = manager_->dataAll();
   EXPECT_EQ(all->globalData()->source("InterfaceTable")->dataSetId(),
             setIdOf(StaticTemplateId::intfTable));
   EXPECT_EQ(all->globalData()->source("VrfTable")->dataSetId(),
             setIdOf(StaticTemplateId::vrfTable));
   for (const char* t : {"t1", "t2"}) {
      SCOPED_TRACE(t);
      const auto c = manager_->dataContainer(t);
      ASSERT_NE(c, nullptr);
      EXPECT_EQ(c->data(OptionsDataScope::scopeGlobal), all->globalData());
      EXPECT_EQ(c->update(OptionsDataScope::scopeGlobal), all->globalUpdate());
      EXPECT_EQ(c->data(OptionsDataScope::scopeTracker), all->trackerData(t)->data());
      EXPECT_EQ(c->update(OptionsDataScope::scopeTracker), all->trackerData(t)->update());
      EXPECT_EQ(c->data(OptionsDataScope::scopeTracker)->source().size(), 2u);
   }
   EXPECT_NE(manager_->dataContainer("t1")->data(OptionsDataScope::scopeTracker),
             manager_->dataContainer("t2")->data(OptionsDataScope::scopeTracker));

   // A tracker that goes takes its sources along and leaves the other's.
   const auto t1Data = manager_->dataContainer("t1")->data(OptionsDataScope::scopeTracker);
   Kel::TraceCapture capture("Ipfix", 3);
   hwStatus_->hwFtStatusDel("t1");
   EXPECT_TRUE(t1Data->source().empty());
   EXPECT_TRUE(capture.contains("Deleted FlowKeySm for t1"));
   EXPECT_TRUE(capture.contains("Deleted FlowTrackerTableSm for t1"));
   EXPECT_EQ(manager_->dataContainer("t2")->data(OptionsDataScope::scopeTracker)->source().size(),
             2u);
   EXPECT_EQ(all->globalData()->source().size(), 2u);
}

TEST_F(OptionsDataManagerTest, ExporterExistsWhileConfigurationAndRecordDo) {
   addTracker("t1");
   addStatus("t1");
   const auto info = ftInfo_->ftInfoIs("t1");
   startManager();
   struct Step {
      const char* name;
      std::function<void()> change;
      bool exists;
   };
   const Step steps[] = {
       {"record", [&] { info->expInfoIs("e1"); }, false},
       {"configuration", [&] { addReadyExporter("t1", "e1"); }, true},
       {"record removed", [&] { info->expInfoDel("e1"); }, false},
       {"record again", [&] { info->expInfoIs("e1"); }, true},
       {"configuration removed", [&] { hwConfig_->hwFtConfig("t1")->expConfigDel("e1"); }, false},
   };
   Kel::Ptr<FlowTracking::OptionsDataExporterSm> previous;
   for (const Step& s : steps) {
      SCOPED_TRACE(s.name);
      s.change();
      const auto exporter = ftManager("t1")->exporterSm("e1");
      EXPECT_EQ(exporter != nullptr, s.exists);
      if (exporter) {
         EXPECT_NE(exporter, previous);
         EXPECT_EQ(exporter->dataContainer(), manager_->dataContainer("t1"));
         previous = exporter;
      }
   }
}

TEST_F(OptionsDataManagerTest, TheAgentCanCreateTheManagerByName) {
   addTracker("t1");
   addStatus("t1");
   ftInfo_->ftInfoIs("t1");
   const auto& registry = Kel::TypeRegistry::instance();
   const auto init = registry.factory<decltype(Ipfix::ipfixInitSmFactory)>("IpfixInitSm")();
   EXPECT_TRUE(init->initialized());
   const auto factory = registry.factory<decltype(FlowTracking::optionsDataManagerSmFactory)>(
       "OptionsDataManagerSm");
   manager_ = factory(hwConfig_, hwStatus_, ftInfo_, intfMap_, vrfStatus_, stats_, sched_);
   EXPECT_NE(ftManager("t1"), nullptr);
}

// The agent's whole start sequence over two trackers, decoded by a libfixbuf
// collector behind real sockets; then model changes in virtual time, each of
// which must reach the collectors as the right update after the right delay.
TEST_F(OptionsDataManagerTest, CollectorsDecodeEverythingAndFollowTheModel) {
   TestSupport::LoopbackCollector c4(false), c6(true), c4b(false);
   hwStatus_->sampleRateIs(100);
   addTracker("t1", 101)->activeIntervalIs(60000);
   addTracker("t2", 102);
   const auto s1 = addStatus("t1");
   s1->activeIntervalIs(300);
   s1->inactiveTimeoutIs(15);
   addStatus("t2");
   addFlowGroup("t1", 256, 64,
                {{R::sourceIPv4Address, true},
                 {R::destinationIPv4Address, true},
                 {R::octetDeltaCount, false}});
   addFlowGroup("t2", 300, 64, {{R::sourceIPv6Address, true}, {R::packetDeltaCount, false}});
   const auto e1 = addReadyExporter("t1", "e1");
   e1->collectorIpAndPortIs("c4", c4.receiver().ipAndPort());
   e1->collectorIp6AndPortIs("c6", c6.receiver().ip6AndPort());
   addReadyExporter("t2", "e2")->collectorIpAndPortIs("c4b", c4b.receiver().ipAndPort());
   intfMap_->intfIndexIs("Ethernet1", 1);
   intfMap_->intfIndexIs("Ethernet2", 2);
   vrfIs(1, "blue");
   vrfIs(2, "red");

   startTemplates();
   startManager();
   sched_->runFor(0.5);

   const auto intfSet = setIdOf(StaticTemplateId::intfTable);
   const auto vrfSet = setIdOf(StaticTemplateId::vrfTable);
   const auto keySet = setIdOf(StaticTemplateId::flowKey);
   const auto trackerSet = setIdOf(StaticTemplateId::flowTrackerTable);
   using Records = std::multiset<Values>;
   const Records reservedIntfs = {
       {0x80000000u, "multicast"}, {0x40000000u, "discard"}, {0x3FFFFFFFu, "CPU"}, {0u, "unknown"}};
   const auto withReserved = [&](Records r) {
      r.insert(reservedIntfs.begin(), reservedIntfs.end());
      return r;
   };
   // The flow-tracking type is an element of our own enterprise, which
   // libfixbuf leaves as the octets sent.
   const auto trackerRecord = [](std::uint64_t id, const char* name, std::uint64_t idle,
                                 std::uint64_t rate) {
      return Values{id, name, 300u, idle, 3u, 1u, rate, std::string("\0\2", 2)};
   };

   struct Expected {
      TestSupport::LoopbackCollector* collector;
      std::uint32_t domain;
      std::uint16_t dataTemplate;
      Records flowKeys;
      Values tracker;
   };
   const Expected startup[] = {
       {&c4, 101, 256, {{256u, 0x3u}}, trackerRecord(101, "t1", 15, 100)},
       {&c6, 101, 256, {{256u, 0x3u}}, trackerRecord(101, "t1", 15, 100)},
       {&c4b, 102, 300, {{300u, 0x1u}}, trackerRecord(102, "t2", 15, 100)},
   };
   for (const Expected& e : startup) {
      SCOPED_TRACE(e.domain);
      const auto messages = e.collector->drain();
      ASSERT_FALSE(messages.empty());
      for (const auto& m : messages) {
         EXPECT_EQ(m.observationDomain, e.domain);
      }
      const auto templates = TestSupport::LoopbackCollector::templates(messages);
      ASSERT_TRUE(templates.contains(e.dataTemplate));
      EXPECT_EQ(templates.at(e.dataTemplate).scopeCount, 0u);
      for (const auto id : {intfSet, vrfSet, keySet, trackerSet}) {
         ASSERT_TRUE(templates.contains(id)) << id;
         EXPECT_EQ(templates.at(id).scopeCount, 1u);
      }
      using C = TestSupport::LoopbackCollector;
      EXPECT_EQ(C::records(messages, intfSet),
                withReserved({{1u, "Ethernet1"}, {2u, "Ethernet2"}}));
      EXPECT_EQ(C::records(messages, vrfSet),
                (Records{{1u, "blue"}, {2u, "red"}, {0xFFFFFFu, ""}}));
      EXPECT_EQ(C::records(messages, keySet), e.flowKeys);
      EXPECT_EQ(C::records(messages, trackerSet), Records{e.tracker});
   }

   // Table changes are coalesced for a second by the exporters.
   intfMap_->intfIndexIs("Ethernet3", 3);
   intfMap_->intfIndexDel("Ethernet2");
   vrfIs(2, "green");
   sched_->runFor(0.9);
   EXPECT_EQ(TestSupport::LoopbackCollector::records(c4.drain(), intfSet), Records{});
   sched_->runFor(0.2);
   for (auto* c : {&c4, &c6, &c4b}) {
      const auto messages = c->drain();
      EXPECT_EQ(TestSupport::LoopbackCollector::records(messages, intfSet),
                (Records{{3u, "Ethernet3"}}))
          << "a removed interface is announced by nothing";
      EXPECT_EQ(TestSupport::LoopbackCollector::records(messages, vrfSet),
                (Records{{2u, "green"}}));
   }

   // A new flow group: its template at once, its flow keys a second later.
   addFlowGroup("t1", 257, 8, {{R::sourceIPv6Address, true}, {R::destinationIPv6Address, false}});
   sched_->runFor(0.1);
   auto messages = c4.drain();
   EXPECT_TRUE(TestSupport::LoopbackCollector::templates(messages).contains(257));
   EXPECT_EQ(TestSupport::LoopbackCollector::records(messages, keySet), Records{});
   sched_->runFor(1.0);
   EXPECT_EQ(TestSupport::LoopbackCollector::records(c4.drain(), keySet), (Records{{257u, 0x1u}}));

   // Two tracker changes a second apart: one record, two seconds after the
   // first change plus the exporter's second.
   hwStatus_->sampleRateIs(200);
   sched_->runFor(1.0);
   s1->inactiveTimeoutIs(30);
   sched_->runFor(1.9);
   EXPECT_EQ(TestSupport::LoopbackCollector::records(c4.drain(), trackerSet), Records{});
   sched_->runFor(0.2);
   EXPECT_EQ(TestSupport::LoopbackCollector::records(c4.drain(), trackerSet),
             Records{trackerRecord(101, "t1", 30, 200)});

   // The next periodic transmission, a minute after the first, has it all.
   sched_->runFor(55.0);
   messages = c4.drain();
   using C = TestSupport::LoopbackCollector;
   EXPECT_EQ(C::records(messages, intfSet), withReserved({{1u, "Ethernet1"}, {3u, "Ethernet3"}}));
   EXPECT_EQ(C::records(messages, vrfSet), (Records{{1u, "blue"}, {2u, "green"}, {0xFFFFFFu, ""}}));
   EXPECT_EQ(C::records(messages, keySet), (Records{{256u, 0x3u}, {257u, 0x1u}}));
   EXPECT_EQ(C::records(messages, trackerSet), Records{trackerRecord(101, "t1", 30, 200)});
}

using Bytes = std::vector<Kel::U8>;

// What a single builder makes of all of a container's records, global scope
// first: the messages the shared runs must add up to.
std::vector<Bytes> oneBuilderMessages(const FlowTracking::OptionsDataContainer& container,
                                      Kel::U16 maxSize, Kel::U32 odid) {
   const auto builder = FlowTracking::messageBuilderFactory(maxSize, odid);
   std::vector<Bytes> messages;
   const auto finish = [&] {
      const auto pkt = builder->finalizeMsg()->msgHdr()->pkt();
      messages.emplace_back(pkt->data(), pkt->data() + pkt->bytes());
   };
   builder->startMsg();
   for (const auto scope : {OptionsDataScope::scopeGlobal, OptionsDataScope::scopeTracker}) {
      for (const auto& [name, source] : container.data(scope)->source()) {
         for (const auto& record : source->dataRecord()) {
            if (builder->addSetRecord(source->dataSetId(), record) == 0) {
               finish();
               builder->startMsg();
               EXPECT_GT(builder->addSetRecord(source->dataSetId(), record), 0u);
            }
         }
      }
   }
   finish();
   return messages;
}

std::uint32_t be32(const Bytes& b, std::size_t at) {
   return std::uint32_t(b[at]) << 24 | std::uint32_t(b[at + 1]) << 16 |
          std::uint32_t(b[at + 2]) << 8 | b[at + 3];
}

// Two trackers with an exporter at each of two message sizes: what each
// collector receives of a full transmission, message by message, is what one
// builder over all the tracker's records makes, only the header stamped for
// the collector; yet the interface and VRF tables are encoded once per size.
TEST_F(OptionsDataManagerTest, SharedCachesSendWhatOneBuilderOverAllScopesMakes) {
   for (Kel::U32 i = 1; i <= 300; ++i) {
      intfMap_->intfIndexIs(fmt::format("Ethernet{}", i), i);
   }
   for (Kel::U32 v = 1; v <= 40; ++v) {
      vrfIs(v, fmt::format("vrf-{}", v));
   }
   struct Exporter {
      const char* tracker;
      Kel::U32 ftId;
      const char* name;
      Kel::U32 mtu;
      TestSupport::LoopbackCollector& rx;
      std::uint32_t seqNo = 0;
   };
   std::list<Exporter> exporters;
   for (const auto& [tracker, ftId] : {std::pair{"t1", 101u}, std::pair{"t2", 102u}}) {
      addTracker(tracker, ftId)->activeIntervalIs(10000);
      addStatus(tracker);
      addFlowGroup(tracker, HwFlowTracking::TemplateId(ftId + 155), 64,
                   {{R::sourceIPv4Address, true}, {R::octetDeltaCount, false}});
      for (const auto& [name, mtu] : {std::pair{"large", 1500u}, std::pair{"small", 400u}}) {
         auto& e = exporters.emplace_back(tracker, ftId, name, mtu, collector(false));
         const auto config = addReadyExporter(tracker, name);
         config->ipfixMtuIs(mtu);
         config->collectorIpAndPortIs("c", e.rx.receiver().ipAndPort());
      }
   }
   startTemplates();
   startManager();

   const auto checkFullTransmission = [&] {
      for (Exporter& e : exporters) {
         SCOPED_TRACE(fmt::format("{} {}", e.tracker, e.name));
         const auto expected =
             oneBuilderMessages(*manager_->dataContainer(e.tracker), Kel::U16(e.mtu - 48), e.ftId);
         // The options data messages, and how many records libfixbuf
         // decodes from each.
         std::vector<std::pair<Bytes, std::uint32_t>> sent;
         for (auto& m : e.rx.receiveAll()) {
            if (m.decoded.templates.empty()) {
               sent.emplace_back(std::move(m.datagram.payload),
                                 std::uint32_t(m.decoded.records.size()));
            }
         }
         ASSERT_EQ(sent.size(), expected.size());
         ASSERT_GT(sent.size(), 1u);
         for (std::size_t i = 0; i < sent.size(); ++i) {
            SCOPED_TRACE(i);
            const auto& [octets, records] = sent[i];
            const Bytes& built = expected[i];
            EXPECT_EQ(Bytes(octets.begin(), octets.begin() + 4),
                      Bytes(built.begin(), built.begin() + 4))
                << "version and length";
            EXPECT_EQ(be32(octets, 8), e.seqNo);
            EXPECT_EQ(be32(octets, 12), e.ftId);
            EXPECT_EQ(Bytes(octets.begin() + 16, octets.end()),
                      Bytes(built.begin() + 16, built.end()));
            e.seqNo += records;
         }
      }
   };
   const auto& globalRuns = *manager_->dataAll()->globalData()->messageRuns();
   const auto trackerRuns = [&](const char* tracker) {
      return manager_->dataAll()->trackerData(tracker)->data()->messageRuns();
   };

   sched_->runFor(0.5);
   checkFullTransmission();
   EXPECT_EQ(globalRuns.buildCount(), 2u) << "one per message size, for four exporters";
   EXPECT_EQ(trackerRuns("t1")->buildCount(), 2u);

   // An interface change: the runs of the old table go at once; an update a
   // second later, then the next period's full tables, for which the shared
   // part is built again once per size.
   intfMap_->intfIndexIs("Ethernet7", 7000);
   EXPECT_EQ(globalRuns.runCount(), 0u);
   sched_->runFor(1.5);
   for (Exporter& e : exporters) {
      e.seqNo = exporterInfo(e.tracker, e.name)->collInfo("c")->ipfixMsgSeqNo().value();
      e.rx.receiveAll();
   }
   sched_->runFor(9.0);
   checkFullTransmission();
   EXPECT_EQ(globalRuns.buildCount(), 4u);
   EXPECT_EQ(globalRuns.runCount(), 2u);

   // A size nobody uses any more frees its messages, shared and tracker's,
   // while the other size's runs stay current for the next transmission.
   for (const Exporter& e : exporters) {
      hwConfig_->hwFtConfig(e.tracker)->expConfig(e.name)->ipfixMtuIs(1500);
   }
   EXPECT_EQ(globalRuns.runCount(), 1u);
   EXPECT_EQ(trackerRuns("t2")->runCount(), 1u);
   sched_->runFor(10.0);
   EXPECT_EQ(globalRuns.buildCount(), 4u);
}

}  // namespace
