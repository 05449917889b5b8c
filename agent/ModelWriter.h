#pragma once

#include <map>

#include "AgentConfig.h"
#include "ConfigDiff.h"
#include "FlowTracking/IntfIndexMap.h"
#include "HwFlowTracking/Config.h"
#include "HwFlowTracking/Status.h"
#include "Ipfix/Ipfix.h"
#include "VrfSink.h"

namespace Agent {

// The hardware model of one flow-tracking type, which the library's machines
// of that type are built on.
struct TrackingModel {
   Kel::Ptr<HwFlowTracking::Config> config = Kel::makeActive<HwFlowTracking::Config>();
   Kel::Ptr<HwFlowTracking::Status> status = Kel::makeActive<HwFlowTracking::Status>();
};

// Writes the agent's configuration into the model entities the library
// follows, the way a switch's configuration and hardware agents would: at
// first start everything is added; on a reload only the difference is applied,
// so unchanged objects keep their entities (and the library its state for
// them, such as a collector's sequence number).
//
// Ordering, which the library's reactors rely on:
// - Removals come before changes and additions (see diff()), so an object
//   re-created under the same name is removed before it is added again: the
//   library refuses a silent replacement of an entry.
// - A new tracker's hardware status is added before its configuration, and a
//   removed tracker's configuration goes before its status: the library
//   builds a tracker's templates when its configuration appears and expects
//   the status to be there.
// - A new object is filled in completely before it is added to its parent.
// - A collector that moves to the other address family gets its new entry
//   before its old one goes, so its name never disappears and the library
//   keeps its sequence number.
// - A flow group whose fields change gets its entries and field count first
//   and a new `genId` last.
class ModelWriter {
 public:
   // `catalogue` gives each field's length and enterprise flag, as the
   // hardware reports them; `interfaces` and `vrfs` receive the interfaces
   // and VRFs.
   ModelWriter(Kel::Ptr<const Ipfix::ElementIdColl> catalogue,
               Kel::Ptr<FlowTracking::IntfIndexMap> interfaces, VrfSink& vrfs);

   // Both types' models exist from the start, empty until configured.
   const TrackingModel& model(FlowTracking::FlowTrackingType type) const;
   // The configuration last applied; empty before the first.
   const AgentConfig& config() const { return config_; }

   // Brings the model from config() to `next` and returns the changes made.
   // The statistics table's name is not part of the model: its change is
   // returned for the caller to act on.
   std::vector<Change> configIs(const AgentConfig& next);

 private:
   void apply(const Change& change, const AgentConfig& next);
   void applyRemoved(const Change& change);
   void applyChanged(const Change& change, const AgentConfig& next);
   void applyAdded(const Change& change, const AgentConfig& next);

   void trackerAdd(FlowTracking::FlowTrackingType type, const Kel::Name& name,
                   const Tracker& tracker);
   void trackerDel(FlowTracking::FlowTrackingType type, const Kel::Name& name);
   Kel::Ptr<HwFlowTracking::ExporterConfig> makeExporter(const Kel::Name& name,
                                                         const Exporter& exporter) const;
   Kel::Ptr<HwFlowTracking::FgStatus> makeFlowGroup(HwFlowTracking::TemplateId id,
                                                    const FlowGroup& group) const;
   void writeFields(HwFlowTracking::FgStatus& fg, const std::vector<FlowField>& fields) const;
   void interfaceDel(const Nivel::IntfId& name, Kel::U32 index);
   void interfaceIs(const Nivel::IntfId& name, Kel::U32 index);

   Kel::Ptr<HwFlowTracking::FtConfig> ftConfig(const Change& c) const;
   Kel::Ptr<HwFlowTracking::FtStatus> ftStatus(const Change& c) const;
   Kel::Ptr<HwFlowTracking::ExporterConfig> expConfig(const Change& c) const;

   Kel::Ptr<const Ipfix::ElementIdColl> catalogue_;
   Kel::Ptr<FlowTracking::IntfIndexMap> interfaces_;
   VrfSink& vrfs_;
   std::map<FlowTracking::FlowTrackingType, TrackingModel> models_;
   AgentConfig config_;
};

}  // namespace Agent
