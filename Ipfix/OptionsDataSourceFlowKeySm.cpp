#include "Ipfix/OptionsDataSourceFlowKeySm.h"

#include "FlowTracking/Constants.h"
#include "Kel/Trace.h"

namespace FlowTracking {

namespace {

Kel::TraceHandle traceIpfix("Ipfix");

enum class AddressFamily { none, ipv4, ipv6 };

AddressFamily familyOf(Ipfix::RecordType field) {
   switch (field) {
      case Ipfix::RecordType::sourceIPv4Address:
      case Ipfix::RecordType::destinationIPv4Address:
         return AddressFamily::ipv4;
      case Ipfix::RecordType::sourceIPv6Address:
      case Ipfix::RecordType::destinationIPv6Address:
         return AddressFamily::ipv6;
      default:
         return AddressFamily::none;
   }
}

// The indicator bit of a flow key at `position`, computed in 32 bits and
// sign-extended: positions from 32 on alias onto 0 to 31, and position 31
// sets bits 31 to 63. Collectors of our records have always read them this
// way, so the encoding stays.
Kel::U64 flowKeyBit(Kel::U32 position) {
   const auto bit32 = static_cast<Kel::S32>(Kel::U32{1} << (position % 32));
   return static_cast<Kel::U64>(static_cast<Kel::S64>(bit32));
}

}  // namespace

// Flow groups coming and going.
class FlowKeySm::FtStatusReactor : public HwFlowTracking::FtStatus::Notifiee {
 public:
   FtStatusReactor(const Kel::Ptr<const HwFlowTracking::FtStatus>& s, FlowKeySm* sm) : sm_(sm) {
      notifierIs(s);
   }
   void onHwFgStatus(TemplateId id) override {
      sm_->hwFgStatusIs(id);
      sm_->handleTemplate(id);
   }

 private:
   FlowKeySm* sm_;
};

// A new generation of one flow group's layout.
class FlowKeySm::FgStatusReactor : public HwFlowTracking::FgStatus::Notifiee {
 public:
   FgStatusReactor(const Kel::Ptr<const HwFlowTracking::FgStatus>& fg, FlowKeySm* sm) : sm_(sm) {
      notifierIs(fg);
   }
   void onGenId() override { sm_->handleTemplate(notifier()->templateId()); }

 private:
   FlowKeySm* sm_;
};

FlowKeySm::FlowKeySm(Kel::Ptr<OptionsDataSource> dataSource, Kel::Ptr<OptionsDataUpdate> update,
                     Kel::Ptr<const HwFlowTracking::FtStatus> hwFtStatus)
    : dataSource_(std::move(dataSource)),
      update_(std::move(update)),
      hwFtStatus_(std::move(hwFtStatus)) {
   KEL_ASSERT(dataSource_ && update_ && hwFtStatus_);
   handleInitialized();
}

FlowKeySm::~FlowKeySm() = default;

TemplateId FlowKeySm::setId() {
   return Constants::reservedTemplateId(StaticTemplateId::flowKey);
}

void FlowKeySm::hwFgStatusIs(TemplateId templateId) {
   const auto fg = hwFtStatus_->hwFgStatus(templateId);
   if (!fg) {
      hwFgStatus_.erase(templateId);
      return;
   }
   auto& reactor = hwFgStatus_[templateId];
   if (reactor) {
      reactor->notifierIs(fg);
   } else {
      reactor = std::make_unique<FgStatusReactor>(fg, this);
   }
}

DataRecordPtr FlowKeySm::makeDataRecord(TemplateId templateId) const {
   const auto fg = hwFtStatus_->hwFgStatus(templateId);
   if (!fg) {
      return nullptr;
   }
   Kel::U64 indicator = 0;
   AddressFamily family = AddressFamily::none;
   for (const auto& [position, entry] : fg->templateEntry()) {
      const AddressFamily fieldFamily = familyOf(entry->fieldId());
      if (fieldFamily != AddressFamily::none) {
         if (family != AddressFamily::none && family != fieldFamily) {
            KEL_TRACE(traceIpfix, 3, "AF mismatch at field: {}", entry->fieldId());
            return nullptr;
         }
         family = fieldFamily;
      }
      if (entry->flowKey()) {
         KEL_TRACE(traceIpfix, 5, "TemplateId: {}, Field: {} is flowKey {}", templateId,
                   entry->fieldId(), entry->position());
         indicator |= flowKeyBit(entry->position());
      }
   }
   KEL_TRACE(traceIpfix, 3, "templateId: {}, flowKey: 0x{:x}", templateId, indicator);
   Kel::U8 bytes[sizeof(Kel::U16) + sizeof(Kel::U64)];
   Nivel::storeNet(bytes, templateId);
   Nivel::storeNet(bytes + sizeof(Kel::U16), indicator);
   auto record = dataRecordFactory();
   record->append(bytes, sizeof bytes);
   return record;
}

void FlowKeySm::handleTemplate(TemplateId templateId) {
   KEL_TRACE(traceIpfix, 4, "FlowKeySm::handleTemplate for {}", templateId);
   KEL_ASSERT(initialized());
   if (const auto it = dataRecord_.find(templateId); it != dataRecord_.end()) {
      dataSource_->dataRecordDel(it->second);
      dataRecord_.erase(it);
   }
   const DataRecordPtr record = makeDataRecord(templateId);
   if (!hwFtStatus_->hwFgStatus(templateId)) {
      KEL_TRACE(traceIpfix, 3, "templateId: {}, not present", templateId);
   } else if (!record) {
      KEL_TRACE(traceIpfix, 3, "templateId: {}, NO record (incomplete template)", templateId);
   } else {
      KEL_TRACE(traceIpfix, 3, "templateId: {}, record len: {}", templateId, record->dataLen());
      update_->addUpdate(setId(), record);
      dataSource_->dataRecordIs(record);
      dataRecord_[templateId] = record;
   }
   checkInvariant();
   dataSource_->versionInc(1);
}

void FlowKeySm::handleInitialized() {
   KEL_TRACE(traceIpfix, 4, "FlowKeySm::handleInitialized for {}", hwFtStatus_->name());
   initialized_ = true;
   dataSource_->dataRecordDelAll();
   for (const auto& [id, fg] : hwFtStatus_->hwFgStatus()) {
      hwFgStatusIs(id);
      if (const DataRecordPtr record = makeDataRecord(id)) {
         dataSource_->dataRecordIs(record);
         dataRecord_[id] = record;
      } else {
         KEL_TRACE(traceIpfix, 3, "templateId: {}, NO record (incomplete template)", id);
      }
   }
   ftStatusReactor_ = std::make_unique<FtStatusReactor>(hwFtStatus_, this);
   KEL_TRACE(traceIpfix, 3, "template count: {}", dataRecord_.size());
   checkInvariant();
   dataSource_->versionInc(1);
}

void FlowKeySm::checkInvariant() const {
   KEL_ASSERT_TEXT(dataRecords() == dataSource_->dataRecord().size(),
                   "dataRecords() == dataSource()->dataRecords()");
}

}  // namespace FlowTracking
