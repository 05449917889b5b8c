#include "Ipfix/OptionsDataSourceVrfTableSm.h"

#include <array>
#include <cstring>

#include "FlowTracking/Constants.h"
#include "Kel/Trace.h"

namespace FlowTracking {

namespace {

Kel::TraceHandle traceIpfix("Ipfix");

}  // namespace

class VrfTableSm::VrfIdMapReactor : public Vrf::VrfIdMap::Status::Notifiee {
 public:
   VrfIdMapReactor(const Kel::Ptr<const Vrf::VrfIdMap::Status>& s, VrfTableSm* sm) : sm_(sm) {
      notifierIs(s);
      sm_->handleVrfIndexAll();
   }
   void onVrfIdToName(VrfId id) override { sm_->handleVrfIndex(id); }
   void onVrfIdToNameAll() override { sm_->handleVrfIndexAll(); }

 private:
   VrfTableSm* sm_;
};

VrfTableSm::VrfTableSm(Kel::Ptr<OptionsDataSource> dataSource, Kel::Ptr<OptionsDataUpdate> update,
                       Kel::Ptr<const Vrf::VrfIdMap::Status> vrfIdMapStatus)
    : dataSource_(std::move(dataSource)),
      update_(std::move(update)),
      vrfIdMapStatus_(std::move(vrfIdMapStatus)) {
   KEL_ASSERT(dataSource_ && update_ && vrfIdMapStatus_);
   handleInitialized();
}

VrfTableSm::~VrfTableSm() = default;

TemplateId VrfTableSm::setId() {
   return Constants::reservedTemplateId(StaticTemplateId::vrfTable);
}

DataRecordPtr VrfTableSm::makeDataRecord(VrfId id, const Kel::String& vrfName) const {
   const std::size_t vrfNameLen = vrfName.size();
   KEL_ASSERT_TEXT(vrfNameLen < 255, "vrfName.bytes() < 255");
   std::array<Kel::U8, sizeof(VrfId) + sizeof(Kel::U8) + 254> buffer;
   Kel::U8* pos = buffer.data();
   const Kel::U8* const max = pos + sizeof(VrfId) + sizeof(Kel::U8) + vrfNameLen;
   KEL_ASSERT_TEXT(pos + sizeof(VrfId) < max, "pos + sizeof( U32 ) < max");
   addElement(id, &pos, max);
   // Not strict: the reserved VRF has an empty name.
   KEL_ASSERT_TEXT(pos + sizeof(Kel::U8) <= max, "pos + sizeof( vrfNameLen ) <= max");
   addElement(static_cast<Kel::U8>(vrfNameLen), &pos, max);
   KEL_ASSERT(pos + vrfNameLen == max);
   std::memcpy(pos, vrfName.data(), vrfNameLen);
   pos += vrfNameLen;
   KEL_ASSERT(pos == max);
   auto record = dataRecordFactory();
   record->append(buffer.data(), static_cast<Kel::U32>(max - buffer.data()));
   return record;
}

void VrfTableSm::handleInitialized() {
   KEL_TRACE(traceIpfix, 4, "VrfTableSm::handleInitialized for {}", dataSource_->sourceName());
   initialized_ = true;
   vrfIdMapReactor_ = std::make_unique<VrfIdMapReactor>(vrfIdMapStatus_, this);
}

void VrfTableSm::handleVrfIndexAll() {
   KEL_TRACE(traceIpfix, 4, "VrfTableSm::handleVrfIndexAll for {}", dataSource_->sourceName());
   const auto vrfs = vrfIdMapStatus_->vrfIdToName();
   KEL_TRACE(traceIpfix, 3, "VrfTableSm::map count: {}", vrfs.size());
   dataSource_->dataRecordDelAll();
   dataRecord_.clear();
   dataSource_->dataRecordIs(makeDataRecord(reservedVrfId, Kel::String()));
   for (const auto& [id, name] : vrfs) {
      const DataRecordPtr record = makeDataRecord(id, name);
      dataSource_->dataRecordIs(record);
      dataRecord_.emplace(id, record);
   }
   dataSource_->versionInc(1);
}

void VrfTableSm::handleVrfIndex(VrfId id) {
   KEL_TRACE(traceIpfix, 4, "VrfTableSm::handleVrfIndex for {}", id);
   KEL_ASSERT(initialized());
   if (const auto it = dataRecord_.find(id); it != dataRecord_.end()) {
      dataSource_->dataRecordDel(it->second);
      dataRecord_.erase(it);
   }
   if (const auto name = vrfIdMapStatus_->vrfIdToName(id)) {
      const DataRecordPtr record = makeDataRecord(id, *name);
      update_->addUpdate(setId(), record);
      dataSource_->dataRecordIs(record);
      dataRecord_.emplace(id, record);
      KEL_TRACE(traceIpfix, 3, "vrfIndex: {}, name: {}, record len: {}", id, *name,
                record->dataLen());
   } else {
      KEL_TRACE(traceIpfix, 3, "vrfIndex: {}, name not present. ", id);
   }
   KEL_ASSERT_TEXT((dataRecords() + 1) == dataSource_->dataRecord().size(),
                   "( dataRecords() + 1 ) == dataSource()->dataRecords()");
   dataSource_->versionInc(1);
}

}  // namespace FlowTracking
