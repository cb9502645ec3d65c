// Clock.h: the library's one source of time, with a seam for tests.
//
// Two clocks are used by the library:
//   - calendar time in whole seconds since 1970 (Win32's `_time64`),
//     for rate limits, logs and idle checks counted in seconds;
//   - a 32-bit millisecond tick count (Win32's `GetTickCount`), which is
//     monotonic and wraps at 2^32, for time-outs and pacing; the same clock
//     in microseconds (64-bit, never wraps) where whole milliseconds are too
//     coarse (the multi-writer's limit on what one slot lets out).
// Timed sleeps the library performs also go through here (SleepMs), so a test
// can install a ClockSource that decides what "sleeping" means.
//
// Thread rules: every function may be called from any thread. Installing a
// source is meant for test set-up: do it while no library thread is reading
// the clock, and restore the system source (nullptr) before the test ends.
#pragma once

#include "platform/Export.h"

#include <atomic>
#include <cstdint>
#include <ctime>
#include <mutex>

namespace shared::platform {

// What a test replaces. The default implementation reads the system clocks.
class SHAREDLIB_API ClockSource {
public:
  virtual ~ClockSource();
  virtual std::int64_t NowSeconds() = 0;
  virtual std::uint32_t TickCount() = 0;
  virtual std::uint64_t TickMicros() = 0;
  virtual void SleepMs(std::uint32_t ms) = 0;
  virtual void SleepMicros(std::uint32_t us) = 0;
};

// Calendar seconds since 1970-01-01 UTC.
SHAREDLIB_API std::int64_t NowSeconds();
// Milliseconds on a monotonic clock, wrapping at 2^32.
SHAREDLIB_API std::uint32_t TickCount();
// Microseconds on the same clock; TickCount is this / 1000, wrapped.
SHAREDLIB_API std::uint64_t TickMicros();
// Blocks the calling thread for about ms milliseconds (0 yields).
SHAREDLIB_API void SleepMs(std::uint32_t ms);
// The same for a short wait that whole milliseconds would round badly.
SHAREDLIB_API void SleepMicros(std::uint32_t us);
// Breaks seconds into local calendar fields; false when out of range.
SHAREDLIB_API bool LocalTime(std::int64_t seconds, std::tm *out);

// Installs source as the clock of the whole process; nullptr restores the
// system clock. The caller keeps ownership and keeps it alive while installed.
SHAREDLIB_API void SetClockSource(ClockSource *source);

// A hand-driven clock for tests. Time moves only through Advance/Set or, when
// sleepAdvances is true, by the amount every SleepMs or SleepMicros asks for (so a thread
// looping on timed sleeps makes progress without real waiting).
class SHAREDLIB_API ManualClock : public ClockSource {
public:
  explicit ManualClock(std::int64_t seconds = 1700000000, std::uint32_t tick = 1000,
                       bool sleepAdvances = true);
  std::int64_t NowSeconds() override;
  std::uint32_t TickCount() override;
  std::uint64_t TickMicros() override;
  void SleepMs(std::uint32_t ms) override;
  void SleepMicros(std::uint32_t us) override;

  // Moves both clocks forward by ms milliseconds (calendar seconds follow
  // whole seconds of accumulated milliseconds).
  void Advance(std::uint32_t ms);
  // Moves the monotonic clock forward by us microseconds; the tick count
  // follows whole milliseconds, the calendar is left alone.
  void AdvanceMicros(std::uint64_t us);
  void SetSeconds(std::int64_t seconds);
  // Sets the tick count; the microseconds move by the same signed distance.
  void SetTick(std::uint32_t tick);

private:
  std::uint32_t TickLocked() const;  // mutex_ held

  std::mutex mutex_;
  std::int64_t seconds_;              // guarded by mutex_
  std::uint32_t subSecondMs_;         // guarded by mutex_: ms not yet carried into seconds_
  std::uint64_t micros_;              // guarded by mutex_; the tick count is micros_ / 1000 + tickOffset_
  std::uint32_t const tickOffset_;
  bool const sleepAdvances_;
};

// Installs a clock for the lifetime of a scope (tests).
class ScopedClockSource {
public:
  explicit ScopedClockSource(ClockSource &source) { SetClockSource(&source); }
  ~ScopedClockSource() { SetClockSource(nullptr); }
  ScopedClockSource(ScopedClockSource const &) = delete;
  ScopedClockSource &operator=(ScopedClockSource const &) = delete;
};

}  // namespace shared::platform
