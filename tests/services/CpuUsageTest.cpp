#include "services/CpuUsage.h"

#include "platform/Clock.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cmath>

namespace {

using shared::platform::ManualClock;

TEST(CpuUsage, FigureFromTimes) {
  EXPECT_DOUBLE_EQ(50.0, XCpuUsage::Compute(500000, 1000000, 1));
  EXPECT_DOUBLE_EQ(25.0, XCpuUsage::Compute(1000000, 1000000, 4));
  EXPECT_DOUBLE_EQ(100.0, XCpuUsage::Compute(3000000, 1000000, 2));  // capped
  EXPECT_DOUBLE_EQ(0.0, XCpuUsage::Compute(1000, 0, 2));
  EXPECT_DOUBLE_EQ(0.0, XCpuUsage::Compute(-5, 1000, 2));
  EXPECT_DOUBLE_EQ(10.0, XCpuUsage::Compute(100, 1000, 0));  // treated as one
  EXPECT_GE(ProcessorCount(), 1);
}

// Busy work whose result the compiler cannot drop.
volatile unsigned gSink = 0;

TEST(CpuUsage, MeasuresBusyProcessAgainstDrivenClock) {
  ManualClock clock;
  shared::platform::SetClockSource(&clock);
  XCpuUsage usage;
  double perCore = -1;
  EXPECT_DOUBLE_EQ(0.0, usage.GetUsage(&perCore));  // no time has passed
  EXPECT_DOUBLE_EQ(0.0, perCore);

  // Burn at least 20 ms of CPU, measured by the process's own accounting.
  std::int64_t start = GetProcessCpuTime();
  ASSERT_GE(start, 0);
  auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  while (GetProcessCpuTime() - start < 20000 && std::chrono::steady_clock::now() < deadline)
    for (unsigned i = 0; i < 100000; ++i)
      gSink = gSink * 31 + i;
  std::int64_t spent = GetProcessCpuTime() - start;
  ASSERT_GE(spent, 20000);

  // Ten seconds of wall time: the figure is the CPU time over that span.
  clock.Advance(10000);
  double figure = usage.GetUsage(&perCore);
  int cpus = ProcessorCount();
  EXPECT_GT(figure, 0.0);
  EXPECT_LE(figure, 100.0);
  EXPECT_NEAR(figure * cpus, perCore, 1e-9);
  // At least what was measured above, over 10 s on every processor.
  EXPECT_GE(figure, 100.0 * spent / (10e6 * cpus) - 1e-9);

  // Without time passing the last figure stands.
  EXPECT_DOUBLE_EQ(figure, usage.GetUsage());
  shared::platform::SetClockSource(nullptr);
}

}  // namespace
