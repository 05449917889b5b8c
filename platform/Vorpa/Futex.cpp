#include "Vorpa/Futex.h"

#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cmath>
#include <ctime>

namespace Vorpa {

static_assert(sizeof(std::atomic<Kel::U32>) == sizeof(Kel::U32));

namespace {

long futex(const std::atomic<Kel::U32>& word, int op, Kel::U32 value, const timespec* timeout) {
   // The kernel only reads the word for FUTEX_WAIT, so a reader sleeps on its
   // read-only mapping of the segment.
   return syscall(SYS_futex, reinterpret_cast<const Kel::U32*>(&word), op, value, timeout, nullptr,
                  0);
}

}  // namespace

void futexWait(const std::atomic<Kel::U32>& word, Kel::U32 expected,
               std::optional<Kel::Seconds> timeout) {
   timespec ts{};
   if (timeout) {
      const Kel::Seconds t = std::max(*timeout, 0.0);
      ts.tv_sec = static_cast<time_t>(std::floor(t));
      ts.tv_nsec = static_cast<long>((t - std::floor(t)) * 1e9);
   }
   futex(word, FUTEX_WAIT, expected, timeout ? &ts : nullptr);
}

void futexWakeAll(const std::atomic<Kel::U32>& word) {
   futex(word, FUTEX_WAKE, INT_MAX, nullptr);
}

}  // namespace Vorpa
