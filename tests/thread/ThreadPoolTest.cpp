#include "thread/ThreadPool.h"

#include "thread/Thread.h"
#include "ThreadTestUtil.h"

#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>

namespace {

using testutil::Eventually;
using testutil::Latch;
using testutil::Listed;

// Tallies that outlive the jobs (the pool deletes them).
struct Tally {
  std::atomic<int> started{0};
  std::atomic<int> sawExit{0};
  std::atomic<int> deleted{0};
};

// Runs until released (a null latch: returns at once) or asked to stop.
class Job : public IThreadObj {
public:
  Job(Tally &t, char const *name, Latch *release) : IThreadObj(name), tally_(t), release_(release) {}
  ~Job() override {
    if (dying) {  // held in its destructor until released
      dying->Open();
      EXPECT_TRUE(holdDeath->Wait());
    }
    ++tally_.deleted;
  }
  int ThreadFunc() override {
    ++tally_.started;
    entered.Open();
    while (release_ && !DoExit() && !release_->IsOpen())
      XSleep(1);
    if (DoExit())
      ++tally_.sawExit;
    if (stopSelf)
      GetThreadPool()->StopThread(this);  // only asks
    return 0;
  }
  Latch entered;
  bool stopSelf = false;
  Latch *dying = nullptr;
  Latch *holdDeath = nullptr;

private:
  Tally &tally_;
  Latch *release_;
};

// Destroys its pool from its own body, then returns.
class PoolKiller : public IThreadObj {
public:
  PoolKiller(Tally &t, Latch *go) : IThreadObj("killer"), tally_(t), go_(go) {}
  ~PoolKiller() override { ++tally_.deleted; }
  int ThreadFunc() override {
    EXPECT_TRUE(go_->Wait());
    delete GetThreadPool();
    ++tally_.sawExit;
    return 0;
  }

private:
  Tally &tally_;
  Latch *go_;
};

TEST(ThreadPool, AJobMayDestroyItsOwnPool) {
  Tally tally;
  Latch go, never;
  auto *pool = new ThreadPool;
  ASSERT_EQ(1, pool->StartThread(new Job(tally, "other", &never)));  // stopped by the destructor
  ASSERT_EQ(1, pool->StartThread(new PoolKiller(tally, &go)));
  go.Open();
  // Both jobs end and are deleted: the other one by the destructor, the
  // killer by its own thread.
  EXPECT_TRUE(Eventually([&] { return tally.deleted.load() == 2; }));
  EXPECT_EQ(2, tally.sawExit.load());
  EXPECT_TRUE(Eventually([] { return !Listed(") killer"); }));
}

TEST(ThreadPool, MaximumRefusesUntilAJobIsReaped) {
  Tally tally;
  Latch release, never;
  ThreadPool pool(2);
  ASSERT_TRUE(pool.IsOk());
  EXPECT_TRUE(Listed(") ThreadPool::KillThreads"));
  auto *a = new Job(tally, "job a", &release);
  ASSERT_NE(0, pool.StartThread(a));
  ASSERT_NE(0, pool.StartThread(new Job(tally, "  job b  ", &never)));
  EXPECT_TRUE(Listed(")   job b"));  // the job's name names its thread
  EXPECT_EQ(&pool, a->GetThreadPool());
  Job c(tally, "job c", nullptr);
  EXPECT_EQ(0, pool.StartThread(&c));  // refused: the caller keeps it
  EXPECT_EQ(0, pool.StartThread(nullptr));

  release.Open();  // a ends; the reaper joins and deletes it
  ASSERT_TRUE(Eventually([&] { return tally.deleted.load() == 1; }));
  EXPECT_EQ(1u, pool.get_nitens());
  // Accepted again; returning at once, it is reaped too.
  EXPECT_NE(0, pool.StartThread(new Job(tally, "job d", nullptr)));
  ASSERT_TRUE(Eventually([&] { return tally.deleted.load() == 2; }));
  EXPECT_EQ(nullptr, pool.GetFirstEndingThread());
}

TEST(ThreadPool, DestructionStopsAndJoinsRunningJobs) {
  Tally tally;
  Latch never;
  {
    ThreadPool pool;
    for (int i = 0; i < 4; ++i) {
      auto *job = new Job(tally, "running job", &never);
      ASSERT_NE(0, pool.StartThread(job));
      ASSERT_TRUE(job->entered.Wait());
    }
  }
  EXPECT_EQ(4, tally.sawExit.load());
  EXPECT_EQ(4, tally.deleted.load());
}

TEST(ThreadPool, StopThreadOfRunningUnknownAndSelfStoppingJobs) {
  Tally tally;
  Latch never;
  ThreadPool pool;
  auto *job = new Job(tally, "stopped job", &never);
  ASSERT_NE(0, pool.StartThread(job));
  ASSERT_TRUE(job->entered.Wait());

  Job stranger(tally, "not in the pool", nullptr);
  pool.StopThread(&stranger);  // not in the table: nothing
  EXPECT_EQ(0, stranger.DoExit());

  pool.StopThread(job);  // asks, waits for the body, deletes
  EXPECT_EQ(1, tally.sawExit.load());
  EXPECT_EQ(1, tally.deleted.load());

  auto *self = new Job(tally, "self stopper", nullptr);
  self->stopSelf = true;  // StopThread from its own body must not join itself
  ASSERT_NE(0, pool.StartThread(self));
  ASSERT_TRUE(Eventually([&] { return tally.deleted.load() == 2; }));
}

// StopThread of a job the reaper has already taken returns only once the
// job is deleted, as for a job it stops itself.
TEST(ThreadPool, StopThreadWaitsForAJobTheReaperIsDeleting) {
  Tally tally;
  Latch dying, holdDeath, stopped;
  ThreadPool pool;
  auto *job = new Job(tally, "reaped job", nullptr);
  job->dying = &dying;
  job->holdDeath = &holdDeath;
  ASSERT_NE(0, pool.StartThread(job));
  ASSERT_TRUE(dying.Wait());  // the reaper is in its destructor
  int deletedOnReturn = -1;
  std::thread stopper([&] {
    pool.StopThread(job);  // no longer in the table: only its address is used
    deletedOnReturn = tally.deleted.load();
    stopped.Open();
  });
  EXPECT_FALSE(stopped.WaitFor(200));
  holdDeath.Open();
  stopper.join();
  EXPECT_EQ(1, deletedOnReturn);
}

// A job whose body has just returned reports its end under the pool lock;
// stopping it at that moment must neither deadlock nor delete it twice.
TEST(ThreadPool, StopWhileJobsReportTheirEnd) {
  Tally tally;
  {
    ThreadPool pool;
    for (int i = 0; i < 40; ++i) {
      auto *job = new Job(tally, "quick job", nullptr);
      ASSERT_NE(0, pool.StartThread(job));
      pool.StopThread(job);  // races the body's end and the reaper
    }
    // Jobs the reaper took first may still be being joined: it finishes them
    // before the pool's destructor lets it go.
  }
  EXPECT_EQ(40, tally.deleted.load());
}

}  // namespace
