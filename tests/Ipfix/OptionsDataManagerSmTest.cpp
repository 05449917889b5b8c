#include <gtest/gtest.h>

#include <list>

#include "ExportFixture.h"
#include "FlowTracking/Constants.h"
#include "Ipfix/MessageRun.h"
#include "Ipfix/OptionsDataManagerSm.h"

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
   // By name, as the agent creates it.
   void startManager() {
      const auto factory =
          Kel::TypeRegistry::instance()
              .factory<decltype(FlowTracking::optionsDataManagerSmFactory)>("OptionsDataManagerSm");
      manager_ = factory(hwConfig_, hwStatus_, ftInfo_, intfMap_, vrfStatus_, stats_, sched_);
   }

   void vrfIs(Kel::U32 id, const std::string& name) {
      vrfTable_.entryIs(id, Vrf::VrfIdMap::VrfName(name));
      vrfStatus_->sync();
   }

   Kel::Ptr<FlowTracking::IntfIndexMap> intfMap_ = Kel::makeActive<FlowTracking::IntfIndexMap>();
   Vrf::VrfIdMap::Table vrfTable_ = Vrf::VrfIdMap::Table::createAnonymous("vrfs", 64);
   Kel::Ptr<Vrf::VrfIdMap::Status> vrfStatus_ =
       Vrf::VrfIdMap::statusFactory(Vrf::VrfIdMap::Reader::attach(vrfTable_));
   Kel::Ptr<FlowTracking::OptionsDataManagerSm> manager_;
};

// The agent's whole start sequence, decoded by a libfixbuf collector behind a
// real socket; then interface and VRF changes, which must reach the collector
// as updates after the exporter's second in virtual time. (Several trackers,
// collectors of both families, every table's rows, flow groups and tracker
// changes: the churn soak.)
TEST_F(OptionsDataManagerTest, CollectorsDecodeEverythingAndFollowTheModel) {
   TestSupport::LoopbackCollector c4(false);
   addTracker("t1", 101);
   addStatus("t1");
   addReadyExporter("t1", "e1")->collectorIpAndPortIs("c4", c4.receiver().ipAndPort());
   intfMap_->intfIndexIs("Ethernet1", 1);
   intfMap_->intfIndexIs("Ethernet2", 2);
   vrfIs(1, "blue");
   vrfIs(2, "red");
   startTemplates();
   startManager();
   sched_->runFor(0.5);
   using Records = std::multiset<Values>;
   using C = TestSupport::LoopbackCollector;
   const auto intfSet = setIdOf(StaticTemplateId::intfTable);
   const auto vrfSet = setIdOf(StaticTemplateId::vrfTable);
   EXPECT_EQ(C::records(c4.drain(), vrfSet), (Records{{1u, "blue"}, {2u, "red"}, {0xFFFFFFu, ""}}));

   intfMap_->intfIndexIs("Ethernet3", 3);
   intfMap_->intfIndexDel("Ethernet2");
   vrfIs(2, "green");
   sched_->runFor(0.9);
   EXPECT_EQ(C::records(c4.drain(), intfSet), Records{});
   sched_->runFor(0.2);
   const auto messages = c4.drain();
   EXPECT_EQ(C::records(messages, intfSet), (Records{{3u, "Ethernet3"}}))
       << "a removed interface is announced by nothing";
   EXPECT_EQ(C::records(messages, vrfSet), (Records{{2u, "green"}}));
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
