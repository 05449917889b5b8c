#pragma once

#include "Kel/Types.h"

namespace Kel {

// Where the framework reads time. The process uses the system clocks; tests
// install a ManualClock and move time themselves.
class ClockSource {
 public:
   virtual ~ClockSource() = default;
   // Monotonic seconds, comparable across the processes of the machine.
   virtual Seconds monotonic() const = 0;
   // Wall-clock seconds since the Unix epoch.
   virtual Seconds utc() const = 0;
   // Whole wall-clock seconds since the Unix epoch, which may lag utc() by a
   // clock tick: cheaper where a second is the unit, as in message headers.
   virtual U64 utcSeconds() const { return static_cast<U64>(utc()); }
   // Moves a virtual clock forward to `monotonicTime`; false for a real clock,
   // which the caller must wait for instead.
   virtual bool advanceTo(Seconds monotonicTime) = 0;
   // True when time moves only through advanceTo().
   virtual bool isVirtual() const = 0;
};

class SystemClock final : public ClockSource {
 public:
   Seconds monotonic() const override;
   Seconds utc() const override;
   U64 utcSeconds() const override;
   bool advanceTo(Seconds) override { return false; }
   bool isVirtual() const override { return false; }
};

// Virtual time for tests: starts at the given instants and moves only when told.
class ManualClock final : public ClockSource {
 public:
   explicit ManualClock(Seconds monotonicStart = 1000.0, Seconds utcStart = 1.7e9)
       : monotonic_(monotonicStart), utcOffset_(utcStart - monotonicStart) {}
   Seconds monotonic() const override { return monotonic_; }
   Seconds utc() const override { return monotonic_ + utcOffset_; }
   bool advanceTo(Seconds monotonicTime) override;
   bool isVirtual() const override { return true; }
   void advance(Seconds delta) { advanceTo(monotonic_ + delta); }

 private:
   Seconds monotonic_;
   Seconds utcOffset_;
};

class System {
 public:
   static Seconds currentTime() { return clock_->monotonic(); }
   static Seconds currentTimeUtc() { return clock_->utc(); }
   static U64 currentTimeUtcSeconds() { return clock_->utcSeconds(); }
   static ClockSource& clockSource() { return *clock_; }
   // Installs `clock` (nullptr restores the system clock). The caller keeps it
   // alive while installed.
   static void clockSourceIs(ClockSource* clock);

 private:
   static ClockSource* clock_;
};

// Installs a ManualClock for the lifetime of the guard.
class ScopedManualClock {
 public:
   explicit ScopedManualClock(Seconds monotonicStart = 1000.0, Seconds utcStart = 1.7e9);
   ~ScopedManualClock();
   ScopedManualClock(const ScopedManualClock&) = delete;
   ScopedManualClock& operator=(const ScopedManualClock&) = delete;
   ManualClock& clock() { return clock_; }
   void advance(Seconds delta) { clock_.advance(delta); }

 private:
   ManualClock clock_;
   ClockSource* previous_;
};

}  // namespace Kel
