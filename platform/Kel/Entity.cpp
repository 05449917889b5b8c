#include "Kel/Entity.h"

#include <algorithm>

namespace Kel {

Entity::NotifyScope::~NotifyScope() {
   if (--entity->notifyDepth_ == 0 && entity->hasDetachedSlots_) {
      std::erase(entity->notifiees_, nullptr);
      entity->hasDetachedSlots_ = false;
   }
}

std::size_t Entity::notifieeCount() const noexcept {
   return notifiees_.size() - std::count(notifiees_.begin(), notifiees_.end(), nullptr);
}

void Entity::attach(NotifieeLink* notifiee) const {
   notifiees_.push_back(notifiee);
}

void Entity::detach(NotifieeLink* notifiee) const {
   const auto it = std::find(notifiees_.begin(), notifiees_.end(), notifiee);
   if (it == notifiees_.end()) {
      return;
   }
   if (notifyDepth_ > 0) {
      // A notification is walking the list by index: leave the slot in place.
      *it = nullptr;
      hasDetachedSlots_ = true;
   } else {
      notifiees_.erase(it);
   }
}

}  // namespace Kel
