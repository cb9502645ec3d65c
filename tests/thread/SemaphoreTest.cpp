#include "thread/Semaphore.h"

#include "platform/Clock.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

namespace {

constexpr unsigned long kForever = static_cast<unsigned long>(-1);

TEST(Semaphore, KindOneDefaultsToAFreeBinarySemaphore) {
  _SEMAPHORE sem(1, 0, 0, kForever, -1);
  ASSERT_TRUE(sem.IsOk());
  EXPECT_EQ(1, sem.GetMaxCount());
  EXPECT_EQ(1, sem.Wait(1, "t"));
  EXPECT_EQ(0, sem.Wait(0, "t"));  // infinite time-out + non-blocking = try
  EXPECT_EQ(1, sem.Signal("t"));
  EXPECT_EQ(0, sem.Signal("t"));  // beyond the maximum
  EXPECT_EQ(1, sem.GetCount());

  _SEMAPHORE dflt;
  EXPECT_EQ(1, dflt.Wait(0, nullptr));
}

TEST(Semaphore, KindOneInitialCountIsClamped) {
  _SEMAPHORE three(1, 3, 0, kForever, 7);
  EXPECT_EQ(3, three.GetCount());
  _SEMAPHORE none(1, 3, 0, kForever, 0);
  EXPECT_EQ(0, none.Wait(0, nullptr));
  _SEMAPHORE odd(1, 3, 0, kForever, -5);
  EXPECT_EQ(0, odd.GetCount());
}

TEST(Semaphore, KindOneTimedWaitWaitsAtLeastTheTimeOut) {
  _SEMAPHORE sem(1, 1, 0, 50, 0);
  auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(0, sem.Wait(1, nullptr));
  auto waited = std::chrono::steady_clock::now() - start;
  // At least the time asked; the upper bound is generous for a loaded machine.
  EXPECT_GE(waited, std::chrono::milliseconds(50));
  EXPECT_LT(waited, std::chrono::seconds(20));
  // A finite time-out applies to non-blocking waits too.
  EXPECT_EQ(0, sem.Wait(0, nullptr));
}

TEST(Semaphore, KindOneSignalledFromAnotherThread) {
  _SEMAPHORE sem(1, 1, 0, kForever, 0);
  std::atomic<bool> woke{false};
  std::thread waiter([&] {
    EXPECT_EQ(1, sem.Wait(1, "waiter"));
    woke = true;
  });
  EXPECT_EQ(1, sem.Signal("main"));
  waiter.join();
  EXPECT_TRUE(woke);
  EXPECT_EQ(0, sem.GetCount());
}

TEST(Semaphore, KindTwoDrainsPendingJobs) {
  shared::platform::ManualClock clock;
  shared::platform::ScopedClockSource use(clock);
  _SEMAPHORE pend(2, 5, 10, 1000, -1);
  ASSERT_TRUE(pend.IsOk());
  EXPECT_EQ(1, pend.Wait(1, nullptr));  // nothing pending
  EXPECT_EQ(0, pend.Signal(nullptr));   // nothing to mark done
  pend.AddPend();
  pend.AddPend();
  EXPECT_EQ(1, pend.Signal(nullptr));
  std::uint32_t before = clock.TickCount();
  EXPECT_EQ(0, pend.Wait(1, nullptr));  // times out: the clock advances by sleeps
  EXPECT_GE(clock.TickCount() - before, 1000u);
  EXPECT_EQ(0, pend.Wait(0, nullptr));
  EXPECT_EQ(1, pend.Signal(nullptr));
  EXPECT_EQ(1, pend.Wait(1, nullptr));
}

TEST(Semaphore, KindTwoTimeOutAcrossTickWrap) {
  shared::platform::ManualClock clock(0, 0xFFFFFF00u);
  shared::platform::ScopedClockSource use(clock);
  _SEMAPHORE pend(2, 1, 100, 1000, -1);
  pend.AddPend();
  EXPECT_EQ(0, pend.Wait(1, nullptr));
  std::uint32_t elapsed = clock.TickCount() - 0xFFFFFF00u;
  EXPECT_GE(elapsed, 1000u);
  EXPECT_LT(elapsed, 1200u);
}

TEST(Semaphore, KindTwoReleasedByAnotherThread) {
  _SEMAPHORE pend(2, 5, 1, kForever, -1);
  pend.AddPend();
  std::thread worker([&] { pend.Signal("worker"); });
  EXPECT_EQ(1, pend.Wait(1, "main"));
  worker.join();
}

TEST(Semaphore, KindThreeIsRecursive) {
  _SEMAPHORE lock(3, 5, 0, 0, 0);
  EXPECT_EQ(1, lock.GetMaxCount());
  EXPECT_EQ(1, lock.Wait(0, "a"));
  EXPECT_EQ(1, lock.Wait(0, "b"));
  EXPECT_EQ(-1, lock.GetCount());
  std::atomic<bool> entered{false};
  std::thread other([&] {
    lock.Wait(1, "other");
    entered = true;
    lock.Signal("other");
  });
  EXPECT_EQ(1, lock.Signal("b"));
  EXPECT_FALSE(entered);  // still held once by this thread
  EXPECT_EQ(1, lock.Signal("a"));
  other.join();
  EXPECT_TRUE(entered);
  EXPECT_EQ(1, lock.GetCount());
}

TEST(Semaphore, UnknownKindIsNeverOk) {
  _SEMAPHORE bad(9, 1, 0, 0, -1);
  EXPECT_FALSE(bad.IsOk());
  EXPECT_EQ(0, bad.Wait(1, nullptr));
  EXPECT_EQ(0, bad.Signal(nullptr));
  shared::SemGuard guard(bad);
  EXPECT_FALSE(guard.Held());
}

TEST(XObj, DescribesItselfAsEmpty) {
  XObj obj;
  char buf[4] = "xyz";
  EXPECT_EQ(0u, obj.GetId());
  EXPECT_STREQ("", obj.GetDesc(buf, sizeof buf));
  EXPECT_EQ(nullptr, obj.GetDesc(nullptr, 4));
}

}  // namespace
