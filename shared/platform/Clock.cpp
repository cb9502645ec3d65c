#include "platform/Clock.h"
#include "platform/SystemTime.h"

#include <chrono>
#include <thread>

namespace shared::platform {

namespace {

std::uint64_t SteadyMicros() {
  using namespace std::chrono;
  return static_cast<std::uint64_t>(duration_cast<microseconds>(steady_clock::now().time_since_epoch()).count());
}

// No virtual calls inside: a call on this object may come when the process
// is out of descriptors, where a sanitizer's first check of a new dynamic
// type could not complete.
class SystemClock final : public ClockSource {
public:
  std::int64_t NowSeconds() override { return CalendarSeconds(); }
  std::uint32_t TickCount() override { return static_cast<std::uint32_t>(SteadyMicros() / 1000); }
  std::uint64_t TickMicros() override { return SteadyMicros(); }
  void SleepMs(std::uint32_t ms) override {
    if (ms == 0)
      std::this_thread::yield();
    else
      std::this_thread::sleep_for(std::chrono::milliseconds(ms));
  }
  void SleepMicros(std::uint32_t us) override {
    if (us == 0)
      std::this_thread::yield();
    else
      std::this_thread::sleep_for(std::chrono::microseconds(us));
  }
};

SystemClock g_systemClock;
// Far enough from 0 that SetTick can move the microseconds back by any
// 32-bit distance of milliseconds without running below zero.
constexpr std::uint64_t kMicrosStart = 4'000'000'000'000;  // a whole ms
std::atomic<ClockSource *> g_clock{&g_systemClock};

}  // namespace

ClockSource::~ClockSource() = default;

std::int64_t NowSeconds() { return g_clock.load(std::memory_order_acquire)->NowSeconds(); }
std::uint32_t TickCount() { return g_clock.load(std::memory_order_acquire)->TickCount(); }
std::uint64_t TickMicros() { return g_clock.load(std::memory_order_acquire)->TickMicros(); }
void SleepMs(std::uint32_t ms) { g_clock.load(std::memory_order_acquire)->SleepMs(ms); }
void SleepMicros(std::uint32_t us) { g_clock.load(std::memory_order_acquire)->SleepMicros(us); }

void SetClockSource(ClockSource *source) {
  g_clock.store(source ? source : &g_systemClock, std::memory_order_release);
}

ManualClock::ManualClock(std::int64_t seconds, std::uint32_t tick, bool sleepAdvances)
    : seconds_(seconds), subSecondMs_(0), micros_(kMicrosStart),
      tickOffset_(tick - static_cast<std::uint32_t>(kMicrosStart / 1000)), sleepAdvances_(sleepAdvances) {}

std::int64_t ManualClock::NowSeconds() {
  std::lock_guard<std::mutex> lock(mutex_);
  return seconds_;
}

std::uint32_t ManualClock::TickCount() {
  std::lock_guard<std::mutex> lock(mutex_);
  return TickLocked();
}

std::uint32_t ManualClock::TickLocked() const {
  return static_cast<std::uint32_t>(micros_ / 1000) + tickOffset_;  // wraps at 2^32 like the real tick count
}

std::uint64_t ManualClock::TickMicros() {
  std::lock_guard<std::mutex> lock(mutex_);
  return micros_;
}

void ManualClock::SleepMs(std::uint32_t ms) {
  if (sleepAdvances_)
    Advance(ms);
  // Let other threads run, as a real sleep would.
  std::this_thread::yield();
}

void ManualClock::SleepMicros(std::uint32_t us) {
  if (sleepAdvances_)
    AdvanceMicros(us);
  std::this_thread::yield();
}

void ManualClock::Advance(std::uint32_t ms) {
  std::lock_guard<std::mutex> lock(mutex_);
  micros_ += std::uint64_t{ms} * 1000;
  std::uint64_t total = std::uint64_t{subSecondMs_} + ms;
  seconds_ += static_cast<std::int64_t>(total / 1000);
  subSecondMs_ = static_cast<std::uint32_t>(total % 1000);
}

void ManualClock::AdvanceMicros(std::uint64_t us) {
  std::lock_guard<std::mutex> lock(mutex_);
  micros_ += us;
}

void ManualClock::SetSeconds(std::int64_t seconds) {
  std::lock_guard<std::mutex> lock(mutex_);
  seconds_ = seconds;
  subSecondMs_ = 0;
}

void ManualClock::SetTick(std::uint32_t tick) {
  std::lock_guard<std::mutex> lock(mutex_);
  auto const by = static_cast<std::int32_t>(tick - TickLocked());
  micros_ += static_cast<std::uint64_t>(static_cast<std::int64_t>(by) * 1000);
}

}  // namespace shared::platform
