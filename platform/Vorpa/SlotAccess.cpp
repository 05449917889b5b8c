#include "Vorpa/SlotAccess.h"

#include <sched.h>

#include <cstring>

namespace Vorpa {

namespace {

// How long a reader waits for a slot the writer holds open: the first tries
// spin (a write takes well under a microsecond), the rest give the processor
// to the writer, which may have been preempted in the middle of one.
constexpr int spinAttempts = 64;
constexpr int maxAttempts = 1024;

void backOff(int attempt) {
   if (attempt < spinAttempts) {
#if defined(__x86_64__) || defined(__i386__)
      __builtin_ia32_pause();
#endif
   } else {
      sched_yield();
   }
}

bool validState(Kel::U32 state) {
   return state <= static_cast<Kel::U32>(SlotState::removed);
}

// Runs `read` until the slot's sequence was even and the same before and
// after it, so that what it read belongs to one write.
template <class Read>
ReadStatus readStable(const SlotHeader& h, Patience patience, Read&& read) {
   const int attempts = patience == Patience::wait ? maxAttempts : 1;
   for (int attempt = 0; attempt < attempts; backOff(attempt++)) {
      const Kel::U32 before = h.seq.load(std::memory_order_acquire);
      if (before & 1) {
         continue;
      }
      read();
      std::atomic_thread_fence(std::memory_order_acquire);
      if (h.seq.load(std::memory_order_relaxed) == before) {
         return ReadStatus::ok;
      }
   }
   return ReadStatus::busy;
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
