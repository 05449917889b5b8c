#pragma once

#include <atomic>
#include <optional>

#include "Kel/Types.h"

namespace Vorpa {

// Sleeps while `word` holds `expected`, across processes (the word lies in
// shared memory, so no private futex). Returns when woken, when the word no
// longer holds `expected`, when the timeout (none: no limit) passes or when a
// signal arrives: callers look at what they wait for again.
void futexWait(const std::atomic<Kel::U32>& word, Kel::U32 expected,
               std::optional<Kel::Seconds> timeout);
void futexWakeAll(const std::atomic<Kel::U32>& word);

}  // namespace Vorpa
