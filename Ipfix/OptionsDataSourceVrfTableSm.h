#pragma once

#include <map>
#include <memory>

#include "Ipfix/OptionsData.h"
#include "Vrf/VrfIdMap.h"

namespace FlowTracking {

// The VRF id flow records carry when the hardware knows no VRF; the VRF table
// always has it, unnamed, so no VRF may take it.
inline constexpr Vrf::VrfIdMap::VrfId reservedVrfId = 0xFFFFFF;

// The global data source that names the VRF ids of flow records: one record
// (id, name) per VRF of the shared-memory VRF id map, plus the reserved id
// with an empty name.
class VrfTableSm : public Kel::PtrInterface {
 public:
   using VrfId = Vrf::VrfIdMap::VrfId;

   VrfTableSm(Kel::Ptr<OptionsDataSource> dataSource, Kel::Ptr<OptionsDataUpdate> update,
              Kel::Ptr<const Vrf::VrfIdMap::Status> vrfIdMapStatus);
   ~VrfTableSm() override;

   static TemplateId setId();

   const Kel::Ptr<OptionsDataSource>& dataSource() const { return dataSource_; }
   const Kel::Ptr<OptionsDataUpdate>& update() const { return update_; }
   const Kel::Ptr<const Vrf::VrfIdMap::Status>& vrfIdMapStatus() const { return vrfIdMapStatus_; }
   bool initialized() const { return initialized_; }

   // The records made for the map's VRFs, the reserved one aside.
   const std::map<VrfId, DataRecordPtr>& dataRecord() const { return dataRecord_; }
   DataRecordPtr dataRecord(VrfId id) const { return Kel::findEntry(dataRecord_, id); }
   std::size_t dataRecords() const { return dataRecord_.size(); }

   DataRecordPtr makeDataRecord(VrfId id, const Kel::String& vrfName) const;

   void handleInitialized();
   // Rebuilds the whole table from the map.
   void handleVrfIndexAll();
   void handleVrfIndex(VrfId id);

 private:
   class VrfIdMapReactor;

   const Kel::Ptr<OptionsDataSource> dataSource_;
   const Kel::Ptr<OptionsDataUpdate> update_;
   const Kel::Ptr<const Vrf::VrfIdMap::Status> vrfIdMapStatus_;
   std::map<VrfId, DataRecordPtr> dataRecord_;
   bool initialized_ = false;
   std::unique_ptr<VrfIdMapReactor> vrfIdMapReactor_;
};

}  // namespace FlowTracking
