#pragma once

#include <gtest/gtest.h>

#include "Bexa/TaskScheduler.h"
#include "HwFlowTracking/Config.h"
#include "Ipfix/FlowTrackerInfoSm.h"
#include "Ipfix/IpfixSm.h"
#include "Kel/System.h"

// A hardware flow-tracking configuration, the tracking tree built over it, a
// scheduler in virtual time, and helpers to add trackers, exporters and
// collectors the way the agent would.
class TrackingTreeFixture : public ::testing::Test {
 public:
   ~TrackingTreeFixture() override { Nivel::UdpPam::faultsIs({}); }

   void start() {
      sm_ = FlowTracking::flowTrackingInfoSmFactory(sched_, hwConfig_, ftInfo_, init_->agentInfo());
   }

   Kel::Ptr<HwFlowTracking::FtConfig> addTracker(const Kel::Name& name, Kel::U32 ftId = 1) {
      auto t = Kel::makeActive<HwFlowTracking::FtConfig>(name);
      t->ftIdIs(ftId);
      hwConfig_->hwFtConfigIs(t);
      return t;
   }

   Kel::Ptr<HwFlowTracking::ExporterConfig> addExporter(const Kel::Name& tracker,
                                                        const Kel::Name& name) {
      auto e = Kel::makeActive<HwFlowTracking::ExporterConfig>(name);
      hwConfig_->hwFtConfig(tracker)->expConfigIs(e);
      return e;
   }

   Kel::Ptr<FlowTracking::ExporterInfoSm> exporterSm(const Kel::Name& tracker,
                                                     const Kel::Name& exporter) const {
      const auto t = sm_->ftInfoSm(tracker);
      return t ? t->expInfoSm(exporter) : nullptr;
   }
   Kel::Ptr<FlowTracking::ExporterInfo> exporterInfo(const Kel::Name& tracker,
                                                     const Kel::Name& exporter) const {
      const auto t = ftInfo_->ftInfo(tracker);
      return t ? t->expInfo(exporter) : nullptr;
   }

   static Nivel::IpAndPort v4(const char* text) { return *Nivel::IpAndPort::parse(text); }
   static Nivel::Ip6AndPort v6(const char* text) { return *Nivel::Ip6AndPort::parse(text); }

   Kel::ScopedManualClock clock_;
   Kel::Ptr<Bexa::TaskSchedulerRoot> sched_ = Kel::makePtr<Bexa::TaskSchedulerRoot>();
   Kel::Ptr<Ipfix::IpfixInitSm> init_ = Ipfix::ipfixInitSmFactory();
   Kel::Ptr<HwFlowTracking::Config> hwConfig_ = Kel::makeActive<HwFlowTracking::Config>();
   Kel::Ptr<FlowTracking::FlowTrackingInfo> ftInfo_ =
       Kel::makeActive<FlowTracking::FlowTrackingInfo>(FlowTracking::FlowTrackingType::hardware);
   Kel::Ptr<FlowTracking::FlowTrackingInfoSm> sm_;
};
