// Packet store throughput: insert + pop of 1,400-byte packets in a CLBuffer
// (one slot per packet) against a std::map of vectors doing the same work,
// with heap allocations per packet in the steady state.
//
// A window of kInFlight packets is held throughout, as in a jitter buffer.
// Argument 0 inserts in sequence order; argument 1 swaps every pair of
// packets, so half the inserts land below the highest id held.
#include "common/AllocCounter.h"

#include <sharedlib.h>

#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstring>
#include <map>
#include <vector>

namespace {

constexpr unsigned kPacket = 1400;
constexpr unsigned kInFlight = 64;

// Sequence number of the i-th packet sent (1-based), with pairs swapped
// when reordered.
std::uint32_t SeqAt(std::uint32_t i, bool reordered) {
  if (!reordered)
    return i;
  return (i & 1u) ? i + 1 : i - 1;
}

void Report(benchmark::State &state, std::uint64_t allocsBefore) {
  double packets = static_cast<double>(state.iterations());
  state.counters["allocs/pkt"] =
      benchmark::Counter(static_cast<double>(bench::AllocationCount() - allocsBefore) / packets);
  state.SetItemsProcessed(state.iterations());
  state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(kPacket));
}

void BM_CLBufferInsertPop(benchmark::State &state) {
  bool const reordered = state.range(0) != 0;
  CLBuffer store(kPacket, kInFlight * 2, 0, 1, 0, 0, 16);
  std::vector<char> packet(kPacket, 'p');
  char out[kPacket];
  std::uint32_t sent = 1;
  for (; sent <= kInFlight; ++sent)
    store.insert(SeqAt(sent, reordered), packet.data(), kPacket, kPacket);

  std::uint64_t before = bench::AllocationCount();
  for (auto _ : state) {
    store.insert(SeqAt(sent++, reordered), packet.data(), kPacket, kPacket);
    unsigned len = kPacket;
    benchmark::DoNotOptimize(store.popfirst(out, &len));
    benchmark::ClobberMemory();
  }
  Report(state, before);
}
BENCHMARK(BM_CLBufferInsertPop)->Arg(0)->Arg(1);

void BM_StdMapInsertPop(benchmark::State &state) {
  bool const reordered = state.range(0) != 0;
  std::map<std::uint32_t, std::vector<char>> store;
  std::vector<char> packet(kPacket, 'p');
  char out[kPacket];
  std::uint32_t sent = 1;
  for (; sent <= kInFlight; ++sent)
    store.emplace(SeqAt(sent, reordered), std::vector<char>(packet.begin(), packet.end()));

  std::uint64_t before = bench::AllocationCount();
  for (auto _ : state) {
    store.emplace(SeqAt(sent++, reordered), std::vector<char>(packet.begin(), packet.end()));
    auto lowest = store.begin();
    std::memcpy(out, lowest->second.data(), lowest->second.size());
    benchmark::DoNotOptimize(lowest->first);
    store.erase(lowest);
    benchmark::ClobberMemory();
  }
  Report(state, before);
}
BENCHMARK(BM_StdMapInsertPop)->Arg(0)->Arg(1);

}  // namespace

BENCHMARK_MAIN();
