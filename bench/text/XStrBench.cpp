// Concatenation through XStrStatic needs no heap; XStrDyn appends grow exactly.
#include "common/AllocCounter.h"

#include <sharedlib.h>

#include <benchmark/benchmark.h>

namespace {

void BM_XStrStaticConcat(benchmark::State &state) {
  XStrDyn left("conference-room");
  std::uint64_t before = bench::AllocationCount();
  for (auto _ : state) {
    XStrStatic<16384> joined = left + "/" + left;
    benchmark::DoNotOptimize(joined.GetStr());
  }
  state.counters["allocs/op"] = benchmark::Counter(
      static_cast<double>(bench::AllocationCount() - before) / static_cast<double>(state.iterations()));
}
BENCHMARK(BM_XStrStaticConcat);

}  // namespace

BENCHMARK_MAIN();
