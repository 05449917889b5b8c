#pragma once

#include <atomic>
#include <cstddef>

#include "Vorpa/Error.h"
#include "Vorpa/Layout.h"

// One slot under its sequence lock. The writer opens a slot (odd sequence),
// changes it and closes it (even sequence, fresh checksum); a reader copies a
// slot and keeps the copy only if the sequence was even and unchanged around
// it, then checks the checksum. A reader never waits for the writer beyond a
// bounded time (about a millisecond per scan).
namespace Vorpa {

inline SlotHeader& slotHeaderOf(std::byte* slot) {
   return *reinterpret_cast<SlotHeader*>(slot);
}

inline void slotOpen(std::byte* slot) {
   SlotHeader& h = slotHeaderOf(slot);
   h.seq.store(h.seq.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
   // Readers that see any of the following stores also see the odd sequence.
   std::atomic_thread_fence(std::memory_order_release);
}

inline bool slotIsOpen(std::byte* slot) {
   return slotHeaderOf(slot).seq.load(std::memory_order_relaxed) & 1;
}

inline Kel::U64 slotComputeChecksum(const std::byte* slot, const Geometry& g) {
   const auto& h = *reinterpret_cast<const SlotHeader*>(slot);
   return slotChecksum(h.state, h.keyHash, slot + g.storedOffset, g.stored.size);
}

inline void slotClose(std::byte* slot, const Geometry& g) {
   SlotHeader& h = slotHeaderOf(slot);
   h.checksum = slotComputeChecksum(slot, g);
   h.seq.store(h.seq.load(std::memory_order_relaxed) + 1, std::memory_order_release);
}

// Copies a value into or out of a slot. Out of line on purpose: for a large
// copy of a size known at compile time the compiler emits `rep movs`, which
// is several times slower here than the C library's vectorised memcpy.
void slotBytesCopy(void* to, const void* from, std::size_t size);

// How long a reader waits for a slot the writer holds open: its full share,
// or one look. A writer holds one slot at a time, so a scan that met a slot
// held open for the full wait looks only once at the next ones: a writer that
// died, or a damaged segment, costs one wait per scan, not one per slot.
enum class Patience { wait, glance };

// What a reader learns of a slot before copying it.
struct SlotView {
   SlotState state;
   Kel::U64 keyHash;
};

// State and key hash only, for probing: cheap, but not checked against the
// checksum. corrupt for a state that cannot be.
ReadStatus slotPeek(const std::byte* slot, SlotView* view, Patience patience = Patience::wait);

// A consistent copy of the stored object into `stored` (the geometry's size),
// checked against the checksum. The copy holds the slot only when the result
// is ok.
ReadStatus slotCopy(const std::byte* slot, const Geometry& g, void* stored, SlotView* view,
                    Patience patience = Patience::wait);

}  // namespace Vorpa
