#include <gtest/gtest.h>

#include <tuple>

#include "ExportFixture.h"
#include "FlowTracking/Constants.h"

namespace {

using Ipfix::RecordType;
using TestSupport::LoopbackCollector;

constexpr std::uint32_t pen = Ipfix::enterpriseNumber;

// A template as libfixbuf learnt it: id, scope count, and each field's
// enterprise, element and length.
using Field = std::tuple<std::uint32_t, std::uint16_t, std::uint16_t>;
using Template = std::tuple<std::uint16_t, std::uint16_t, std::vector<Field>>;

Template learnt(const IpfixCollect::DecodedTemplate& t) {
   Template result{t.id, t.scopeCount, {}};
   for (const auto& f : t.fields) {
      std::get<2>(result).emplace_back(f.enterprise, f.element, f.length);
   }
   return result;
}

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
         (t.scopeCount ? l.options : l.data).push_back(learnt(t));
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

// Every collector learns the data and options templates at start, again when
// a template changes, and each templateInterval. (Collectors added later: the
// churn soak, whose decoders refuse data before its template.)
TEST_F(TemplateExportTest, CollectorsLearnTemplatesAtStartWhenAddedChangedAndEachPeriod) {
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
   EXPECT_TRUE(exp_->exporter6Ready()) << "the first template send makes the exporter active";

   // A field rewritten in place (a new length, as a hardware upgrade may
   // report) changes the template as much as a new field does: all learn it.
   hwStatus_->hwFtStatus("t1")->hwFgStatus(280)->templateEntry(1)->fieldLenIs(4);
   sched_->runFor(0);
   for (auto* rx : {&rx4_, &rx6_}) {
      const Learnt l = learn(*rx, 7);
      ASSERT_EQ(l.data.size(), 2u);
      EXPECT_EQ(l.data[0], (Template{280, 0, {{0, 27, 16}, {0, 1, 4}}}));
   }

   // A new interval sends at once and restarts the period, in whole seconds.
   exp_->templateIntervalIs(1500);
   sched_->runFor(0);
   for (auto* rx : {&rx4_, &rx6_}) {
      EXPECT_EQ(learn(*rx, 7).messages.size(), 2u);
   }
   sched_->runFor(0.9);
   EXPECT_TRUE(rx4_.receiveAll().empty());
   sched_->runFor(0.1);
   for (auto* rx : {&rx4_, &rx6_}) {
      const Learnt l = learn(*rx, 7);
      ASSERT_EQ(l.messages.size(), 2u);
      for (const auto& m : l.messages) {
         EXPECT_EQ(m.decoded.exportTime, static_cast<std::uint32_t>(Kel::System::currentTimeUtc()))
             << "export time is the time of the send";
      }
   }
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

using Vorpa::Ipfix::CollectorInfo;
using Vorpa::Ipfix::CollectorStatisticsKey;
using Vorpa::Ipfix::SetId;

TEST_F(TemplateExportTest, StatisticsCountWhatWasSentAndGoWithTheirOwners) {
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

   // Clear times go with their exporter and tracker: a table sized for the
   // configuration never fills with those of removed ones. A clear turns the
   // entries it matches into one clear-time entry; the next templates bring
   // the collector's back.
   configReq_->clearCountersIs({"t1", "", Kel::System::currentTime()});
   sched_->runFor(30);
   configReq_->clearCountersIs({"t1", "e1", Kel::System::currentTime()});
   const CollectorStatisticsKey trackerCleared("t1", "", CollectorInfo());
   const CollectorStatisticsKey exporterCleared("t1", "e1", CollectorInfo());
   EXPECT_TRUE(stats_->stats(trackerCleared).has_value());
   EXPECT_TRUE(stats_->stats(exporterCleared).has_value());
   hwConfig_->hwFtConfig("t1")->expConfigDel("e1");
   EXPECT_FALSE(stats_->stats(exporterCleared).has_value());
   hwConfig_->hwFtConfigDel("t1");
   EXPECT_EQ(stats_->statsControl().size(), 0u);
}

}  // namespace
