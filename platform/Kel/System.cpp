#include "Kel/System.h"

#include <time.h>

#include "Kel/Exception.h"

namespace Kel {

namespace {

Seconds readClock(clockid_t id) {
   timespec ts{};
   clock_gettime(id, &ts);
   return static_cast<Seconds>(ts.tv_sec) + static_cast<Seconds>(ts.tv_nsec) * 1e-9;
}

SystemClock systemClock;

}  // namespace

ClockSource* System::clock_ = &systemClock;

Seconds SystemClock::monotonic() const {
   return readClock(CLOCK_MONOTONIC);
}

Seconds SystemClock::utc() const {
   return readClock(CLOCK_REALTIME);
}

U64 SystemClock::utcSeconds() const {
   // The coarse clock is read without asking the hardware: a tenth of the
   // cost, and within a tick of the precise one.
   timespec ts{};
   clock_gettime(CLOCK_REALTIME_COARSE, &ts);
   return static_cast<U64>(ts.tv_sec);
}

bool ManualClock::advanceTo(Seconds monotonicTime) {
   KEL_ASSERT(monotonicTime >= monotonic_);
   monotonic_ = monotonicTime;
   return true;
}

void System::clockSourceIs(ClockSource* clock) {
   clock_ = clock ? clock : &systemClock;
}

ScopedManualClock::ScopedManualClock(Seconds monotonicStart, Seconds utcStart)
    : clock_(monotonicStart, utcStart), previous_(&System::clockSource()) {
   System::clockSourceIs(&clock_);
}

ScopedManualClock::~ScopedManualClock() {
   System::clockSourceIs(previous_);
}

}  // namespace Kel
