// Descriptor-set churn: what an accept plus a close costs the controller's
// active set (fdVector::set of a new socket, clr of an old one from the
// middle of the set, and an isset of each) with 100 and with 10,000 sockets
// held, beside std::unordered_set doing the same in the same run.
#include <sharedlib.h>

#include <benchmark/benchmark.h>

#include <unordered_set>
#include <vector>

namespace {

// Numbers 0..held are in use but one: each iteration adds the free number
// (as the system hands out a freed descriptor again) and removes the oldest
// socket, so the set keeps its size.
template <typename Add, typename Remove, typename Has>
void Churn(benchmark::State &state, Add add, Remove remove, Has has) {
  unsigned const held = static_cast<unsigned>(state.range(0));
  for (unsigned fd = 0; fd < held; ++fd)
    add(fd);
  unsigned free = held;
  for (auto _ : state) {
    add(free);
    benchmark::DoNotOptimize(has(free));
    free = free == held ? 0 : free + 1;  // the oldest
    remove(free);
    benchmark::DoNotOptimize(has(free));
  }
  state.SetItemsProcessed(state.iterations());
}

void BM_FdVectorChurn(benchmark::State &state) {
  fdVector v;
  Churn(
      state, [&](unsigned fd) { v.set(fd); }, [&](unsigned fd) { v.clr(fd); },
      [&](unsigned fd) { return v.isset(fd); });
}
BENCHMARK(BM_FdVectorChurn)->Arg(100)->Arg(10000);

void BM_UnorderedSetChurn(benchmark::State &state) {
  std::unordered_set<unsigned> s;
  Churn(
      state, [&](unsigned fd) { s.insert(fd); }, [&](unsigned fd) { s.erase(fd); },
      [&](unsigned fd) { return s.count(fd); });
}
BENCHMARK(BM_UnorderedSetChurn)->Arg(100)->Arg(10000);

}  // namespace

BENCHMARK_MAIN();
