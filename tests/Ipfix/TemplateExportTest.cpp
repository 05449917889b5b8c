#include <gtest/gtest.h>

#include "ExportFixture.h"
#include "FlowTracking/Constants.h"
#include "Kel/Trace.h"
#include "support/LoopbackCollector.h"

namespace {

using Ipfix::RecordType;
using TestSupport::LoopbackCollector;

constexpr std::uint32_t pen = Ipfix::enterpriseNumber;

// A template as libfixbuf learnt it.
struct Template {
   struct Field {
      std::uint32_t enterprise;
      std::uint16_t element;
      std::uint16_t length;
      bool operator==(const Field&) const = default;
   };
   std::uint16_t id;
   std::uint16_t scopeCount;
   std::vector<Field> fields;
   bool operator==(const Template&) const = default;

   static Template of(const IpfixCollect::DecodedTemplate& t) {
      Template result{t.id, t.scopeCount, {}};
      for (const auto& f : t.fields) {
         result.fields.push_back({f.enterprise, f.element, f.length});
      }
      return result;
   }
};

// The templates one collector learnt from what it received, by set kind.
struct Learnt {
   std::vector<Template> data;
   std::vector<Template> options;
   std::vector<LoopbackCollector::Message> messages;
};

Learnt learn(LoopbackCollector& collector, std::uint32_t domain) {
   Learnt l;
   for (auto& m : collector.receiveAll()) {
      EXPECT_EQ(m.decoded.observationDomain, domain);
      EXPECT_TRUE(m.decoded.records.empty()) << "template messages only";
      for (const auto& t : m.decoded.templates) {
         (t.scopeCount ? l.options : l.data).push_back(Template::of(t));
      }
      l.messages.push_back(std::move(m));
   }
   return l;
}

const std::vector<Template> expectedOptionsTemplates = [] {
   using FlowTracking::Constants;
   using FlowTracking::StaticTemplateId;
   // The configuration lists them by name.
   return std::vector<Template>{
       {Constants::reservedTemplateId(StaticTemplateId::flowKey), 1, {{0, 145, 2}, {0, 173, 8}}},
       {Constants::reservedTemplateId(StaticTemplateId::flowTrackerTable),
        1,
        {{0, 149, 4},
         {0, 300, 65535},
         {0, 36, 2},
         {0, 37, 2},
         {0, 304, 2},
         {0, 309, 4},
         {0, 310, 4},
         {pen, 1001, 2}}},
       {Constants::reservedTemplateId(StaticTemplateId::intfTable),
        1,
        {{0, 10, 4}, {0, 82, 65535}}},
       {Constants::reservedTemplateId(StaticTemplateId::vrfTable),
        1,
        {{0, 234, 4}, {0, 236, 65535}}},
   };
}();

class TemplateExportTest : public ExportFixture {
 protected:
   // Tracker t1 (domain 7) with flow groups 300, 256 (no entries) and 280,
   // announced out of order, and exporter e1 with one collector per family.
   void SetUp() override {
      addTracker("t1", 7);
      addStatus("t1");
      addFlowGroup("t1", 300, 100,
                   {{RecordType::sourceIPv4Address, true},
                    {RecordType::destinationIPv4Address, true},
                    {RecordType::octetDeltaCount, false},
                    {RecordType::innerSrcIp, false}});
      addFlowGroup("t1", 256, 0, {{RecordType::packetDeltaCount, false}});
      addFlowGroup("t1", 280, 5,
                   {{RecordType::sourceIPv6Address, true}, {RecordType::octetDeltaCount, false}});
      exp_ = addReadyExporter("t1", "e1");
      exp_->collectorIpAndPortIs("c4", rx4_.receiver().ipAndPort());
      exp_->collectorIp6AndPortIs("c6", rx6_.receiver().ip6AndPort());
   }

   const std::vector<Template> expectedDataTemplates = {
       {280, 0, {{0, 27, 16}, {0, 1, 8}}},
       {300, 0, {{0, 8, 4}, {0, 12, 4}, {0, 1, 8}, {pen, 1024, 4}}},
   };

   LoopbackCollector& rx4_ = collector(false);
   LoopbackCollector& rx6_ = collector(true);
   Kel::Ptr<HwFlowTracking::ExporterConfig> exp_;
};

TEST_F(TemplateExportTest, EveryCollectorLearnsDataAndOptionsTemplates) {
   startTemplates();
   sched_->runFor(0);
   for (auto* rx : {&rx4_, &rx6_}) {
      SCOPED_TRACE(rx == &rx4_ ? "IPv4" : "IPv6");
      const Learnt l = learn(*rx, 7);
      EXPECT_EQ(l.messages.size(), 2u);
      EXPECT_EQ(l.data, expectedDataTemplates);
      EXPECT_EQ(l.options, expectedOptionsTemplates);
   }
   const auto info = exporterInfo("t1", "e1");
   EXPECT_TRUE(info->collInfo("c4")->optTemplateSent());
   EXPECT_TRUE(info->collInfo("c6")->optTemplateSent());
   EXPECT_EQ(info->rxPort4(), info->udpPam4()->rxPort());
   EXPECT_TRUE(exp_->exporter4Ready()) << "the first template send makes the exporter active";
   EXPECT_TRUE(exp_->exporter6Ready());
}

TEST_F(TemplateExportTest, LateCollectorPeriodAndFlowGroupChange) {
   startTemplates();
   sched_->runFor(0);
   learn(rx4_, 7);
   learn(rx6_, 7);

   // A collector added later gets both messages at once; the others nothing.
   auto& late = collector(false);
   exp_->collectorIpAndPortIs("late", late.receiver().ipAndPort());
   sched_->runFor(0);
   const Learnt first = learn(late, 7);
   EXPECT_EQ(first.data, expectedDataTemplates);
   EXPECT_EQ(first.options, expectedOptionsTemplates);
   EXPECT_TRUE(rx4_.receiveAll().empty());

   // Every templateInterval (30 s) all collectors get both again.
   sched_->runFor(29.5);
   EXPECT_TRUE(rx4_.receiveAll().empty());
   sched_->runFor(1.0);
   for (auto* rx : {&rx4_, &rx6_, &late}) {
      EXPECT_EQ(learn(*rx, 7).messages.size(), 2u);
   }

   // A flow group gaining an entry is rebuilt and sent to all at once.
   const auto fg = hwStatus_->hwFtStatus("t1")->hwFgStatus(256);
   auto moreEntries = Kel::makeActive<HwFlowTracking::FgStatus>(256);
   hwStatus_->hwFtStatus("t1")->hwFgStatusDel(256);
   addFlowGroup("t1", 256, 9, {{RecordType::vlanId, true}});
   sched_->runFor(0);
   for (auto* rx : {&rx4_, &rx6_, &late}) {
      const Learnt l = learn(*rx, 7);
      ASSERT_EQ(l.data.size(), 3u);
      EXPECT_EQ(l.data[0], (Template{256, 0, {{0, 58, 2}}}));
      EXPECT_TRUE(l.options.empty());
   }
}

// A field rewritten in place (a new length, as a hardware upgrade may report)
// changes the template as much as a new field does.
TEST_F(TemplateExportTest, FieldChangedInPlaceIsResent) {
   startTemplates();
   sched_->runFor(0);
   learn(rx4_, 7);
   hwStatus_->hwFtStatus("t1")->hwFgStatus(280)->templateEntry(1)->fieldLenIs(4);
   sched_->runFor(0);
   const Learnt l = learn(rx4_, 7);
   ASSERT_EQ(l.data.size(), 2u);
   EXPECT_EQ(l.data[0], (Template{280, 0, {{0, 27, 16}, {0, 1, 4}}}));
}

// An exporter serves a family only with both its socket and a source address:
// templates without options data would make it active and half-working.
TEST_F(TemplateExportTest, FamilyWithoutSourceAddressSendsNothingUntilItHasOne) {
   exp_->srcIpAddrIs(Nivel::IpAddr());
   startTemplates();
   sched_->runFor(0);
   EXPECT_TRUE(rx4_.receiveAll().empty());
   EXPECT_FALSE(exp_->exporter4Ready());
   EXPECT_EQ(learn(rx6_, 7).messages.size(), 2u);
   exp_->srcIpAddrIs(*Nivel::IpAddr::parse("127.0.0.1"));
   sched_->runFor(0);
   EXPECT_EQ(learn(rx4_, 7).data, expectedDataTemplates);
   EXPECT_TRUE(exp_->exporter4Ready());
}

TEST_F(TemplateExportTest, SequenceNumberIsCurrentAndExportTimeIsTimeOfSend) {
   startTemplates();
   sched_->runFor(0);
   learn(rx4_, 7);
   const auto c4 = exporterInfo("t1", "e1")->collInfo("c4");
   c4->ipfixMsgSeqNoIs(Ipfix::IpfixMsgSeqNo(41));
   clock_.advance(30);
   sched_->runFor(0);
   const auto d = rx4_.receiveAll();
   ASSERT_EQ(d.size(), 2u);
   for (const auto& m : d) {
      EXPECT_EQ(m.sequenceNumber(), 41u);
      EXPECT_EQ(m.decoded.exportTime, static_cast<std::uint32_t>(Kel::System::currentTimeUtc()));
   }
   EXPECT_EQ(c4->ipfixMsgSeqNo().value(), 41u) << "template messages do not advance it";
}

// Without flow groups there is no data template: collectors, old and new,
// get the options templates alone, and the data templates once there are.
TEST_F(TemplateExportTest, CollectorsGetDataTemplatesOnceThereAreAny) {
   hwStatus_->hwFtStatus("t1")->hwFgStatusDelAll();
   startTemplates();
   sched_->runFor(0);
   const Learnt l = learn(rx4_, 7);
   EXPECT_EQ(l.messages.size(), 1u);
   EXPECT_TRUE(l.data.empty());
   EXPECT_EQ(l.options.size(), 4u);
   auto& late = collector(false);
   exp_->collectorIpAndPortIs("late", late.receiver().ipAndPort());
   sched_->runFor(0);
   EXPECT_TRUE(learn(late, 7).data.empty());

   addFlowGroup("t1", 280, 5,
                {{RecordType::sourceIPv6Address, true}, {RecordType::octetDeltaCount, false}});
   sched_->runFor(0);
   for (auto* rx : {&rx4_, &late}) {
      EXPECT_EQ(learn(*rx, 7).data, std::vector<Template>{expectedDataTemplates[0]});
   }
}

struct Period {
   Kel::U32 intervalMs;
   double quietFor;  // no resend yet
   double resentBy;
};

class TemplatePeriodTest : public TemplateExportTest,
                           public ::testing::WithParamInterface<Period> {};

// A new interval sends at once and restarts the period, in whole seconds.
TEST_P(TemplatePeriodTest, PeriodIsTemplateIntervalInWholeSeconds) {
   startTemplates();
   sched_->runFor(0);
   learn(rx4_, 7);
   exp_->templateIntervalIs(GetParam().intervalMs);
   sched_->runFor(0);
   EXPECT_EQ(learn(rx4_, 7).messages.size(), 2u);
   sched_->runFor(GetParam().quietFor);
   EXPECT_TRUE(rx4_.receiveAll().empty());
   sched_->runFor(GetParam().resentBy - GetParam().quietFor);
   EXPECT_EQ(learn(rx4_, 7).messages.size(), 2u);
}

INSTANTIATE_TEST_SUITE_P(Intervals, TemplatePeriodTest,
                         ::testing::Values(Period{20000, 19.9, 20.0}, Period{1500, 0.9, 1.0}),
                         [](const auto& p) { return std::to_string(p.param.intervalMs) + "ms"; });

// Removing an exporter without its teardown would leave its statistics
// behind: a bug the destructor does not let pass.
TEST_F(TemplateExportTest, ExporterDestroyedWithoutTeardownEndsTheProcess) {
   start();
   const auto make = [&] {
      return Kel::makePtr<FlowTracking::FtExporterSm>("t1", "e1", 7, exp_, exporterInfo("t1", "e1"),
                                                      stats_, sched_, hwStatus_->hwFtStatus("t1"),
                                                      init_->elementIdCollection());
   };
   make()->handleDel();
   EXPECT_DEATH(make(), "FtExporterSm|destroyed without handleDel");
}

TEST_F(TemplateExportTest, RemovedExporterAndCollectorStopSending) {
   startTemplates();
   sched_->runFor(0);
   learn(rx4_, 7);
   learn(rx6_, 7);
   exp_->collectorIp6AndPortDel("c6");
   sched_->runFor(30);
   EXPECT_EQ(learn(rx4_, 7).messages.size(), 2u);
   EXPECT_TRUE(rx6_.receiveAll().empty());
   hwConfig_->hwFtConfig("t1")->expConfigDel("e1");
   EXPECT_EQ(templateSm_->ftTemplateSm("t1")->ftExporterSm("e1"), nullptr);
   sched_->runFor(60);
   EXPECT_TRUE(rx4_.receiveAll().empty());
   EXPECT_EQ(sched_->timerCount(), 0u) << "no periodic task outlives its exporter";
}

}  // namespace

namespace {

using Vorpa::Ipfix::CollectorInfo;
using Vorpa::Ipfix::CollectorStatisticsKey;
using Vorpa::Ipfix::SetId;

TEST_F(TemplateExportTest, StatisticsCountWhatWasSentAndClearingRestartsThem) {
   startTemplates();
   sched_->runFor(0);
   const Learnt l = learn(rx4_, 7);
   ASSERT_EQ(l.messages.size(), 2u);
   const CollectorStatisticsKey key4("t1", "e1",
                                     CollectorInfo::fromIpAndPort(rx4_.receiver().ipAndPort()));
   const auto entry = stats_->stats(key4);
   ASSERT_TRUE(entry.has_value());
   EXPECT_EQ(entry->exportedMessageTotalCount(), 2u);
   EXPECT_EQ(entry->exportedOctetTotalCount(),
             l.messages[0].datagram.payload.size() + l.messages[1].datagram.payload.size());
   EXPECT_EQ(entry->exportedFlowRecordTotalCount(), 0u);
   EXPECT_EQ(entry->setEntry(SetId(2)).exportedTemplateCount(), 2u) << "256 has no entries";
   EXPECT_EQ(entry->setEntry(SetId(3)).exportedTemplateCount(), 4u);
   EXPECT_EQ(entry->lastTemplateSentTime(), Kel::System::currentTime());

   // Clearing the tracker: its collector entries go, one clear-time entry
   // remains beside them until the next message.
   clock_.advance(5);
   configReq_->clearCountersIs({"t1", "", Kel::System::currentTime()});
   EXPECT_FALSE(stats_->stats(key4).has_value());
   const auto cleared = stats_->stats(CollectorStatisticsKey("t1", "", CollectorInfo()));
   ASSERT_TRUE(cleared.has_value());
   EXPECT_EQ(cleared->lastClearedTime(), Kel::System::currentTime());
   EXPECT_EQ(cleared->exportedMessageTotalCount(), 0u);

   // A request for another tracker leaves everything alone.
   sched_->runFor(30);
   configReq_->clearCountersIs({"t9", "", Kel::System::currentTime()});
   EXPECT_EQ(stats_->stats(key4)->exportedMessageTotalCount(), 2u);

   // Removing a collector removes its entry.
   exp_->collectorIpAndPortDel("c4");
   EXPECT_FALSE(stats_->stats(key4).has_value());
   EXPECT_TRUE(stats_
                   ->stats(CollectorStatisticsKey(
                       "t1", "e1", CollectorInfo::fromIp6AndPort(rx6_.receiver().ip6AndPort())))
                   .has_value());

   // Clear times go with their exporter and tracker: a table sized for the
   // configuration never fills with those of removed ones.
   configReq_->clearCountersIs({"t1", "e1", Kel::System::currentTime() + 1});
   EXPECT_EQ(stats_->statsControl().size(), 2u) << "the tracker's and the exporter's clear times";
   hwConfig_->hwFtConfig("t1")->expConfigDel("e1");
   EXPECT_FALSE(stats_->stats(CollectorStatisticsKey("t1", "e1", CollectorInfo())).has_value());
   hwConfig_->hwFtConfigDel("t1");
   EXPECT_EQ(stats_->statsControl().size(), 0u);
}

}  // namespace
