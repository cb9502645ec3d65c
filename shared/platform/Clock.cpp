#include "platform/Clock.h"

#include <chrono>
#include <thread>

namespace shared::platform {

namespace {

class SystemClock final : public ClockSource {
public:
  std::int64_t NowSeconds() override {
    using namespace std::chrono;
    return duration_cast<seconds>(system_clock::now().time_since_epoch()).count();
  }
  std::uint32_t TickCount() override {
    using namespace std::chrono;
    auto ms = duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count();
    return static_cast<std::uint32_t>(static_cast<std::uint64_t>(ms));
  }
  void SleepMs(std::uint32_t ms) override {
    if (ms == 0)
      std::this_thread::yield();
    else
      std::this_thread::sleep_for(std::chrono::milliseconds(ms));
  }
};

SystemClock g_systemClock;
std::atomic<ClockSource *> g_clock{&g_systemClock};

}  // namespace

ClockSource::~ClockSource() = default;

std::int64_t NowSeconds() { return g_clock.load(std::memory_order_acquire)->NowSeconds(); }
std::uint32_t TickCount() { return g_clock.load(std::memory_order_acquire)->TickCount(); }
void SleepMs(std::uint32_t ms) { g_clock.load(std::memory_order_acquire)->SleepMs(ms); }

void SetClockSource(ClockSource *source) {
  g_clock.store(source ? source : &g_systemClock, std::memory_order_release);
}

ManualClock::ManualClock(std::int64_t seconds, std::uint32_t tick, bool sleepAdvances)
    : seconds_(seconds), tick_(tick), subSecondMs_(0), sleepAdvances_(sleepAdvances) {}

std::int64_t ManualClock::NowSeconds() {
  std::lock_guard<std::mutex> lock(mutex_);
  return seconds_;
}

std::uint32_t ManualClock::TickCount() {
  std::lock_guard<std::mutex> lock(mutex_);
  return tick_;
}

void ManualClock::SleepMs(std::uint32_t ms) {
  if (sleepAdvances_)
    Advance(ms);
  // Let other threads run, as a real sleep would.
  std::this_thread::yield();
}

void ManualClock::Advance(std::uint32_t ms) {
  std::lock_guard<std::mutex> lock(mutex_);
  tick_ += ms;  // wraps at 2^32 like the real tick count
  std::uint64_t total = std::uint64_t{subSecondMs_} + ms;
  seconds_ += static_cast<std::int64_t>(total / 1000);
  subSecondMs_ = static_cast<std::uint32_t>(total % 1000);
}

void ManualClock::SetSeconds(std::int64_t seconds) {
  std::lock_guard<std::mutex> lock(mutex_);
  seconds_ = seconds;
  subSecondMs_ = 0;
}

void ManualClock::SetTick(std::uint32_t tick) {
  std::lock_guard<std::mutex> lock(mutex_);
  tick_ = tick;
}

}  // namespace shared::platform
