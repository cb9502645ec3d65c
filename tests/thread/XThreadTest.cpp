#include "thread/Thread.h"

#include "platform/ThreadApi.h"
#include "ThreadTestUtil.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <cstring>
#include <string>

namespace {

using testutil::CountRegistry;
using testutil::Eventually;
using testutil::Latch;

// Runs until asked to stop; counts bodies and records its thread id.
class Worker : public XThread {
public:
  explicit Worker(char const *name) { SetThreadName(std::strcpy(name_, name)); }
  ~Worker() override { StopThread(true); }

  int Run() override {
    tid = shared::platform::CurrentThreadId();
    ++bodies;
    entered.Open();
    while (KeepRunning())
      XSleep(1);
    sawStop = EndRequested();
    return 5;
  }

  std::atomic<int> bodies{0};
  std::atomic<bool> sawStop{false};
  std::atomic<unsigned long> tid{0};
  Latch entered;

private:
  char name_[64];
};

TEST(XThread, StartStopAndRestart) {
  Worker w("xthread worker");
  EXPECT_FALSE(w.IsRunning());
  w.StopThread(true);  // no thread yet: returns at once
  ASSERT_TRUE(w.StartThread());  // and the earlier stop request is cleared
  ASSERT_TRUE(w.entered.Wait());
  EXPECT_TRUE(w.IsRunning());
  EXPECT_FALSE(w.StartThread());  // a thread exists already
  char text[96];
  std::snprintf(text, sizeof text, "%lx(%lu) xthread worker", w.tid.load(), w.tid.load());
  EXPECT_EQ(1, CountRegistry(text));

  w.StopThread(true);
  EXPECT_FALSE(w.IsRunning());
  EXPECT_TRUE(w.sawStop);
  // The worker dropped its handle (and registry entry) before it let go.
  EXPECT_EQ(0, CountRegistry(text));
  EXPECT_FALSE(w.SuspendThread());
  EXPECT_FALSE(w.ResumeThread());

  ASSERT_TRUE(w.StartThread());  // allowed again once the body has returned
  EXPECT_TRUE(Eventually([&] { return w.bodies.load() == 2; }));
  w.StopThread(true);
  EXPECT_EQ(2, w.bodies.load());
}

TEST(XThread, StopRightAfterStartWaitsForTheBody) {
  for (int i = 0; i < 20; ++i) {
    Worker w("racing stop");
    ASSERT_TRUE(w.StartThread());
    w.StopThread(true);
    // Either the stop came before the body (skipped) or the body saw it.
    EXPECT_FALSE(w.IsRunning());
    EXPECT_EQ(w.bodies.load(), w.sawStop.load() ? 1 : 0);
  }
}

class Terminator : public XThread {
public:
  ~Terminator() override { StopThread(true); }
  int Run() override {
    struct Mark {
      std::atomic<bool> &flag;
      ~Mark() { flag = true; }
    } mark{unwound};
    WaitThread();  // from the body itself: returns at once
    TerminateThread();
    afterTerminate = true;
    return 1;
  }
  std::atomic<bool> unwound{false};
  std::atomic<bool> afterTerminate{false};
};

TEST(XThread, TerminateFromTheBodyLeavesCleanly) {
  Terminator t;
  t.TerminateThread();  // no thread: nothing
  ASSERT_TRUE(t.StartThread());
  t.WaitThread();  // the worker held the run lock once StartThread returned
  EXPECT_TRUE(t.unwound);
  EXPECT_FALSE(t.afterTerminate);
  EXPECT_FALSE(t.IsRunning());
  ASSERT_TRUE(t.StartThread());  // the run lock and the handle were released
  t.StopThread(true);
}

}  // namespace
