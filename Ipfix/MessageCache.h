#pragma once

#include <cstddef>
#include <vector>

#include "Ipfix/MessageRun.h"

namespace FlowTracking {

// The full tables of one exporter as finished messages: the run of each
// scope's collection of its container, global scope first, each continuing
// the message the one before left open, then the last run's open message.
// Global first is what lets every exporter of a message size share the
// interface and VRF tables' messages, whatever its tracker; only the runs
// after them differ between trackers.
class MessageCache {
 public:
   // The scopes in the order their records are sent.
   static constexpr OptionsDataScope scopeOrder[] = {OptionsDataScope::scopeGlobal,
                                                     OptionsDataScope::scopeTracker};

   MessageCache() = default;
   // Takes the runs in use for `container`'s collections at `maxSize`,
   // building those that are missing or out of date.
   MessageCache(const OptionsDataContainer& container, Kel::U16 maxSize);

   // Lets go at once of the runs that no longer hold `container`'s records at
   // `maxSize`, and of the runs after them, which continue their messages:
   // so a stale run is freed as soon as every exporter has seen the change,
   // not at each one's next transmission, while the runs still current stay
   // for the next cache to take.
   void dropStale(const OptionsDataContainer& container, Kel::U16 maxSize);

   // Calls `send` with each message, in order, while it returns true. The
   // messages stay alive while it runs, whatever `send` does to this cache.
   template <class Send>
   void forEach(Send&& send) const;
   std::size_t count() const;
   // Octets of the messages as they go on the wire.
   std::size_t octets() const;

 private:
   std::vector<Kel::Ptr<const MessageRun>> run_;
};

template <class Send>
void MessageCache::forEach(Send&& send) const {
   const std::vector<Kel::Ptr<const MessageRun>> runs = run_;
   for (const auto& run : runs) {
      for (const auto& msgWrap : run->messages()) {
         if (!send(*msgWrap)) {
            return;
         }
      }
   }
   if (!runs.empty() && runs.back()->closing()) {
      send(*runs.back()->closing());
   }
}

}  // namespace FlowTracking
