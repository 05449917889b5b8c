#pragma once

#include <map>
#include <optional>

#include "Kel/Entity.h"
#include "Nivel/Addr.h"

namespace FlowTracking {

// Interfaces by name and by index, both ways. The writer keeps the two
// directions consistent; readers watch either.
class IntfIndexMap : public Kel::Entity {
 public:
   class Notifiee : public Kel::BaseNotifiee<IntfIndexMap> {
    public:
      virtual void onIntfIndex(const Nivel::IntfId&) {}
      virtual void onIntfId(Kel::U32) {}
   };

   // Indexes that stand for no interface of the map (multicast, discard,
   // CPU, unknown) and that readers describe on their own.
   static constexpr Kel::U32 numReservedIntfs() { return 4; }

   const std::map<Nivel::IntfId, Kel::U32>& intfIndex() const { return intfIndex_; }
   std::optional<Kel::U32> intfIndex(const Nivel::IntfId& id) const {
      const auto it = intfIndex_.find(id);
      return it == intfIndex_.end() ? std::nullopt : std::optional<Kel::U32>(it->second);
   }
   void intfIndexIs(const Nivel::IntfId& id, Kel::U32 index) {
      entryIs(intfIndex_, id, index, &Notifiee::onIntfIndex);
   }
   void intfIndexDel(const Nivel::IntfId& id) { entryDel(intfIndex_, id, &Notifiee::onIntfIndex); }
   void intfIndexDelAll() { entryDelAll(intfIndex_, &Notifiee::onIntfIndex); }

   const std::map<Kel::U32, Nivel::IntfId>& intfId() const { return intfId_; }
   std::optional<Nivel::IntfId> intfId(Kel::U32 index) const {
      const auto it = intfId_.find(index);
      return it == intfId_.end() ? std::nullopt : std::optional<Nivel::IntfId>(it->second);
   }
   void intfIdIs(Kel::U32 index, const Nivel::IntfId& id) {
      entryIs(intfId_, index, id, &Notifiee::onIntfId);
   }
   void intfIdDel(Kel::U32 index) { entryDel(intfId_, index, &Notifiee::onIntfId); }
   void intfIdDelAll() { entryDelAll(intfId_, &Notifiee::onIntfId); }

 private:
   std::map<Nivel::IntfId, Kel::U32> intfIndex_;
   std::map<Kel::U32, Nivel::IntfId> intfId_;
};

}  // namespace FlowTracking
