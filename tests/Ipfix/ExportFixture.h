#pragma once

#include <memory>

#include "FlowTracking/ConfigReq.h"
#include "HwFlowTracking/Status.h"
#include "Ipfix/CollectorStats.h"
#include "Ipfix/FlowTrackerTemplateSm.h"
#include "Ipfix/OptionsTemplate.h"
#include "TrackingTreeFixture.h"
#include "support/LoopbackCollector.h"

// The tracking tree plus what template export needs: hardware status with
// flow groups, a statistics table, the template machine of the type, and
// collectors on loopback that decode what they receive with libfixbuf.
class ExportFixture : public TrackingTreeFixture {
 protected:
   using Field = std::pair<Ipfix::RecordType, bool>;  // the field and whether it is a flow key

   void startTemplates() {
      if (!sm_) {
         start();
      }
      templateSm_ = FlowTracking::templateSmFactory(sched_, configReq_, hwStatus_, hwConfig_,
                                                    stats_, ftInfo_, init_->elementIdCollection());
   }

   Kel::Ptr<HwFlowTracking::FtStatus> addStatus(const Kel::Name& tracker) {
      auto s = Kel::makeActive<HwFlowTracking::FtStatus>(tracker);
      hwStatus_->hwFtStatusIs(s);
      return s;
   }

   // A flow group as the hardware reports it, its entries completed from the
   // catalogue.
   Kel::Ptr<HwFlowTracking::FgStatus> addFlowGroup(const Kel::Name& tracker,
                                                   HwFlowTracking::TemplateId id,
                                                   Kel::U32 entryCount,
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
      return fg;
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

   TestSupport::LoopbackCollector& collector(bool ipv6) {
      collectors_.push_back(std::make_unique<TestSupport::LoopbackCollector>(ipv6));
      return *collectors_.back();
   }

   Kel::Ptr<HwFlowTracking::Status> hwStatus_ = Kel::makeActive<HwFlowTracking::Status>();
   Kel::Ptr<FlowTracking::ConfigReq> configReq_ = Kel::makeActive<FlowTracking::ConfigReq>();
   Kel::Ptr<Vorpa::Ipfix::CollectorStatistics> stats_ =
       Kel::makeActive<Vorpa::Ipfix::CollectorStatistics>(
           "stats", Vorpa::Ipfix::CollectorStatisticsTable::createAnonymous("stats", 64));
   Kel::Ptr<FlowTracking::TemplateSm> templateSm_;
   std::vector<std::unique_ptr<TestSupport::LoopbackCollector>> collectors_;
};
