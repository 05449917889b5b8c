#pragma once

#include <array>
#include <map>
#include <memory>

#include "FlowTracking/IntfIndexMap.h"
#include "Ipfix/OptionsData.h"

namespace FlowTracking {

struct ReservedIntf {
   const char* name;
   Kel::U32 index;
};

// Indexes the hardware puts in flow records for traffic that has no interface
// of its own; the interface table always names them, so no interface may take
// one.
inline constexpr std::array<ReservedIntf, 4> reservedIntfs = {{
    {"multicast", 0x80000000},
    {"discard", 0x40000000},
    {"CPU", 0x3FFFFFFF},
    {"unknown", 0},
}};

// The global data source that names the interface indexes of flow records:
// one record (index, name) per interface of the interface index map, plus the
// reserved indexes for multicast, discard, CPU and unknown.
class InterfaceTableSm : public Kel::PtrInterface {
 public:
   InterfaceTableSm(Kel::Ptr<OptionsDataSource> dataSource, Kel::Ptr<OptionsDataUpdate> update,
                    Kel::Ptr<const IntfIndexMap> intfIndexMap);
   ~InterfaceTableSm() override;

   static TemplateId setId();

   const Kel::Ptr<OptionsDataSource>& dataSource() const { return dataSource_; }
   const Kel::Ptr<OptionsDataUpdate>& update() const { return update_; }
   const Kel::Ptr<const IntfIndexMap>& intfIndexMap() const { return intfIndexMap_; }
   bool initialized() const { return initialized_; }

   // The records made for the map's interfaces, the reserved ones aside.
   const std::map<Nivel::IntfId, DataRecordPtr>& dataRecord() const { return dataRecord_; }
   DataRecordPtr dataRecord(const Nivel::IntfId& id) const {
      return Kel::findEntry(dataRecord_, id);
   }
   std::size_t dataRecords() const { return dataRecord_.size(); }

   DataRecordPtr makeDataRecord(const Kel::String& intfName, Kel::U32 index) const;

   void handleInitialized();
   void handleIntfId(const Nivel::IntfId& intfId);

 private:
   class IntfIndexMapReactor;

   const Kel::Ptr<OptionsDataSource> dataSource_;
   const Kel::Ptr<OptionsDataUpdate> update_;
   const Kel::Ptr<const IntfIndexMap> intfIndexMap_;
   std::map<Nivel::IntfId, DataRecordPtr> dataRecord_;
   bool initialized_ = false;
   std::unique_ptr<IntfIndexMapReactor> intfIndexMapReactor_;
};

}  // namespace FlowTracking
