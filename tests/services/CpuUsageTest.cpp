#include "services/CpuUsage.h"

#include "platform/Clock.h"

#include <gtest/gtest.h>

#include <chrono>

namespace {

TEST(CpuUsage, FigureFromTimes) {
  EXPECT_DOUBLE_EQ(50.0, XCpuUsage::Compute(500000, 1000000, 1));
  EXPECT_DOUBLE_EQ(25.0, XCpuUsage::Compute(1000000, 1000000, 4));
  EXPECT_DOUBLE_EQ(100.0, XCpuUsage::Compute(3000000, 1000000, 2));  // capped
  EXPECT_DOUBLE_EQ(0.0, XCpuUsage::Compute(1000, 0, 2));
  EXPECT_DOUBLE_EQ(10.0, XCpuUsage::Compute(100, 1000, 0));  // counted as one processor
}

volatile unsigned gSink = 0;

TEST(CpuUsage, MeasuresBusyProcessAgainstDrivenClock) {
  shared::platform::ManualClock clock;
  shared::platform::ScopedClockSource scoped(clock);
  XCpuUsage usage;
  double perCore = -1;
  EXPECT_DOUBLE_EQ(0.0, usage.GetUsage(&perCore));  // no time has passed yet
  EXPECT_DOUBLE_EQ(0.0, perCore);

  std::int64_t start = GetProcessCpuTime();  // burn at least 20 ms of CPU
  auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  while (GetProcessCpuTime() - start < 20000 && std::chrono::steady_clock::now() < deadline)
    for (unsigned i = 0; i < 100000; ++i)
      gSink = gSink * 31 + i;
  std::int64_t spent = GetProcessCpuTime() - start;
  ASSERT_GE(spent, 20000);

  clock.Advance(10000);  // ten seconds of wall time
  double figure = usage.GetUsage(&perCore);
  EXPECT_GE(figure, 100.0 * static_cast<double>(spent) / (10e6 * ProcessorCount()) - 1e-9);
  EXPECT_LE(figure, 100.0);
  EXPECT_NEAR(figure * ProcessorCount(), perCore, 1e-9);
  EXPECT_DOUBLE_EQ(figure, usage.GetUsage());  // no time passed: the figure stands
}

}  // namespace
