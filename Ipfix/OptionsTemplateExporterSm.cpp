#include "Ipfix/OptionsTemplateExporterSm.h"

#include "Kel/Exception.h"
#include "Kel/Trace.h"
#include "Nivel/IpfixHeader.h"

namespace FlowTracking {

namespace {
Kel::TraceHandle traceIpfix("Ipfix");
}

class OptionsTemplateExporterSm::ConfigReactor : public OptionsTemplateConfig::Notifiee {
 public:
   ConfigReactor(const Kel::Ptr<const OptionsTemplateConfig>& c, OptionsTemplateExporterSm* sm)
       : sm_(sm) {
      notifierIs(c);
   }
   void onVersion() override { sm_->handleOptTemplateConfigVersion(); }

 private:
   OptionsTemplateExporterSm* sm_;
};

OptionsTemplateExporterSm::OptionsTemplateExporterSm(
    Kel::Name ftName, Kel::Name expName, FtId ftId,
    Kel::Ptr<const HwFlowTracking::ExporterConfig> hwExpConfig, Kel::Ptr<ExporterInfo> expInfo,
    Kel::Ptr<Vorpa::Ipfix::CollectorStatistics> collStats, Kel::Ptr<Bexa::TaskScheduler> scheduler,
    Kel::Ptr<const OptionsTemplateConfig> optTemplateConfig)
    : TemplateExporterSmBase(std::move(ftName), std::move(expName), ftId, std::move(hwExpConfig),
                             std::move(expInfo), std::move(collStats), std::move(scheduler)),
      optTemplateConfig_(std::move(optTemplateConfig)) {
   KEL_ASSERT(optTemplateConfig_);
   handleInitialized();
}

OptionsTemplateExporterSm::~OptionsTemplateExporterSm() = default;

Kel::U16 OptionsTemplateExporterSm::headerSetId() const {
   return Nivel::IpfixConst::optionsTemplateSetId();
}

void OptionsTemplateExporterSm::handleInitialized() {
   traceEntry("OptionsTemplateExporterSm", "handleInitialized");
   handleStartup();
   templateCreationTask_ =
       newTask("TemplateCreationTask", [this] { handleTemplateCreationTask(); });
   configReactor_ = std::make_unique<ConfigReactor>(optTemplateConfig_, this);
   templateCreationTask_->scheduleTask();
   initialized_ = true;
}

void OptionsTemplateExporterSm::updateCollectorOnTx(const Kel::String& collector) {
   expInfo()->collInfoIs(collector)->optTemplateSentIs(true);
}

Kel::U32 OptionsTemplateExporterSm::getTemplateLength() const {
   Kel::U32 length = 0;
   for (const auto& [name, t] : optTemplateConfig_->templateEntry()) {
      length += getTemplateEntryLength(*t);
   }
   return length;
}

Kel::U32 OptionsTemplateExporterSm::addTemplateFieldSpecifier(const Kel::Ptr<Nivel::Pkt>& pkt,
                                                              Kel::U32 offset,
                                                              const FtTemplateEntry& entry) const {
   KEL_TRACE(traceIpfix, 5, "Scope field: {}, len: {}, enterpriseIe: {}", entry.fieldId(),
             entry.fieldLen(), entry.enterpriseIe());
   return writeFieldSpecifier(pkt, offset, entry);
}

void OptionsTemplateExporterSm::handleOptTemplateConfigVersion() {
   traceEntry("OptionsTemplateExporterSm", "handleOptTemplateConfigVersion");
   templateCreationTask_->scheduleTask();
}

void OptionsTemplateExporterSm::handleTemplateCreationTask() {
   if (!templateCreationTask_->taskCurrentlyRunning()) {
      KEL_TRACE(traceIpfix, 4,
                "OptionsTemplateExporterSm::handleTemplateCreationTask for {} for {} "
                "(skipped)",
                ftName(), expName());
      return;
   }
   KEL_TRACE(traceIpfix, 4, "OptionsTemplateExporterSm::handleTemplateCreationTask for {} for {}",
             ftName(), expName());
   const Kel::U32 length = getTemplateLength();
   if (length == 0) {
      templateReadyIs(false);
      KEL_TRACE(traceIpfix, 3, "no options templates to send");
      return;
   }
   const auto pkt = getPkt(length);
   Kel::U32 offset = 0;
   for (const auto& [name, t] : optTemplateConfig_->templateEntry()) {
      const Kel::U32 entryLength = getTemplateEntryLength(*t);
      KEL_TRACE(traceIpfix, 3, "template {}, length: {}, offset: {}", t->templateId(), entryLength,
                offset);
      Nivel::TemplateHeader header(pkt, offset);
      header.templateIdIs(t->templateId());
      header.fieldCountIs(static_cast<Kel::U16>(t->scopeFields() + t->fields()));
      header.scopeFieldCountIs(static_cast<Kel::U16>(t->scopeFields()));
      offset += sizeof(Nivel::TemplateHeader::OptionsWire);
      for (const auto* fields : {&t->scopeField(), &t->field()}) {
         for (const auto& [position, entry] : *fields) {
            offset = addTemplateFieldSpecifier(pkt, offset, *entry);
         }
      }
   }
   finishMessage(pkt, static_cast<Kel::U16>(optTemplateConfig_->templateEntry().size()));
}

}  // namespace FlowTracking
