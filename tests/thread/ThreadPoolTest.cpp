#include "thread/ThreadPool.h"

#include "thread/Thread.h"
#include "ThreadTestUtil.h"

#include <gtest/gtest.h>

#include <atomic>
#include <string>

namespace {

using testutil::CountRegistry;
using testutil::Eventually;
using testutil::Latch;
using testutil::RegistryTexts;

// Shared tallies that outlive the jobs (the pool deletes them).
struct Tally {
  std::atomic<int> started{0};
  std::atomic<int> ended{0};
  std::atomic<int> sawExit{0};
  std::atomic<int> deleted{0};
};

// Runs until released or asked to stop.
class Job : public IThreadObj {
public:
  Job(Tally &t, char const *name, Latch *release = nullptr) : IThreadObj(name), tally_(t), release_(release) {}
  ~Job() override { ++tally_.deleted; }
  int ThreadFunc() override {
    ++tally_.started;
    entered.Open();
    while (!DoExit() && !(release_ && release_->IsOpen()))
      XSleep(1);
    if (DoExit())
      ++tally_.sawExit;
    ++tally_.ended;
    return 0;
  }
  Latch entered;

private:
  Tally &tally_;
  Latch *release_;
};

// Returns at once.
class QuickJob : public IThreadObj {
public:
  explicit QuickJob(Tally &t) : IThreadObj("quick job"), tally_(t) {}
  ~QuickJob() override { ++tally_.deleted; }
  int ThreadFunc() override {
    ++tally_.started;
    return 0;
  }

private:
  Tally &tally_;
};

TEST(ThreadPool, MaximumRefusesUntilAJobIsReaped) {
  Tally tally;
  Latch release;
  ThreadPool pool(2);
  ASSERT_TRUE(pool.IsOk());
  EXPECT_EQ(2u, pool.GetNMaxThreads());
  auto *a = new Job(tally, "job a", &release);
  auto *b = new Job(tally, "job b");
  ASSERT_NE(0, pool.StartThread(a));
  ASSERT_NE(0, pool.StartThread(b));
  Job c(tally, "job c");
  EXPECT_EQ(0, pool.StartThread(&c));  // refused: the caller keeps it
  EXPECT_EQ(0, pool.StartThread(nullptr));

  release.Open();  // a ends; the reaper joins and deletes it
  ASSERT_TRUE(Eventually([&] { return tally.deleted.load() == 1; }));
  EXPECT_EQ(1u, pool.get_nitens());
  auto *d = new Job(tally, "job d");
  EXPECT_NE(0, pool.StartThread(d));
  EXPECT_EQ(2u, pool.get_nitens());
}

TEST(ThreadPool, QuickJobsAreReapedByTheReaper) {
  Tally tally;
  ThreadPool pool;
  EXPECT_EQ(ThreadPool::kUnlimited, pool.GetNMaxThreads());
  for (int i = 0; i < 20; ++i)
    ASSERT_NE(0, pool.StartThread(new QuickJob(tally)));
  ASSERT_TRUE(Eventually([&] { return tally.deleted.load() == 20; }));
  EXPECT_EQ(20, tally.started.load());
  EXPECT_EQ(0u, pool.get_nitens());
  EXPECT_EQ(nullptr, pool.GetFirstEndingThread());
}

TEST(ThreadPool, DestructionStopsAndJoinsRunningJobs) {
  Tally tally;
  {
    ThreadPool pool;
    for (int i = 0; i < 4; ++i) {
      auto *job = new Job(tally, "running job");
      ASSERT_NE(0, pool.StartThread(job));
      ASSERT_TRUE(job->entered.Wait());
    }
  }
  EXPECT_EQ(4, tally.sawExit.load());
  EXPECT_EQ(4, tally.ended.load());
  EXPECT_EQ(4, tally.deleted.load());
}

TEST(ThreadPool, StopThreadOfRunningAndUnknownJobs) {
  Tally tally;
  ThreadPool pool;
  auto *job = new Job(tally, "stopped job");
  ASSERT_NE(0, pool.StartThread(job));
  ASSERT_TRUE(job->entered.Wait());

  Job stranger(tally, "not in the pool");
  pool.StopThread(&stranger);  // nothing: not in the table
  pool.StopThread(nullptr);
  EXPECT_EQ(0, stranger.DoExit());

  pool.StopThread(job);  // asks, waits for the body, deletes
  EXPECT_EQ(1, tally.sawExit.load());
  EXPECT_EQ(1, tally.deleted.load());
  EXPECT_EQ(0u, pool.get_nitens());
}

// A job whose body has just returned reports its end under the pool lock;
// stopping it at that moment must neither deadlock nor delete it twice.
TEST(ThreadPool, StopWhileJobsReportTheirEnd) {
  Tally tally;
  {
    ThreadPool pool;
    for (int i = 0; i < 40; ++i) {
      auto *job = new QuickJob(tally);
      ASSERT_NE(0, pool.StartThread(job));
      pool.StopThread(job);  // races the body's end and the reaper
    }
    EXPECT_EQ(40, tally.deleted.load());
  }
  EXPECT_EQ(40, tally.deleted.load());
}

class SelfStopper : public IThreadObj {
public:
  explicit SelfStopper(Tally &t) : IThreadObj("self stopper"), tally_(t) {}
  ~SelfStopper() override { ++tally_.deleted; }
  int ThreadFunc() override {
    GetThreadPool()->StopThread(this);  // only asks
    if (DoExit())
      ++tally_.sawExit;
    return 0;
  }

private:
  Tally &tally_;
};

TEST(ThreadPool, JobMayStopItself) {
  Tally tally;
  ThreadPool pool;
  ASSERT_NE(0, pool.StartThread(new SelfStopper(tally)));
  ASSERT_TRUE(Eventually([&] { return tally.deleted.load() == 1; }));
  EXPECT_EQ(1, tally.sawExit.load());
}

TEST(ThreadPool, ThreadsAreNamedInTheRegistry) {
  Tally tally;
  ThreadPool pool;
  auto has = [](std::string const &suffix) {
    for (auto const &t : RegistryTexts())
      if (t.size() >= suffix.size() && t.compare(t.size() - suffix.size(), suffix.size(), suffix) == 0)
        return true;
    return false;
  };
  EXPECT_TRUE(has(") ThreadPool::KillThreads"));
  auto *job = new Job(tally, "  named job  ");
  ASSERT_NE(0, pool.StartThread(job));
  EXPECT_STREQ("  named job", job->GetName());
  EXPECT_TRUE(has(")   named job"));
  EXPECT_EQ(&pool, job->GetThreadPool());
  EXPECT_NE(nullptr, job->GetIThread());
}

}  // namespace
