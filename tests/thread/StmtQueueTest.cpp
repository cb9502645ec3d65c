#include "thread/StmtQueue.h"

#include "text/XStr.h"
#include "thread/Thread.h"
#include "ThreadTestUtil.h"

#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace {

using testutil::Eventually;
using testutil::Latch;
using testutil::Listed;

std::atomic<int> g_itemsAlive{0};

class Item : public XStrStmtQueueObj {
public:
  explicit Item(std::string const &text) : XStrStmtQueueObj(text.c_str()) { ++g_itemsAlive; }
  ~Item() override { --g_itemsAlive; }
};

// Records what it executes; the first item may be held until released.
class Recorder : public StmtQueue {
public:
  explicit Recorder(char const *name, Latch *holdFirst = nullptr) : StmtQueue(0, name), holdFirst_(holdFirst) {}
  ~Recorder() override { Abort(); }

  void ExecStmt(XObj *item) override {
    EXPECT_EQ(1, ++inFlight_);  // never two at once
    char desc[128];
    std::string text = item->GetDesc(desc, sizeof desc);
    if (text == "stop")
      Abort();  // from inside ExecStmt
    {
      std::lock_guard<std::mutex> lock(mutex_);
      done_.push_back(text);
    }
    firstStarted.Open();
    if (holdFirst_ && !held_) {
      held_ = true;
      EXPECT_TRUE(holdFirst_->Wait());
    }
    --inFlight_;
  }

  std::vector<std::string> Done() {
    std::lock_guard<std::mutex> lock(mutex_);
    return done_;
  }

  Latch firstStarted;

private:
  Latch *holdFirst_;
  bool held_ = false;  // queue thread only
  std::atomic<int> inFlight_{0};
  std::mutex mutex_;
  std::vector<std::string> done_;
};

TEST(StmtQueue, ProducersItemsRunOnceInOrderOneAtATime) {
  constexpr int kProducers = 4;
  constexpr int kEach = 150;
  {
    Recorder q("order");
    ASSERT_TRUE(q.IsOk());
    EXPECT_EQ(0, q.Add(nullptr));
    std::vector<std::thread> producers;
    for (int p = 0; p < kProducers; ++p)
      producers.emplace_back([&q, p] {
        for (int i = 0; i < kEach; ++i)
          EXPECT_EQ(1, q.Add(new Item(std::to_string(p) + ":" + std::to_string(i))));
      });
    for (auto &t : producers)
      t.join();
    q.Abort();  // drains

    auto done = q.Done();
    ASSERT_EQ(static_cast<std::size_t>(kProducers * kEach), done.size());
    std::vector<int> next(kProducers, 0);
    for (auto const &text : done) {
      int p = text[0] - '0';
      ASSERT_EQ(std::to_string(p) + ":" + std::to_string(next[p]), text);  // each producer's order kept
      ++next[p];
    }
  }
  EXPECT_EQ(0, g_itemsAlive.load());  // each deleted after execution
}

TEST(StmtQueue, AbortDrainsQueuedItemsThenRefusesUntilStart) {
  Latch hold;
  Recorder q("db", &hold);
  EXPECT_TRUE(Listed(") StmtQueue: Exec Stmt Thread (db)"));
  ASSERT_EQ(1, q.Add(new Item("A")));
  ASSERT_TRUE(q.firstStarted.Wait());  // A is executing and held
  ASSERT_EQ(1, q.Add(new Item("B")));
  ASSERT_EQ(1, q.Add(new Item("C")));
  EXPECT_EQ(2u, q.GetnItems());

  std::thread aborter([&q] { q.Abort(); });
  ASSERT_TRUE(Eventually([&] { return q.IsStarted() == 0 && q.GetThreadId() == nullptr; }));  // joining
  Item late("late");
  EXPECT_EQ(0, q.Add(&late));  // the caller keeps it
  EXPECT_EQ(0u, q.GetnItems());
  // A second Abort meanwhile waits for the same drain: it neither returns
  // early nor throws away B and C.
  Latch secondReturned;
  std::vector<std::string> seenBySecond;
  std::thread second([&] {
    q.Abort();
    seenBySecond = q.Done();
    secondReturned.Open();
  });
  EXPECT_FALSE(secondReturned.WaitFor(200));
  hold.Open();
  aborter.join();
  second.join();
  EXPECT_EQ((std::vector<std::string>{"A", "B", "C"}), seenBySecond);
  EXPECT_EQ((std::vector<std::string>{"A", "B", "C"}), q.Done());
  EXPECT_EQ(nullptr, q.GetThreadId());
  EXPECT_FALSE(Listed(") StmtQueue: Exec Stmt Thread (db)"));

  ASSERT_EQ(1, q.Start());
  EXPECT_EQ(1, q.IsStarted());
  EXPECT_EQ(1, q.Start());  // already started
  ASSERT_EQ(1, q.Add(new Item("D")));
  q.Abort();
  EXPECT_EQ((std::vector<std::string>{"A", "B", "C", "D"}), q.Done());
  q.Abort();  // twice: nothing more
}

TEST(StmtQueue, AbortFromInsideExecStmtStopsWithoutWaitingOnItself) {
  Recorder q("  ");
  EXPECT_TRUE(Listed(") StmtQueue: Exec Stmt Thread"));  // no name: no parentheses
  ASSERT_EQ(1, q.Add(new Item("stop")));
  ASSERT_TRUE(Eventually([&] { return q.Done().size() == 1; }));
  Item refused("refused");
  EXPECT_EQ(0, q.Add(&refused));
  // The thread finishes by itself; Start joins it and brings a new one.
  ASSERT_EQ(1, q.Start());
  ASSERT_EQ(1, q.Add(new Item("again")));
  q.Abort();
  EXPECT_EQ((std::vector<std::string>{"stop", "again"}), q.Done());
}

// Counts what it runs; an item named "die" deletes the queue itself.
class Counter : public StmtQueue {
public:
  Counter() : StmtQueue(0, "count") {}
  ~Counter() override { Abort(); }
  void ExecStmt(XObj *item) override {
    char desc[16];
    if (std::string(item->GetDesc(desc, sizeof desc)) == "die") {
      delete this;
      return;
    }
    ++executed;
  }
  std::atomic<int> executed{0};
};

TEST(StmtQueue, AbortRacingStartNeitherHangsNorDropsAcceptedItems) {
  constexpr int kRounds = 2000;
  Counter q;
  std::atomic<int> accepted{0};
  std::atomic<bool> done{false};
  {
    std::vector<std::jthread> threads;
    threads.emplace_back([&] {
      for (int i = 0; i < kRounds; ++i)
        q.Abort();
    });
    threads.emplace_back([&] {
      for (int i = 0; i < kRounds; ++i)
        q.Start();
    });
    threads.emplace_back([&] {
      while (!done) {
        auto *item = new Item("x");
        if (q.Add(item))
          ++accepted;
        else
          delete item;
      }
    });
    threads[0].join();
    threads[1].join();
    done = true;
  }
  q.Abort();
  // Every item Add accepted ran before the last Abort returned.
  EXPECT_EQ(accepted.load(), q.executed.load());
  EXPECT_EQ(0, g_itemsAlive.load());
}

TEST(StmtQueue, DestroyedFromInsideExecStmt) {
  auto *q = new Counter;
  Latch hold;
  struct Holder : Item {
    explicit Holder(Latch *l) : Item("hold"), latch(l) {}
    char const *GetDesc(char *buf, unsigned size) override {
      EXPECT_TRUE(latch->Wait());  // keeps the queue busy until "die" and "never" are queued
      return Item::GetDesc(buf, size);
    }
    Latch *latch;
  };
  ASSERT_EQ(1, q->Add(new Holder(&hold)));
  ASSERT_EQ(1, q->Add(new Item("die")));
  ASSERT_EQ(1, q->Add(new Item("never")));  // behind the one that deletes the queue
  hold.Open();
  // The thread lets go of the queue and ends; nothing is left behind.
  EXPECT_TRUE(Eventually([] { return g_itemsAlive.load() == 0; }));
  EXPECT_TRUE(Eventually([] { return !Listed(") StmtQueue: Exec Stmt Thread (count)"); }));
}

TEST(XStrStmtQueueObj, DescriptionFitsTheBuffer) {
  XStrStmtQueueObj obj("select 1   ");
  char buf[8];
  EXPECT_STREQ("select", obj.GetDesc(buf, 7));  // 6 characters and a NUL, trailing blank trimmed
  EXPECT_STREQ("", XStrStmtQueueObj(nullptr).GetDesc(buf, sizeof buf));
}

}  // namespace
