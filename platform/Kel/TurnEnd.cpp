#include "Kel/TurnEnd.h"

#include <algorithm>
#include <vector>

namespace Kel {

namespace {

std::vector<TurnEndHook>& hooks() {
   static std::vector<TurnEndHook> instance;
   return instance;
}

}  // namespace

void turnEndHookIs(TurnEndHook hook) {
   if (std::find(hooks().begin(), hooks().end(), hook) == hooks().end()) {
      hooks().push_back(hook);
   }
}

void turnEnd() {
   for (const TurnEndHook hook : hooks()) {
      hook();
   }
}

}  // namespace Kel
