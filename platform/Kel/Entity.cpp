#include "Kel/Entity.h"

#include <algorithm>

namespace Kel {

// An entity that nobody observes costs the reference count, the flags and one
// pointer.
static_assert(sizeof(Entity) <= 3 * sizeof(void*));

Entity::NotifyScope::~NotifyScope() {
   if (--entity->notifyDepth_ == 0 && entity->hasDetachedSlots_) {
      std::erase(*entity->notifiees_, nullptr);
      entity->hasDetachedSlots_ = false;
   }
}

std::size_t Entity::notifieeCount() const noexcept {
   if (!notifiees_) {
      return 0;
   }
   return notifiees_->size() - std::count(notifiees_->begin(), notifiees_->end(), nullptr);
}

void Entity::attach(NotifieeLink* notifiee) const {
   if (!notifiees_) {
      notifiees_ = std::make_unique<NotifieeList>();
   }
   notifiees_->push_back(notifiee);
}

void Entity::detach(NotifieeLink* notifiee) const {
   if (!notifiees_) {
      return;
   }
   const auto it = std::find(notifiees_->begin(), notifiees_->end(), notifiee);
   if (it == notifiees_->end()) {
      return;
   }
   if (notifyDepth_ > 0) {
      // A notification is walking the list by index: leave the slot in place.
      *it = nullptr;
      hasDetachedSlots_ = true;
   } else {
      notifiees_->erase(it);
   }
}

}  // namespace Kel
