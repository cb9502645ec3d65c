// Costs of the thread layer: sorted-table look-ups (the pool's and the
// server's user table), starting and joining one thread, a pool job from
// start to reaping, and one statement through a queue.
#include "common/AllocCounter.h"

#include "thread/SVectorT.h"
#include "thread/StmtQueue.h"
#include "thread/Thread.h"
#include "thread/ThreadPool.h"

#include <benchmark/benchmark.h>

#include <atomic>
#include <memory>
#include <random>
#include <thread>
#include <vector>

namespace {

// Search by object address in a table of n entries.
void BM_SVectorTSearch(benchmark::State &state) {
  auto const n = static_cast<std::size_t>(state.range(0));
  std::vector<std::unique_ptr<int>> objects;
  SVectorT<int *, int> table;
  for (std::size_t i = 0; i < n; ++i) {
    objects.push_back(std::make_unique<int>(0));
    table.insert(objects.back().get(), static_cast<int>(i));
  }
  std::mt19937 rng(1);
  std::size_t i = 0;
  for (auto _ : state) {
    int value = 0;
    benchmark::DoNotOptimize(table.search(objects[i].get(), &value));
    i = (i + rng()) % n;
  }
}
BENCHMARK(BM_SVectorTSearch)->Arg(100)->Arg(1000)->Arg(10000);

// Insert then erase one key in a table of n entries (the data move dominates).
void BM_SVectorTInsertErase(benchmark::State &state) {
  auto const n = static_cast<unsigned>(state.range(0));
  SVectorT<unsigned, unsigned> table;
  for (unsigned i = 0; i < n; ++i)
    table.insert(i * 2, i);
  std::mt19937 rng(2);
  std::uint64_t const before = bench::AllocationCount();
  for (auto _ : state) {
    unsigned const k = (rng() % n) * 2 + 1;
    table.insert(k, 0);
    table.erase(k, 0);
  }
  state.counters["allocs/op"] = benchmark::Counter(static_cast<double>(bench::AllocationCount() - before),
                                                   benchmark::Counter::kAvgIterations);
}
BENCHMARK(BM_SVectorTInsertErase)->Arg(100)->Arg(1000)->Arg(10000);

int Nothing(IThread *, void *) { return 0; }

void BM_CreateResumeJoinThread(benchmark::State &state) {
  for (auto _ : state) {
    IThread *t = CreateIThread(Nothing, nullptr, 1, "bench");
    t->WaitForMe(IThread::kInfinite);
    delete t;
  }
}
BENCHMARK(BM_CreateResumeJoinThread)->UseRealTime();

struct Done {
  std::atomic<long> deleted{0};
};

class QuickJob : public IThreadObj {
public:
  explicit QuickJob(Done &d) : IThreadObj("bench job"), done_(d) {}
  ~QuickJob() override { done_.deleted.fetch_add(1, std::memory_order_release); }
  int ThreadFunc() override { return 0; }

private:
  Done &done_;
};

// One job from StartThread until the reaper has joined and deleted it.
void BM_ThreadPoolJobToReaped(benchmark::State &state) {
  ThreadPool pool;
  Done done;
  long started = 0;
  for (auto _ : state) {
    pool.StartThread(new QuickJob(done));
    ++started;
    while (done.deleted.load(std::memory_order_acquire) != started)
      std::this_thread::yield();
  }
}
BENCHMARK(BM_ThreadPoolJobToReaped)->UseRealTime();

class CountingQueue : public StmtQueue {
public:
  CountingQueue() : StmtQueue(0, "bench") {}
  ~CountingQueue() override { Abort(); }
  void ExecStmt(XObj *) override { executed.fetch_add(1, std::memory_order_release); }
  std::atomic<long> executed{0};
};

// Statements added back to back and drained by the queue's thread.
void BM_StmtQueueThroughput(benchmark::State &state) {
  CountingQueue queue;
  long added = 0;
  for (auto _ : state) {
    queue.Add(new XStrStmtQueueObj("update t set x = 1"));
    ++added;
  }
  while (queue.executed.load(std::memory_order_acquire) != added)
    std::this_thread::yield();
  state.SetItemsProcessed(added);
}
BENCHMARK(BM_StmtQueueThroughput)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
