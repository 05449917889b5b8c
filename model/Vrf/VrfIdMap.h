#pragma once

#include <array>
#include <functional>
#include <map>
#include <optional>
#include <string_view>

#include "Kel/Entity.h"
#include "Vorpa/TableReader.h"

// The VRF id map: VRF ids to VRF names, kept by the VRF library in a
// shared-memory table that one process writes and others read. The export
// library reads it through Status.
namespace Vrf::VrfIdMap {

using VrfId = Kel::U32;

// A VRF name stored inline, so that the map's entries are plain values.
class VrfName {
 public:
   static constexpr Kel::U32 maxLength = 100;

   VrfName() = default;
   // Throws Kel::RangeException for a name longer than maxLength octets.
   explicit VrfName(std::string_view name);

   Kel::U32 bytes() const { return length_; }
   Kel::String string() const { return Kel::String(octets_.data(), length_); }

   // A reader refuses an entry whose length does not fit its array.
   bool vorpaValid() const { return length_ <= maxLength; }
   bool operator==(const VrfName& other) const { return string() == other.string(); }

 private:
   Kel::U8 length_ = 0;
   std::array<char, maxLength> octets_{};
};

using Table = Vorpa::Table<VrfId, VrfName>;
using Reader = Vorpa::TableReader<VrfId, VrfName>;

// A read-only view of the map. Changes that the writer made become
// notifications when sync() reads them from the table's change ring:
// onVrfIdToName(id) for one VRF added, renamed or removed, onVrfIdToNameAll()
// when the whole map changed or the changes could not be followed.
class Status : public Kel::Entity {
 public:
   class Notifiee : public Kel::BaseNotifiee<Status> {
    public:
      virtual void onVrfIdToName(VrfId) {}
      virtual void onVrfIdToNameAll() {}
   };

   explicit Status(Reader reader);

   // The name of `id`, or nullopt when the map has none (or its entry is
   // corrupt, which is counted).
   std::optional<Kel::String> vrfIdToName(VrfId id) const;
   // Every VRF, by id.
   std::map<VrfId, Kel::String> vrfIdToName() const;

   // Reads the writer's changes since the last call and announces them.
   void sync();

 private:
   Reader reader_;
   Kel::U64 cursor_;
};

Kel::Ptr<Status> statusFactory(Reader reader);

}  // namespace Vrf::VrfIdMap
