#pragma once

#include <any>
#include <functional>
#include <map>
#include <typeindex>

#include "Kel/Exception.h"
#include "Kel/Types.h"

namespace Kel {

// Maps type names to factories, so that an agent can create the library's
// managers by name. A factory is registered and looked up with its exact
// signature; asking for another signature is an error, not a cast.
class TypeRegistry {
 public:
   static TypeRegistry& instance();

   template <class Signature>
   void factoryIs(const Name& typeName, std::function<Signature> factory) {
      factories_.insert_or_assign(typeName,
                                  Entry{std::type_index(typeid(Signature)), std::move(factory)});
   }

   template <class Signature>
   std::function<Signature> factory(const Name& typeName) const {
      const auto it = factories_.find(typeName);
      if (it == factories_.end()) {
         throw Exception("No factory registered for type " + typeName);
      }
      if (it->second.signature != std::type_index(typeid(Signature))) {
         throw Exception("Factory for type " + typeName + " has another signature");
      }
      return std::any_cast<std::function<Signature>>(it->second.factory);
   }

   bool hasFactory(const Name& typeName) const { return factories_.contains(typeName); }
   void factoryDel(const Name& typeName) { factories_.erase(typeName); }

 private:
   struct Entry {
      std::type_index signature;
      std::any factory;
   };
   std::map<Name, Entry> factories_;
};

}  // namespace Kel
