#pragma once

#include <cstddef>
#include <map>
#include <memory>
#include <tuple>
#include <type_traits>
#include <utility>
#include <vector>

#include "Kel/Ptr.h"

namespace Kel {

// What an entity's notifiee list points at; every BaseNotifiee<E> is one.
class NotifieeLink {
 protected:
   NotifieeLink() = default;
   ~NotifieeLink() = default;
};

// An object with attributes whose changes are announced, synchronously inside
// the mutator, to the notifiees attached to it. Each entity class declares a
// nested `Notifiee` (derived from BaseNotifiee<ThatEntity>) with one virtual
// `onXxx()` per attribute, `onXxx(key)` per keyed collection.
//
// Re-entrancy: while a notification runs, a notifiee may detach itself or any
// other notifiee (detached ones are not called afterwards), attach new ones
// (they are first called in the next notification, never in the current one),
// destroy the last reference to the entity (it lives until the notification
// ends), or mutate the entity again (a nested notification).
class Entity : public PtrInterface {
 public:
   bool hasNotificationActive() const noexcept { return notificationActive_; }
   void hasNotificationActiveIs(bool active) noexcept { notificationActive_ = active; }
   std::size_t notifieeCount() const noexcept;

 protected:
   Entity() = default;

   template <class N, class... Params, class... Args>
   void notify(void (N::*onChange)(Params...), const Args&... args) const;

   // Stores `value` and notifies only when it differs from the current one.
   template <class T, class U, class N>
   bool attributeIs(T& attribute, U&& value, void (N::*onChange)()) {
      if (attribute == value) {
         return false;
      }
      attribute = std::forward<U>(value);
      notify(onChange);
      return true;
   }

   // Keyed-collection mutators: change the entry, then notify with its key.
   template <class K, class V, class N, class KeyParam>
   void entryIs(std::map<K, V>& collection, const K& key, V value, void (N::*onChange)(KeyParam)) {
      auto [it, inserted] = collection.try_emplace(key, value);
      if (!inserted) {
         if (it->second == value) {
            return;
         }
         it->second = std::move(value);
      }
      notify(onChange, key);
   }
   // Returns the entry under `key`, first creating it with `make()` (and
   // notifying) when there is none.
   template <class K, class T, class N, class KeyParam, class Make>
   Ptr<T> entryFindOrCreate(std::map<K, Ptr<T>>& collection, const K& key, Make&& make,
                            void (N::*onChange)(KeyParam)) {
      if (const auto it = collection.find(key); it != collection.end()) {
         return it->second;
      }
      Ptr<T> created = make();
      collection.emplace(key, created);
      notify(onChange, key);
      return created;
   }
   template <class K, class V, class N, class KeyParam>
   void entryDel(std::map<K, V>& collection, const K& key, void (N::*onChange)(KeyParam)) {
      auto it = collection.find(key);
      if (it == collection.end()) {
         return;
      }
      const K removed = it->first;
      collection.erase(it);
      notify(onChange, removed);
   }
   template <class K, class V, class N, class KeyParam>
   void entryDelAll(std::map<K, V>& collection, void (N::*onChange)(KeyParam)) {
      while (!collection.empty()) {
         entryDel(collection, collection.begin()->first, onChange);
      }
   }

 private:
   template <class>
   friend class BaseNotifiee;

   void attach(NotifieeLink* notifiee) const;
   void detach(NotifieeLink* notifiee) const;

   struct NotifyScope;
   using NotifieeList = std::vector<NotifieeLink*>;

   // The small members first, in the padding after the reference count, and
   // the list made with the first notifiee: most entities, every record of a
   // table among them, are never observed, and a table holds tens of
   // thousands. Nested notifications would exhaust the stack long before the
   // depth count wraps.
   mutable U16 notifyDepth_ = 0;
   mutable bool hasDetachedSlots_ = false;
   bool notificationActive_ = false;
   mutable std::unique_ptr<NotifieeList> notifiees_;
};

// Keeps an entity alive and its list consistent for one notification round.
struct Entity::NotifyScope {
   explicit NotifyScope(const Entity* e) : entity(e), keepAlive(e->references() ? e : nullptr) {
      ++entity->notifyDepth_;
   }
   ~NotifyScope();
   NotifyScope(const NotifyScope&) = delete;
   NotifyScope& operator=(const NotifyScope&) = delete;

   const Entity* entity;
   Ptr<const Entity> keepAlive;
};

template <class N, class... Params, class... Args>
void Entity::notify(void (N::*onChange)(Params...), const Args&... args) const {
   if (!notificationActive_ || !notifiees_ || notifiees_->empty()) {
      return;
   }
   // The arguments are copied: a key may refer into a collection that a
   // notifiee changes.
   const std::tuple<std::decay_t<Args>...> held(args...);
   NotifyScope scope(this);
   // The list lives as long as the entity; notifiees attached meanwhile may
   // move its elements, so they are read by index.
   const NotifieeList& list = *notifiees_;
   const std::size_t attachedBefore = list.size();
   for (std::size_t i = 0; i < attachedBefore; ++i) {
      if (NotifieeLink* link = list[i]) {
         std::apply([&](const auto&... a) { (static_cast<N*>(link)->*onChange)(a...); }, held);
      }
   }
}

// The entry of a keyed collection of pointers, or null.
template <class Map>
typename Map::mapped_type findEntry(const Map& collection, const typename Map::key_type& key) {
   const auto it = collection.find(key);
   return it == collection.end() ? nullptr : it->second;
}

// Creates an entity with notification already switched on, as every entity
// that others observe must be.
template <class T, class... Args>
Ptr<T> makeActive(Args&&... args) {
   Ptr<T> entity = makePtr<T>(std::forward<Args>(args)...);
   entity->hasNotificationActiveIs(true);
   return entity;
}

// Base of an entity's nested Notifiee. A reactor derives from E::Notifiee,
// points itself at its notifier with notifierIs() once it is fully built, and
// is detached when destroyed. It holds a counted pointer to the notifier,
// read-only: observing an entity never needs to change it.
template <class E>
class BaseNotifiee : public NotifieeLink {
 public:
   BaseNotifiee() = default;
   BaseNotifiee(const BaseNotifiee&) = delete;
   BaseNotifiee& operator=(const BaseNotifiee&) = delete;
   virtual ~BaseNotifiee() { notifierIs(nullptr); }

   const Ptr<const E>& notifier() const noexcept { return notifier_; }

   void notifierIs(const Ptr<const E>& notifier) {
      if (notifier == notifier_) {
         return;
      }
      if (notifier_) {
         asEntity(notifier_)->detach(this);
      }
      notifier_ = notifier;
      if (notifier_) {
         asEntity(notifier_)->attach(this);
      }
   }

 private:
   static const Entity* asEntity(const Ptr<const E>& p) { return p.ptr(); }
   Ptr<const E> notifier_;
};

}  // namespace Kel
