#include "platform/Clock.h"

#include <gtest/gtest.h>

namespace {

using shared::platform::ManualClock;
using shared::platform::ScopedClockSource;

TEST(Clock, SystemClockMovesForward) {
  std::int64_t now = shared::platform::NowSeconds();
  EXPECT_GT(now, 1600000000);  // after 2020
  std::uint32_t t0 = shared::platform::TickCount();
  shared::platform::SleepMs(2);
  EXPECT_GE(shared::platform::TickCount() - t0, 2u);
}

TEST(Clock, ManualClockReplacesAndRestores) {
  ManualClock clock(86400 * 365, 0xFFFFFFF0u);
  {
    ScopedClockSource use(clock);
    EXPECT_EQ(86400 * 365, shared::platform::NowSeconds());
    shared::platform::SleepMs(1500);  // advances instead of waiting
    EXPECT_EQ(0xFFFFFFF0u + 1500u, shared::platform::TickCount());  // wrapped
    EXPECT_EQ(86400 * 365 + 1, shared::platform::NowSeconds());
    clock.Advance(500);
    EXPECT_EQ(86400 * 365 + 2, shared::platform::NowSeconds());
  }
  EXPECT_GT(shared::platform::NowSeconds(), 1600000000);
}

// The microseconds and the tick count are one clock: whatever moves one
// moves the other, across the tick's wrap and backwards, and the
// microseconds never wrap.
TEST(Clock, MicrosecondsFollowTheTickCount) {
  std::uint64_t const sys = shared::platform::TickMicros();
  std::uint32_t const tick = shared::platform::TickCount();
  EXPECT_LT(tick - static_cast<std::uint32_t>(sys / 1000), 1000u);  // read later, never earlier

  ManualClock clock(86400, 0xFFFFFFF0u);
  ScopedClockSource use(clock);
  std::uint64_t const t0 = shared::platform::TickMicros();
  clock.AdvanceMicros(15'999);  // 15.999 ms: 15 whole ticks
  EXPECT_EQ(0xFFFFFFFFu, shared::platform::TickCount());
  clock.AdvanceMicros(1);
  EXPECT_EQ(0u, shared::platform::TickCount());  // wrapped
  EXPECT_EQ(86400, shared::platform::NowSeconds());
  clock.Advance(20);
  EXPECT_EQ(20u, shared::platform::TickCount());
  EXPECT_EQ(t0 + 36'000, shared::platform::TickMicros());
  clock.SetTick(0xFFFFFFF0u);  // 36 ms back, across the wrap
  EXPECT_EQ(t0, shared::platform::TickMicros());
  shared::platform::SleepMicros(500);  // advances instead of waiting
  EXPECT_EQ(0xFFFFFFF0u, shared::platform::TickCount());
  EXPECT_EQ(t0 + 500, shared::platform::TickMicros());
  shared::platform::SleepMicros(500);
  EXPECT_EQ(0xFFFFFFF1u, shared::platform::TickCount());
}

TEST(Clock, LocalTimeBreaksDownSeconds) {
  std::tm fields{};
  ASSERT_TRUE(shared::platform::LocalTime(0, &fields));
  EXPECT_GE(fields.tm_year, 69);
  EXPECT_FALSE(shared::platform::LocalTime(0, nullptr));
}

}  // namespace
