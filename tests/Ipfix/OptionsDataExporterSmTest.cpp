#include <gtest/gtest.h>

#include <cerrno>

#include "ExportFixture.h"
#include "FlowTracking/Constants.h"
#include "Ipfix/OptionsDataExporterSm.h"
#include "support/ThrownText.h"

namespace {

using FlowTracking::OptionsDataScope;
using TestSupport::LoopbackCollector;
// The values of an interface-table record, as libfixbuf decodes them.
using Record = LoopbackCollector::Values;

const HwFlowTracking::TemplateId intfSetId =
    FlowTracking::Constants::reservedTemplateId(FlowTracking::StaticTemplateId::intfTable);

// An interface-table record: 4-octet index, then the name with a length octet.
FlowTracking::DataRecordPtr intfRecord(Kel::U32 index, const std::string& name) {
   std::string bytes = {char(index >> 24), char(index >> 16), char(index >> 8), char(index),
                        char(name.size())};
   return FlowTracking::dataRecordFactory(bytes + name);
}

// The options data messages a collector decoded since the last call, the
// template messages that taught it to left out.
std::vector<LoopbackCollector::Message> optionsData(LoopbackCollector& collector) {
   auto messages = collector.receiveAll();
   std::erase_if(messages, [](const auto& m) { return m.decoded.records.empty(); });
   return messages;
}

std::vector<Record> records(const std::vector<LoopbackCollector::Message>& messages) {
   std::vector<Record> all;
   for (const auto& m : messages) {
      for (const auto& r : m.decoded.records) {
         EXPECT_EQ(r.templateId, intfSetId);
         all.push_back(r.values);
      }
   }
   return all;
}

Record intf(std::uint64_t index, const std::string& name) {
   return Record{index, name};
}

class OptionsDataExportTest : public ExportFixture {
 protected:
   void SetUp() override {
      addTracker("t1", 7);
      addStatus("t1");
      exp_ = addReadyExporter("t1", "e1");
      exp_->ipfixMtuIs(1500);
      exp_->collectorIpAndPortIs("c4", c4_.receiver().ipAndPort());
      exp_->collectorIp6AndPortIs("c6", c6_.receiver().ip6AndPort());
      global_ = Kel::makeActive<FlowTracking::OptionsDataSourceColl>(OptionsDataScope::scopeGlobal);
      source_ = global_->sourceIs("InterfaceTable", intfSetId);
      update_ = Kel::makeActive<FlowTracking::OptionsDataUpdate>(OptionsDataScope::scopeGlobal);
      container_ = FlowTracking::optionsDataContainerFactory("t1");
      container_->dataIs(global_);
      container_->updateIs(update_);
   }

   void fill(Kel::U32 count, const std::string& prefix = "Ethernet") {
      for (Kel::U32 i = 1; i <= count; ++i) {
         source_->dataRecordIs(intfRecord(i, prefix + std::to_string(i)));
      }
      source_->versionInc(1);
   }

   // The whole agent-side start: tree, templates, then the options exporter.
   void startExporter() {
      startTemplates();
      exporter_ = FlowTracking::optionsDataExporterSmFactory(
          "e1", "t1", 7, hwConfig_->hwFtConfig("t1"), exp_, exporterInfo("t1", "e1"), stats_,
          container_, sched_);
   }

   std::vector<Record> expectedTable(Kel::U32 count, const std::string& prefix = "Ethernet") {
      std::vector<Record> all;
      for (Kel::U32 i = 1; i <= count; ++i) {
         all.push_back(intf(i, prefix + std::to_string(i)));
      }
      return all;
   }

   static std::vector<Record> sorted(std::vector<Record> r) {
      std::sort(r.begin(), r.end(), [](const Record& a, const Record& b) {
         return std::get<std::uint64_t>(a[0]) < std::get<std::uint64_t>(b[0]);
      });
      return r;
   }

   LoopbackCollector& c4_ = collector(false);
   LoopbackCollector& c6_ = collector(true);
   Kel::Ptr<HwFlowTracking::ExporterConfig> exp_;
   Kel::Ptr<FlowTracking::OptionsDataSourceColl> global_;
   Kel::Ptr<FlowTracking::OptionsDataSource> source_;
   Kel::Ptr<FlowTracking::OptionsDataUpdate> update_;
   Kel::Ptr<FlowTracking::OptionsDataContainer> container_;
   Kel::Ptr<FlowTracking::OptionsDataExporterSm> exporter_;
};

TEST_F(OptionsDataExportTest, FullTablesReachEveryCollectorAfterItsOptionsTemplates) {
   fill(300);
   startExporter();
   EXPECT_TRUE(exporter_->collector().empty()) << "nobody has options templates yet";
   sched_->runFor(0);
   std::size_t msgCount = 0;
   for (auto* c : {&c4_, &c6_}) {
      const auto datagrams = optionsData(*c);
      msgCount = datagrams.size();
      ASSERT_GT(datagrams.size(), 1u) << "300 records need several messages";
      EXPECT_EQ(sorted(records(datagrams)), expectedTable(300));
      // Each message is numbered by the records sent to this collector before.
      std::uint32_t before = 0;
      for (const auto& d : datagrams) {
         EXPECT_EQ(d.sequenceNumber(), before);
         before += static_cast<std::uint32_t>(records({d}).size());
         EXPECT_LE(d.datagram.payload.size(), 1452u);
      }
   }
   const auto info = exporterInfo("t1", "e1");
   EXPECT_EQ(info->collInfo("c4")->ipfixMsgSeqNo().value(), 300u);
   EXPECT_EQ(info->collInfo("c6")->ipfixMsgSeqNo().value(), 300u);
   EXPECT_EQ(exporter_->msgCacheBuildCount(), 1u) << "both collectors share one encoding";

   const auto entry = stats_->stats(Vorpa::Ipfix::CollectorStatisticsKey(
       "t1", "e1", Vorpa::Ipfix::CollectorInfo::fromIpAndPort(c4_.receiver().ipAndPort())));
   ASSERT_TRUE(entry.has_value());
   EXPECT_EQ(entry->exportedFlowRecordTotalCount(), 300u);
   EXPECT_EQ(entry->setEntry(Vorpa::Ipfix::SetId(intfSetId)).exportedFlowRecordCount(), 300u);
   EXPECT_EQ(entry->lastOptionsDataSentTime(), Kel::System::currentTime());
   EXPECT_EQ(entry->exportedMessageTotalCount(), 1u + msgCount) << "options templates, then data";
}

TEST_F(OptionsDataExportTest, OneCachedMessageCarriesEachCollectorsOwnSequence) {
   fill(3);
   startExporter();
   sched_->runFor(0);
   optionsData(c4_);
   optionsData(c6_);
   exporterInfo("t1", "e1")->collInfo("c6")->ipfixMsgSeqNoIs(Ipfix::IpfixMsgSeqNo(1000));
   sched_->runFor(300);  // the default active interval: one periodic transmission
   const auto d4 = optionsData(c4_);
   const auto d6 = optionsData(c6_);
   ASSERT_EQ(d4.size(), 1u);
   ASSERT_EQ(d6.size(), 1u);
   EXPECT_EQ(d4[0].sequenceNumber(), 3u);
   EXPECT_EQ(d6[0].sequenceNumber(), 1000u);
   EXPECT_EQ(
       std::vector<Kel::U8>(d4[0].datagram.payload.begin() + 12, d4[0].datagram.payload.end()),
       std::vector<Kel::U8>(d6[0].datagram.payload.begin() + 12, d6[0].datagram.payload.end()));
   EXPECT_EQ(exporter_->msgCacheBuildCount(), 1u);
}

TEST_F(OptionsDataExportTest, UpdatesCoalesceForOneSecondUnlessTheyFillAMessage) {
   fill(2);
   startExporter();
   sched_->runFor(0);
   optionsData(c4_);

   update_->addUpdate(intfSetId, intfRecord(10, "Ethernet10"));
   sched_->runFor(0.6);
   update_->addUpdate(intfSetId, intfRecord(11, "Ethernet11"));  // does not push the deadline
   sched_->runFor(0.3);
   EXPECT_TRUE(optionsData(c4_).empty());
   sched_->runFor(0.1);
   auto d = optionsData(c4_);
   ASSERT_EQ(d.size(), 1u);
   EXPECT_EQ(records(d), (std::vector<Record>{intf(10, "Ethernet10"), intf(11, "Ethernet11")}));
   EXPECT_EQ(d[0].sequenceNumber(), 2u);
   EXPECT_EQ(exporter_->updateQueueBytes(), 0u);

   // 1431 octets with one set (20 octets of headers) still coalesce at MTU
   // 1500; 1432 go at once.
   const std::string name245(245, 'x');
   for (int i = 0; i < 5; ++i) {
      update_->addUpdate(intfSetId, intfRecord(20 + i, name245));  // 250 octets each
   }
   update_->addUpdate(intfSetId, FlowTracking::dataRecordFactory(std::string(181, 'y')));
   EXPECT_EQ(exporter_->updateQueueBytes(), 1431u);
   sched_->runFor(0);
   EXPECT_TRUE(optionsData(c4_).empty());
   exporter_->abortUpdates();
   for (int i = 0; i < 5; ++i) {
      update_->addUpdate(intfSetId, intfRecord(20 + i, name245));
   }
   update_->addUpdate(intfSetId, intfRecord(30, std::string(177, 'z')));  // 182 octets
   EXPECT_EQ(exporter_->updateQueueBytes(), 1432u);
   sched_->runFor(0);
   d = optionsData(c4_);
   ASSERT_FALSE(d.empty());
   EXPECT_EQ(records(d).size(), 6u);
}

TEST_F(OptionsDataExportTest, NullUpdateIsQueuedAsNothingToSend) {
   fill(1);
   startExporter();
   sched_->runFor(0);
   optionsData(c4_);
   update_->addUpdate(intfSetId, nullptr);
   EXPECT_EQ(update_->version(), 1u);
   EXPECT_EQ(exporter_->updateQueueBytes(), 0u);
   update_->addUpdate(intfSetId, intfRecord(5, "Ethernet5"));
   update_->addUpdate(intfSetId, nullptr);
   EXPECT_EQ(exporter_->updateQueueBytes(), 14u);
   sched_->runFor(1.0);
   EXPECT_EQ(records(optionsData(c4_)), (std::vector<Record>{intf(5, "Ethernet5")}));
}

// The smallest MTU leaves 125 octets a message: headers of 20 and a record
// of 105 fit (a name of 100); a record one octet longer fits no message at
// all.
class LongestRecordTest : public OptionsDataExportTest,
                          public ::testing::WithParamInterface<Kel::U32> {};

TEST_P(LongestRecordTest, RecordLongerThanAnEmptyMessageIsABug) {
   const Kel::U32 nameLength = GetParam();
   exp_->ipfixMtuIs(173);
   source_->dataRecordIs(intfRecord(1, std::string(nameLength, 'n')));
   source_->versionInc(1);
   const Kel::String failure = thrownText([&] {
      startExporter();
      sched_->runFor(0);
   });
   if (nameLength == 100) {
      EXPECT_EQ(failure, "(nothing thrown)");
      EXPECT_EQ(records(optionsData(c4_)), (std::vector<Record>{intf(1, std::string(100, 'n'))}));
   } else {
      EXPECT_EQ(failure, "consumed > 0");
   }
}

INSTANTIATE_TEST_SUITE_P(NameLengths, LongestRecordTest, ::testing::Values(100u, 101u));

// A flush that uses up its turn sends what it packed, gives the turn back
// and goes on with the rest in the next one, in queue order.
TEST_F(OptionsDataExportTest, UpdateFlushYieldsAndResumes) {
   fill(1);
   startExporter();
   sched_->runFor(0);
   optionsData(c4_);
   sched_->timeSliceIs(0);  // every check finds the turn used up
   std::vector<Record> sent;
   for (Kel::U32 i = 10; i < 14; ++i) {
      update_->addUpdate(intfSetId, intfRecord(i, "Ethernet" + std::to_string(i)));
      sent.push_back(intf(i, "Ethernet" + std::to_string(i)));
   }
   sched_->runFor(1.0);
   const auto d = optionsData(c4_);
   ASSERT_EQ(d.size(), 4u) << "one record a turn";
   EXPECT_EQ(records(d), sent);
   EXPECT_EQ(d[3].sequenceNumber(), 4u);
   EXPECT_EQ(exporter_->updateQueueBytes(), 0u);
}

TEST_F(OptionsDataExportTest, PeriodicTransmissionDiscardsQueuedUpdates) {
   fill(2);
   hwConfig_->hwFtConfig("t1")->activeIntervalIs(10000);
   startExporter();
   sched_->runFor(0);
   optionsData(c4_);
   sched_->runFor(9.5);
   update_->addUpdate(intfSetId, intfRecord(9, "Ethernet9"));
   source_->dataRecordIs(intfRecord(9, "Ethernet9"));
   source_->versionInc(1);
   sched_->runFor(0.5);  // the period comes first and carries the new table
   EXPECT_EQ(exporter_->updateQueueBytes(), 0u);
   EXPECT_FALSE(exporter_->updateTask().taskScheduled());
   EXPECT_EQ(sorted(records(optionsData(c4_))).size(), 3u);
   sched_->runFor(1.0);
   EXPECT_TRUE(optionsData(c4_).empty()) << "the discarded update is not sent";
   EXPECT_EQ(exporter_->msgCacheBuildCount(), 2u);
}

TEST_F(OptionsDataExportTest, ReaddressedCollectorIsReadmittedWithFullTables) {
   fill(4);
   startExporter();
   sched_->runFor(0);
   optionsData(c4_);
   optionsData(c6_);
   auto& moved = collector(false);
   exp_->collectorIpAndPortIs("c4", moved.receiver().ipAndPort());
   sched_->runFor(0);
   EXPECT_EQ(sorted(records(optionsData(moved))), expectedTable(4));
   EXPECT_TRUE(optionsData(c4_).empty());
   EXPECT_TRUE(optionsData(c6_).empty()) << "only the readdressed collector is sent to";
}

// The managers create every source before the exporters that read them; a
// source that comes or goes under a running exporter is a bug.
TEST_F(OptionsDataExportTest, SourcesAreFixedOnceTheExporterRuns) {
   fill(1);
   startExporter();
   EXPECT_EQ(thrownText([&] { global_->sourceIs("VrfTable", intfSetId + 1); }),
             "data source changed after init!");
   EXPECT_EQ(thrownText([&] { global_->sourceDel("InterfaceTable"); }),
             "data source changed after init!");
}

TEST_F(OptionsDataExportTest, NoCollectorsStopsThePeriodicTask) {
   fill(1);
   startExporter();
   sched_->runFor(0);
   EXPECT_TRUE(exporter_->txPeriodicTask().taskScheduled());
   exp_->collectorIpAndPortDel("c4");
   exp_->collectorIp6AndPortDel("c6");
   EXPECT_FALSE(exporter_->txPeriodicTask().taskScheduled());
   EXPECT_TRUE(exporter_->collector().empty());
}

TEST_F(OptionsDataExportTest, FailingCollectorDoesNotStopTheOthers) {
   fill(5);
   const auto failPort = c4_.receiver().port();
   Nivel::UdpPam::faultsIs({.open = {}, .tx = [&](const Nivel::UdpPam& p) {
                               return p.txPort() == failPort ? EPERM : 0;
                            }});
   startExporter();
   sched_->runFor(0);
   EXPECT_TRUE(optionsData(c4_).empty());
   EXPECT_EQ(sorted(records(optionsData(c6_))), expectedTable(5));
   EXPECT_EQ(exporter_->collector().size(), 2u) << "the exporter keeps its state";
   const auto& pam4 = exporterInfo("t1", "e1")->udpPam4();
   EXPECT_GT(pam4->txErrors(), 0u);
   EXPECT_EQ(pam4->lastTxErrno(), EPERM) << "the failures are counted on the socket";
   Nivel::UdpPam::faultsIs({});
   sched_->runFor(300);
   EXPECT_EQ(sorted(records(optionsData(c4_))), expectedTable(5));
}

// A full statistics table refuses new entries; sending goes on regardless.
TEST_F(OptionsDataExportTest, FullStatisticsTableCostsOnlyTheCounts) {
   stats_ = Kel::makeActive<Vorpa::Ipfix::CollectorStatistics>(
       "full", Vorpa::Ipfix::CollectorStatisticsTable::createAnonymous("full", 1));
   fill(50);
   startExporter();
   sched_->runFor(0);
   EXPECT_EQ(sorted(records(optionsData(c4_))), expectedTable(50));
   EXPECT_EQ(sorted(records(optionsData(c6_))), expectedTable(50));
   EXPECT_EQ(stats_->statsControl().size(), 1u);
   EXPECT_GT(stats_->statsControl().insertRefusedCount(), 0u);
}

// The configuration changes from inside a send, halfway through the full
// tables: the transmission goes on for the others, and the changed collector
// gets what its new state calls for (readdressed: all of it at the new
// address; removed: nothing more).
class ChangeInTransmissionTest : public OptionsDataExportTest,
                                 public ::testing::WithParamInterface<bool> {};

TEST_P(ChangeInTransmissionTest, CollectorChangedInTheMiddleOfATransmission) {
   const bool readdress = GetParam();
   auto& moved = collector(false);
   fill(300);
   int sendsToC4 = 0;
   const auto c4Port = c4_.receiver().port();
   Nivel::UdpPam::faultsIs({.open = {}, .tx = [&](const Nivel::UdpPam& p) {
                               // Two template messages, then the options data.
                               if (p.txPort() == c4Port && ++sendsToC4 == 4) {
                                  if (readdress) {
                                     exp_->collectorIpAndPortIs("c4", moved.receiver().ipAndPort());
                                  } else {
                                     exp_->collectorIpAndPortDel("c4");
                                  }
                               }
                               return 0;
                            }});
   startExporter();
   sched_->runFor(1.0);
   Nivel::UdpPam::faultsIs({});
   EXPECT_EQ(sorted(records(optionsData(c6_))), expectedTable(300));
   const auto partial = records(optionsData(c4_));
   EXPECT_GT(partial.size(), 0u);
   EXPECT_LT(partial.size(), 300u) << "c4 changed in the middle";
   const auto got = records(optionsData(moved));
   EXPECT_EQ(sorted(got), readdress ? expectedTable(300) : std::vector<Record>{});
   EXPECT_EQ(exporter_->collector().size(), readdress ? 2u : 1u);
}

INSTANTIATE_TEST_SUITE_P(Changes, ChangeInTransmissionTest, ::testing::Bool(),
                         [](const auto& p) { return p.param ? "Readdressed" : "Removed"; });

}  // namespace
