#include "Ipfix/MessageCache.h"

namespace FlowTracking {

MessageCache::MessageCache(const OptionsDataContainer& container, Kel::U16 maxSize) {
   Kel::Ptr<const MessageRun> before;
   for (const OptionsDataScope scope : scopeOrder) {
      if (const auto coll = container.data(scope)) {
         before = MessageRunCache::runIs(*coll, maxSize, before);
         run_.push_back(before);
      }
   }
}

void MessageCache::dropStale(const OptionsDataContainer& container, Kel::U16 maxSize) {
   std::size_t current = 0;
   for (const OptionsDataScope scope : scopeOrder) {
      const auto coll = container.data(scope);
      if (!coll) {
         continue;
      }
      if (current == run_.size() || run_[current]->maxSize() != maxSize ||
          !run_[current]->current(*coll)) {
         break;
      }
      ++current;
   }
   run_.resize(current);
}

std::size_t MessageCache::count() const {
   std::size_t n = 0;
   for (const auto& run : run_) {
      n += run->messages().size();
   }
   return run_.empty() || !run_.back()->closing() ? n : n + 1;
}

std::size_t MessageCache::octets() const {
   std::size_t n = 0;
   forEach([&](const MessageWrapper& msgWrap) {
      n += msgWrap.msg->msgHdr()->length();
      return true;
   });
   return n;
}

}  // namespace FlowTracking
