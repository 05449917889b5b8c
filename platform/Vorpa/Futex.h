#pragma once

#include <atomic>
#include <optional>

#include "Kel/Types.h"

namespace Vorpa {

enum class FutexWait { woken, valueChanged, timedOut, interrupted };

// Sleeps while `word` holds `expected`, across processes (the word lies in
// shared memory, so no private futex). No timeout waits until woken.
FutexWait futexWait(const std::atomic<Kel::U32>& word, Kel::U32 expected,
                    std::optional<Kel::Seconds> timeout);
void futexWakeAll(const std::atomic<Kel::U32>& word);

}  // namespace Vorpa
