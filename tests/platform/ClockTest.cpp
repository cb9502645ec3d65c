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

TEST(Clock, LocalTimeBreaksDownSeconds) {
  std::tm fields{};
  ASSERT_TRUE(shared::platform::LocalTime(0, &fields));
  EXPECT_GE(fields.tm_year, 69);
  EXPECT_FALSE(shared::platform::LocalTime(0, nullptr));
}

}  // namespace
