#pragma once

#include <gtest/gtest.h>

#include <memory>

#include "Bexa/TaskScheduler.h"
#include "FlowTracking/ConfigReq.h"
#include "HwFlowTracking/Config.h"
#include "HwFlowTracking/Status.h"
#include "Ipfix/CollectorStats.h"
#include "Ipfix/FlowTrackerInfoSm.h"
#include "Ipfix/FlowTrackerTemplateSm.h"
#include "Ipfix/IpfixSm.h"
#include "Ipfix/OptionsTemplate.h"
#include "Kel/System.h"
#include "Kel/TypeRegistry.h"
#include "support/LoopbackCollector.h"

// A hardware flow-tracking configuration and status, the tracking tree and
// template machines built over them the way the agent builds them, a
// statistics table, a scheduler in virtual time, and collectors on loopback
// that decode what they receive with libfixbuf.
class ExportFixture : public ::testing::Test {
 protected:
   using Field = std::pair<Ipfix::RecordType, bool>;  // the field and whether it is a flow key

   ~ExportFixture() override { Nivel::UdpPam::faultsIs({}); }

   void start() {
      sm_ = FlowTracking::flowTrackingInfoSmFactory(sched_, hwConfig_, ftInfo_, init_->agentInfo());
   }
   void startTemplates() {
      if (!sm_) {
         start();
      }
      templateSm_ = FlowTracking::templateSmFactory(sched_, configReq_, hwStatus_, hwConfig_,
                                                    stats_, ftInfo_, init_->elementIdCollection());
   }

   Kel::Ptr<HwFlowTracking::FtConfig> addTracker(const Kel::Name& name, Kel::U32 ftId = 1) {
      auto t = Kel::makeActive<HwFlowTracking::FtConfig>(name);
      t->ftIdIs(ftId);
      hwConfig_->hwFtConfigIs(t);
      return t;
   }
   Kel::Ptr<HwFlowTracking::FtStatus> addStatus(const Kel::Name& tracker) {
      auto s = Kel::makeActive<HwFlowTracking::FtStatus>(tracker);
      hwStatus_->hwFtStatusIs(s);
      return s;
   }

   // A flow group as the hardware reports it, its entries completed from the
   // catalogue.
   void addFlowGroup(const Kel::Name& tracker, HwFlowTracking::TemplateId id, Kel::U32 entryCount,
                     const std::vector<Field>& fields) {
      auto fg = Kel::makeActive<HwFlowTracking::FgStatus>(id);
      fg->entryCountIs(entryCount);
      fg->fieldCountIs(static_cast<Kel::U16>(fields.size()));
      for (Kel::U32 i = 0; i < fields.size(); ++i) {
         auto e = Kel::makeActive<HwFlowTracking::FtTemplateEntry>(i, fields[i].first);
         FlowTracking::updateFieldInfo(*init_->elementIdCollection(), *e);
         e->flowKeyIs(fields[i].second);
         fg->templateEntryIs(e);
      }
      hwStatus_->hwFtStatus(tracker)->hwFgStatusIs(fg);
   }

   Kel::Ptr<HwFlowTracking::ExporterConfig> addExporter(const Kel::Name& tracker,
                                                        const Kel::Name& name) {
      auto e = Kel::makeActive<HwFlowTracking::ExporterConfig>(name);
      hwConfig_->hwFtConfig(tracker)->expConfigIs(e);
      return e;
   }
   // A ready exporter: resolved, with source addresses on loopback.
   Kel::Ptr<HwFlowTracking::ExporterConfig> addReadyExporter(const Kel::Name& tracker,
                                                             const Kel::Name& name) {
      auto e = Kel::makeActive<HwFlowTracking::ExporterConfig>(name);
      e->srcIpAddrIs(*Nivel::IpAddr::parse("127.0.0.1"));
      e->srcIp6AddrIs(*Nivel::Ip6Addr::parse("::1"));
      e->templateIntervalIs(30000);
      e->exporterResolvedIs(true);
      hwConfig_->hwFtConfig(tracker)->expConfigIs(e);
      return e;
   }
   Kel::Ptr<FlowTracking::ExporterInfo> exporterInfo(const Kel::Name& tracker,
                                                     const Kel::Name& exporter) const {
      const auto t = ftInfo_->ftInfo(tracker);
      return t ? t->expInfo(exporter) : nullptr;
   }

   TestSupport::LoopbackCollector& collector(bool ipv6) {
      return *collectors_.emplace_back(std::make_unique<TestSupport::LoopbackCollector>(ipv6));
   }

   Kel::ScopedManualClock clock_;
   Kel::Ptr<Bexa::TaskSchedulerRoot> sched_ = Kel::makePtr<Bexa::TaskSchedulerRoot>();
   // By name, as the agent creates it: the catalogue every template reads.
   Kel::Ptr<Ipfix::IpfixInitSm> init_ =
       Kel::TypeRegistry::instance().factory<decltype(Ipfix::ipfixInitSmFactory)>("IpfixInitSm")();
   Kel::Ptr<HwFlowTracking::Config> hwConfig_ = Kel::makeActive<HwFlowTracking::Config>();
   Kel::Ptr<HwFlowTracking::Status> hwStatus_ = Kel::makeActive<HwFlowTracking::Status>();
   Kel::Ptr<FlowTracking::ConfigReq> configReq_ = Kel::makeActive<FlowTracking::ConfigReq>();
   Kel::Ptr<FlowTracking::FlowTrackingInfo> ftInfo_ =
       Kel::makeActive<FlowTracking::FlowTrackingInfo>(FlowTracking::FlowTrackingType::hardware);
   Kel::Ptr<Vorpa::Ipfix::CollectorStatistics> stats_ =
       Kel::makeActive<Vorpa::Ipfix::CollectorStatistics>(
           "stats", Vorpa::Ipfix::CollectorStatisticsTable::createAnonymous("stats", 64));
   Kel::Ptr<FlowTracking::FlowTrackingInfoSm> sm_;
   Kel::Ptr<FlowTracking::TemplateSm> templateSm_;
   std::vector<std::unique_ptr<TestSupport::LoopbackCollector>> collectors_;
};
