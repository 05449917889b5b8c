#include "ModelWriter.h"

#include <algorithm>

#include "Ipfix/OptionsTemplate.h"
#include "Kel/Exception.h"

namespace Agent {

namespace {

using FlowTracking::FlowTrackingType;

Kel::Seconds seconds(Kel::U32 ms) {
   return ms / 1000.0;
}

bool mentions(const Change& c, Attribute a) {
   return std::find(c.attributes.begin(), c.attributes.end(), a) != c.attributes.end();
}

void writeTimers(HwFlowTracking::FtConfig& ft, HwFlowTracking::FtStatus& fts, const Tracker& t) {
   ft.activeIntervalIs(t.activeIntervalMs);
   ft.inactiveTimeoutIs(t.inactiveTimeoutMs);
   fts.activeIntervalIs(seconds(t.activeIntervalMs));
   fts.inactiveTimeoutIs(seconds(t.inactiveTimeoutMs));
}

// Everything of an exporter but its collectors.
void writeExporterAttributes(HwFlowTracking::ExporterConfig& e, const Exporter& exporter) {
   e.srcIpAddrIs(exporter.srcIpv4.value_or(Nivel::IpAddr()));
   e.srcIp6AddrIs(exporter.srcIpv6.value_or(Nivel::Ip6Addr()));
   e.dscpIs(tosByte(exporter.dscp));
   e.ipfixMtuIs(exporter.mtu);
   e.templateIntervalIs(exporter.templateIntervalMs);
   e.vrfNameIs(exporter.vrfName);
}

// The new address first, then the other family's entry goes: the name stays
// configured throughout.
void writeCollector(HwFlowTracking::ExporterConfig& e, const Kel::Name& name, const Collector& c) {
   if (c.address.isV4()) {
      e.collectorIpAndPortIs(name, {c.address.v4(), c.port});
      e.collectorIp6AndPortDel(name);
   } else {
      e.collectorIp6AndPortIs(name, {c.address.v6(), c.port});
      e.collectorIpAndPortDel(name);
   }
}

const Tracker& trackerOf(const AgentConfig& config, const Change& c) {
   return config.tracking.at(c.type).trackers.at(c.tracker);
}

}  // namespace

ModelWriter::ModelWriter(Kel::Ptr<const Ipfix::ElementIdColl> catalogue,
                         Kel::Ptr<FlowTracking::IntfIndexMap> interfaces, VrfSink& vrfs)
    : catalogue_(std::move(catalogue)), interfaces_(std::move(interfaces)), vrfs_(vrfs) {
   for (const FlowTrackingType type : trackingTypes) {
      models_[type];
   }
}

const TrackingModel& ModelWriter::model(FlowTrackingType type) const {
   return models_.at(type);
}

std::vector<Change> ModelWriter::configIs(const AgentConfig& next) {
   std::vector<Change> changes = diff(config_, next);
   for (const Change& c : changes) {
      apply(c, next);
   }
   config_ = next;
   return changes;
}

void ModelWriter::apply(const Change& change, const AgentConfig& next) {
   switch (change.kind) {
      case ChangeKind::removed:
         applyRemoved(change);
         break;
      case ChangeKind::changed:
         applyChanged(change, next);
         break;
      case ChangeKind::added:
         applyAdded(change, next);
         break;
   }
}

void ModelWriter::applyRemoved(const Change& c) {
   switch (c.subject) {
      case Subject::statisticsTable:
         break;
      case Subject::tracking:
         for (const auto& [name, tracker] : config_.tracking.at(c.type).trackers) {
            trackerDel(c.type, name);
         }
         // As if the type had never been configured.
         models_.at(c.type).status->sampleRateIs(Tracking().sampleRate);
         break;
      case Subject::tracker:
         trackerDel(c.type, c.tracker);
         break;
      case Subject::exporter:
         ftConfig(c)->expConfigDel(c.exporter);
         break;
      case Subject::collector: {
         const auto e = expConfig(c);
         e->collectorIpAndPortDel(c.name);
         e->collectorIp6AndPortDel(c.name);
         break;
      }
      case Subject::flowGroup:
         ftStatus(c)->hwFgStatusDel(c.templateId);
         break;
      case Subject::interface:
         interfaceDel(c.name, config_.interfaces.at(c.name));
         break;
      case Subject::vrf:
         vrfs_.vrfDel(c.vrfId);
         break;
   }
}

void ModelWriter::applyChanged(const Change& c, const AgentConfig& next) {
   switch (c.subject) {
      case Subject::statisticsTable:
         break;
      case Subject::tracking:
         models_.at(c.type).status->sampleRateIs(next.tracking.at(c.type).sampleRate);
         break;
      case Subject::tracker:
         writeTimers(*ftConfig(c), *ftStatus(c), trackerOf(next, c));
         break;
      case Subject::exporter:
         writeExporterAttributes(*expConfig(c), trackerOf(next, c).exporters.at(c.exporter));
         break;
      case Subject::collector:
         writeCollector(*expConfig(c), c.name,
                        trackerOf(next, c).exporters.at(c.exporter).collectors.at(c.name));
         break;
      case Subject::flowGroup: {
         const FlowGroup& group = trackerOf(next, c).flowGroups.at(c.templateId);
         const auto fg = ftStatus(c)->hwFgStatus(c.templateId);
         KEL_ASSERT(fg);
         fg->entryCountIs(group.entryCount);
         if (mentions(c, Attribute::fields)) {
            writeFields(*fg, group.fields);
            fg->genIdIs(fg->genId() + 1);
         }
         break;
      }
      case Subject::interface:
         interfaceDel(c.name, config_.interfaces.at(c.name));
         interfaceIs(c.name, next.interfaces.at(c.name));
         break;
      case Subject::vrf:
         vrfs_.vrfIs(c.vrfId, next.vrfs.at(c.vrfId));
         break;
   }
}

void ModelWriter::applyAdded(const Change& c, const AgentConfig& next) {
   switch (c.subject) {
      case Subject::statisticsTable:
         break;
      case Subject::tracking: {
         const Tracking& tracking = next.tracking.at(c.type);
         models_.at(c.type).status->sampleRateIs(tracking.sampleRate);
         for (const auto& [name, tracker] : tracking.trackers) {
            trackerAdd(c.type, name, tracker);
         }
         break;
      }
      case Subject::tracker:
         trackerAdd(c.type, c.tracker, trackerOf(next, c));
         break;
      case Subject::exporter:
         ftConfig(c)->expConfigIs(
             makeExporter(c.exporter, trackerOf(next, c).exporters.at(c.exporter)));
         break;
      case Subject::collector:
         writeCollector(*expConfig(c), c.name,
                        trackerOf(next, c).exporters.at(c.exporter).collectors.at(c.name));
         break;
      case Subject::flowGroup:
         ftStatus(c)->hwFgStatusIs(
             makeFlowGroup(c.templateId, trackerOf(next, c).flowGroups.at(c.templateId)));
         break;
      case Subject::interface:
         interfaceIs(c.name, next.interfaces.at(c.name));
         break;
      case Subject::vrf:
         vrfs_.vrfIs(c.vrfId, next.vrfs.at(c.vrfId));
         break;
   }
}

void ModelWriter::trackerAdd(FlowTrackingType type, const Kel::Name& name, const Tracker& tracker) {
   const TrackingModel& model = models_.at(type);
   auto fts = Kel::makeActive<HwFlowTracking::FtStatus>(name);
   auto ft = Kel::makeActive<HwFlowTracking::FtConfig>(name);
   ft->ftIdIs(tracker.id);
   writeTimers(*ft, *fts, tracker);
   for (const auto& [id, group] : tracker.flowGroups) {
      fts->hwFgStatusIs(makeFlowGroup(id, group));
   }
   for (const auto& [exporterName, exporter] : tracker.exporters) {
      ft->expConfigIs(makeExporter(exporterName, exporter));
   }
   model.status->hwFtStatusIs(fts);
   model.config->hwFtConfigIs(ft);
}

void ModelWriter::trackerDel(FlowTrackingType type, const Kel::Name& name) {
   const TrackingModel& model = models_.at(type);
   model.config->hwFtConfigDel(name);
   model.status->hwFtStatusDel(name);
}

Kel::Ptr<HwFlowTracking::ExporterConfig> ModelWriter::makeExporter(const Kel::Name& name,
                                                                   const Exporter& exporter) const {
   auto e = Kel::makeActive<HwFlowTracking::ExporterConfig>(name);
   writeExporterAttributes(*e, exporter);
   for (const auto& [collectorName, collector] : exporter.collectors) {
      writeCollector(*e, collectorName, collector);
   }
   // The agent knows the exporter's addresses from the file: nothing is left
   // to resolve.
   e->exporterResolvedIs(true);
   return e;
}

Kel::Ptr<HwFlowTracking::FgStatus> ModelWriter::makeFlowGroup(HwFlowTracking::TemplateId id,
                                                              const FlowGroup& group) const {
   auto fg = Kel::makeActive<HwFlowTracking::FgStatus>(id);
   fg->entryCountIs(group.entryCount);
   writeFields(*fg, group.fields);
   return fg;
}

// Keeps the entry of a position whose element stays, updating its flow-key
// flag; an entry whose element changes is a different entry, removed and
// added.
void ModelWriter::writeFields(HwFlowTracking::FgStatus& fg,
                              const std::vector<FlowField>& fields) const {
   while (!fg.templateEntry().empty() && fg.templateEntry().rbegin()->first >= fields.size()) {
      fg.templateEntryDel(fg.templateEntry().rbegin()->first);
   }
   for (Kel::U32 position = 0; position < fields.size(); ++position) {
      const FlowField& field = fields[position];
      auto entry = fg.templateEntry(position);
      if (entry && entry->fieldId() != field.element) {
         fg.templateEntryDel(position);
         entry = nullptr;
      }
      if (entry) {
         entry->flowKeyIs(field.flowKey);
         continue;
      }
      entry = Kel::makeActive<HwFlowTracking::FtTemplateEntry>(position, field.element);
      FlowTracking::updateFieldInfo(*catalogue_, *entry);
      entry->flowKeyIs(field.flowKey);
      fg.templateEntryIs(entry);
   }
   fg.fieldCountIs(static_cast<Kel::U16>(fields.size()));
}

// Removes an interface, or the old index of a renumbered one. The index entry
// goes only while it still names this interface: another interface may have
// taken the index over earlier in the same reload.
void ModelWriter::interfaceDel(const Nivel::IntfId& name, Kel::U32 index) {
   interfaces_->intfIndexDel(name);
   if (interfaces_->intfId(index) == name) {
      interfaces_->intfIdDel(index);
   }
}

void ModelWriter::interfaceIs(const Nivel::IntfId& name, Kel::U32 index) {
   interfaces_->intfIdIs(index, name);
   interfaces_->intfIndexIs(name, index);
}

Kel::Ptr<HwFlowTracking::FtConfig> ModelWriter::ftConfig(const Change& c) const {
   auto ft = models_.at(c.type).config->hwFtConfig(c.tracker);
   KEL_ASSERT(ft);
   return ft;
}

Kel::Ptr<HwFlowTracking::FtStatus> ModelWriter::ftStatus(const Change& c) const {
   auto fts = models_.at(c.type).status->hwFtStatus(c.tracker);
   KEL_ASSERT(fts);
   return fts;
}

Kel::Ptr<HwFlowTracking::ExporterConfig> ModelWriter::expConfig(const Change& c) const {
   auto e = ftConfig(c)->expConfig(c.exporter);
   KEL_ASSERT(e);
   return e;
}

}  // namespace Agent
