#pragma once

#include "Ipfix/OptionsTemplate.h"
#include "Ipfix/TemplateSmBase.h"

namespace FlowTracking {

// Sends the options templates of one flow-tracking type to every collector of
// one exporter, and marks each collector it reached as ready for options data.
class OptionsTemplateExporterSm final : public TemplateExporterSmBase {
 public:
   OptionsTemplateExporterSm(Kel::Name ftName, Kel::Name expName, FtId ftId,
                             Kel::Ptr<const HwFlowTracking::ExporterConfig> hwExpConfig,
                             Kel::Ptr<ExporterInfo> expInfo,
                             Kel::Ptr<Vorpa::Ipfix::CollectorStatistics> collStats,
                             Kel::Ptr<Bexa::TaskScheduler> scheduler,
                             Kel::Ptr<const OptionsTemplateConfig> optTemplateConfig);
   ~OptionsTemplateExporterSm() override;

   const Kel::Ptr<const OptionsTemplateConfig>& optTemplateConfig() const {
      return optTemplateConfig_;
   }
   bool initialized() const { return initialized_; }

   Kel::String taskPrefix() const override { return "optionsTemplateExporterSm"; }
   Kel::U16 headerSetId() const override;
   void updateCollectorOnTx(const Kel::String& collector) override;

   Kel::U32 getTemplateLength() const;
   Kel::U32 addTemplateFieldSpecifier(const Kel::Ptr<Nivel::Pkt>& pkt, Kel::U32 offset,
                                      const FtTemplateEntry& entry) const;
   void handleOptTemplateConfigVersion();
   void handleTemplateCreationTask();

 private:
   class ConfigReactor;

   void handleInitialized();

   const Kel::Ptr<const OptionsTemplateConfig> optTemplateConfig_;
   std::unique_ptr<Bexa::Task> templateCreationTask_;
   std::unique_ptr<ConfigReactor> configReactor_;
   bool initialized_ = false;
};

}  // namespace FlowTracking
