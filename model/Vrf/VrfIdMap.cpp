#include "Vrf/VrfIdMap.h"

#include <cstring>
#include <vector>

#include "Kel/Trace.h"

namespace Vrf::VrfIdMap {

namespace {
Kel::TraceHandle traceVrf("Vrf");
}

VrfName::VrfName(std::string_view name) {
   if (name.size() > maxLength) {
      throw Kel::RangeException("VrfName::bytes > VrfName::maxLength not allowed");
   }
   length_ = static_cast<Kel::U8>(name.size());
   std::memcpy(octets_.data(), name.data(), name.size());
}

Status::Status(Reader reader) : reader_(std::move(reader)), cursor_(reader_.changeSeq()) {}

std::optional<Kel::String> Status::vrfIdToName(VrfId id) const {
   VrfName name;
   switch (reader_.entry(id, name)) {
      case Vorpa::ReadStatus::ok:
         return name.string();
      case Vorpa::ReadStatus::notFound:
         return std::nullopt;
      default:
         KEL_TRACE(traceVrf, 1, "VRF id map entry {} is unreadable", id);
         return std::nullopt;
   }
}

std::map<VrfId, Kel::String> Status::vrfIdToName() const {
   std::map<VrfId, Kel::String> all;
   const Vorpa::ScanResult scan =
       reader_.forEach([&](VrfId id, const VrfName& name) { all.emplace(id, name.string()); });
   if (scan.corrupt + scan.busy > 0) {
      KEL_TRACE(traceVrf, 1, "VRF id map: {} corrupt and {} busy entries skipped", scan.corrupt,
                scan.busy);
   }
   return all;
}

void Status::sync() {
   std::vector<Vorpa::Change<VrfId>> changes;
   const Vorpa::FollowStatus status = reader_.changesSince(cursor_, changes);
   bool whole = status != Vorpa::FollowStatus::ok;
   for (const auto& change : changes) {
      whole = whole || change.kind == Vorpa::ChangeKind::allRemoved;
   }
   if (whole) {
      notify(&Notifiee::onVrfIdToNameAll);
      return;
   }
   for (const auto& change : changes) {
      notify(&Notifiee::onVrfIdToName, change.key);
   }
}

Kel::Ptr<Status> statusFactory(Reader reader) {
   return Kel::makeActive<Status>(std::move(reader));
}

}  // namespace Vrf::VrfIdMap
