#include "Kel/TypeRegistry.h"

namespace Kel {

TypeRegistry& TypeRegistry::instance() {
   static TypeRegistry registry;
   return registry;
}

}  // namespace Kel
