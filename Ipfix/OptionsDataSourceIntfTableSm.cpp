#include "Ipfix/OptionsDataSourceIntfTableSm.h"

#include <array>
#include <cstring>

#include "FlowTracking/Constants.h"
#include "Kel/Trace.h"

namespace FlowTracking {

namespace {

Kel::TraceHandle traceIpfix("Ipfix");

static_assert(reservedIntfs.size() == IntfIndexMap::numReservedIntfs());

}  // namespace

class InterfaceTableSm::IntfIndexMapReactor : public IntfIndexMap::Notifiee {
 public:
   IntfIndexMapReactor(const Kel::Ptr<const IntfIndexMap>& m, InterfaceTableSm* sm) : sm_(sm) {
      notifierIs(m);
   }
   void onIntfIndex(const Nivel::IntfId& id) override { sm_->handleIntfId(id); }

 private:
   InterfaceTableSm* sm_;
};

InterfaceTableSm::InterfaceTableSm(Kel::Ptr<OptionsDataSource> dataSource,
                                   Kel::Ptr<OptionsDataUpdate> update,
                                   Kel::Ptr<const IntfIndexMap> intfIndexMap)
    : dataSource_(std::move(dataSource)),
      update_(std::move(update)),
      intfIndexMap_(std::move(intfIndexMap)) {
   KEL_ASSERT(dataSource_ && update_ && intfIndexMap_);
   handleInitialized();
   intfIndexMapReactor_ = std::make_unique<IntfIndexMapReactor>(intfIndexMap_, this);
}

InterfaceTableSm::~InterfaceTableSm() = default;

TemplateId InterfaceTableSm::setId() {
   return Constants::reservedTemplateId(StaticTemplateId::intfTable);
}

DataRecordPtr InterfaceTableSm::makeDataRecord(const Kel::String& intfName, Kel::U32 index) const {
   const std::size_t intfNameLen = intfName.size();
   KEL_ASSERT(intfNameLen < 255);
   std::array<Kel::U8, sizeof(Kel::U32) + sizeof(Kel::U8) + 254> buffer;
   Kel::U8* pos = buffer.data();
   const Kel::U8* const max = pos + sizeof(Kel::U32) + sizeof(Kel::U8) + intfNameLen;
   KEL_ASSERT_TEXT(pos + sizeof(Kel::U32) < max, "pos + sizeof( U32 ) < max");
   addElement(index, &pos, max);
   // Strict: every interface has a name, so an empty one is a bug.
   KEL_ASSERT_TEXT(pos + sizeof(Kel::U8) < max, "pos + sizeof( U8 ) < max");
   addElement(static_cast<Kel::U8>(intfNameLen), &pos, max);
   KEL_ASSERT(pos + intfNameLen == max);
   std::memcpy(pos, intfName.data(), intfNameLen);
   pos += intfNameLen;
   KEL_ASSERT(pos == max);
   auto record = dataRecordFactory();
   record->append(buffer.data(), static_cast<Kel::U32>(max - buffer.data()));
   return record;
}

void InterfaceTableSm::handleInitialized() {
   KEL_TRACE(traceIpfix, 4, "InterfaceTableSm::handleInitialized for {}",
             dataSource_->sourceName());
   initialized_ = true;
   dataSource_->dataRecordDelAll();
   dataRecord_.clear();
   // The interface map is walked in key order, so each record goes at the
   // end of the own map: no search per interface, of tens of thousands.
   for (const auto& [id, index] : intfIndexMap_->intfIndex()) {
      const DataRecordPtr record = makeDataRecord(id, index);
      dataSource_->dataRecordIs(record);
      dataRecord_.emplace_hint(dataRecord_.end(), id, record);
   }
   for (const ReservedIntf& reserved : reservedIntfs) {
      dataSource_->dataRecordIs(makeDataRecord(reserved.name, reserved.index));
   }
   dataSource_->versionInc(1);
   KEL_TRACE(traceIpfix, 3, "InterfaceTableSm::map count: {}", intfIndexMap_->intfIndex().size());
}

void InterfaceTableSm::handleIntfId(const Nivel::IntfId& intfId) {
   KEL_TRACE(traceIpfix, 4, "InterfaceTableSm::handleIntfId for {}", intfId);
   if (const auto it = dataRecord_.find(intfId); it != dataRecord_.end()) {
      dataSource_->dataRecordDel(it->second);
      dataRecord_.erase(it);
   }
   if (const auto index = intfIndexMap_->intfIndex(intfId)) {
      const DataRecordPtr record = makeDataRecord(intfId, *index);
      update_->addUpdate(setId(), record);
      dataSource_->dataRecordIs(record);
      dataRecord_.emplace(intfId, record);
      KEL_TRACE(traceIpfix, 3, "intfId:{}, index:{}", intfId, *index);
   } else {
      KEL_TRACE(traceIpfix, 3, "intfId:{}, index not present. ", intfId);
   }
   KEL_ASSERT_TEXT(
       (dataRecords() + intfIndexMap_->numReservedIntfs()) == dataSource_->dataRecord().size(),
       "( dataRecords() + intfIndexMap()->numReservedIntfs() ) == dataSource()->dataRecords()");
   dataSource_->versionInc(1);
}

}  // namespace FlowTracking
