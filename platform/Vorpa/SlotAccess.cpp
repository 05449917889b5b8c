#include "Vorpa/SlotAccess.h"

#include <sched.h>

#include <chrono>
#include <cstring>

namespace Vorpa {

namespace {

// How long a reader waits for a slot the writer holds open: the first tries
// spin (a write takes well under a microsecond), the rest give the processor
// to the writer, which may have been preempted in the middle of one, until a
// millisecond has passed. The bound is time, not tries: on a loaded machine
// one sched_yield can cost a whole time slice.
constexpr int spinAttempts = 64;
constexpr std::chrono::milliseconds maxWait{1};

void spin() {
#if defined(__x86_64__) || defined(__i386__)
   __builtin_ia32_pause();
#endif
}

bool validState(Kel::U32 state) {
   return state <= static_cast<Kel::U32>(SlotState::removed);
}

// Runs `read` until the slot's sequence was even and the same before and
// after it, so that what it read belongs to one write.
template <class Read>
ReadStatus readStable(const SlotHeader& h, Patience patience, Read&& read) {
   std::chrono::steady_clock::time_point giveUpAt;
   for (int attempt = 0;; ++attempt) {
      const Kel::U32 before = h.seq.load(std::memory_order_acquire);
      if ((before & 1) == 0) {
         read();
         std::atomic_thread_fence(std::memory_order_acquire);
         if (h.seq.load(std::memory_order_relaxed) == before) {
            return ReadStatus::ok;
         }
      }
      if (patience == Patience::glance) {
         return ReadStatus::busy;
      }
      if (attempt < spinAttempts) {
         spin();
         continue;
      }
      const auto now = std::chrono::steady_clock::now();
      if (attempt == spinAttempts) {
         giveUpAt = now + maxWait;
      } else if (now >= giveUpAt) {
         return ReadStatus::busy;
      }
      sched_yield();
   }
}

}  // namespace

void slotBytesCopy(void* to, const void* from, std::size_t size) {
   std::memcpy(to, from, size);
}

ReadStatus slotPeek(const std::byte* slot, SlotView* view, Patience patience) {
   const auto& h = *reinterpret_cast<const SlotHeader*>(slot);
   Kel::U32 state = 0;
   Kel::U64 keyHash = 0;
   const ReadStatus status = readStable(h, patience, [&] {
      state = h.state;
      keyHash = h.keyHash;
   });
   if (status != ReadStatus::ok) {
      return status;
   }
   if (!validState(state)) {
      return ReadStatus::corrupt;
   }
   *view = SlotView{static_cast<SlotState>(state), keyHash};
   return ReadStatus::ok;
}

ReadStatus slotCopy(const std::byte* slot, const Geometry& g, void* stored, SlotView* view,
                    Patience patience) {
   const auto& h = *reinterpret_cast<const SlotHeader*>(slot);
   Kel::U32 state = 0;
   Kel::U64 keyHash = 0;
   Kel::U64 expected = 0;
   Kel::U64 computed = 0;
   const ReadStatus status = readStable(h, patience, [&] {
      state = h.state;
      keyHash = h.keyHash;
      expected = h.checksum;
      computed = checksumCopy(stored, slot + g.storedOffset, g.stored.size,
                              slotChecksumSeed(state, keyHash));
   });
   if (status != ReadStatus::ok) {
      return status;
   }
   if (!validState(state) || computed != expected) {
      return ReadStatus::corrupt;
   }
   *view = SlotView{static_cast<SlotState>(state), keyHash};
   return ReadStatus::ok;
}

}  // namespace Vorpa
