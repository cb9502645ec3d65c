// JitterBuffer throughput: 1,400-byte packets inserted in shuffled order
// within a window of 32, then released in order, with heap allocations per
// packet once the buffer is warm.
//
// One benchmark iteration is one window: 32 inserts (sequence numbers of the
// window in one of a few precomputed shuffles), then 32 popfirst calls that
// must come out ascending. Items are packets.
#include "common/AllocCounter.h"

#include <sharedlib.h>

#include <benchmark/benchmark.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <random>
#include <vector>

namespace {

constexpr unsigned kPacket = 1400;
constexpr unsigned kWindow = 32;
constexpr unsigned kShuffles = 16;

using Shuffle = std::array<std::uint32_t, kWindow>;

std::vector<Shuffle> MakeShuffles() {
  std::vector<Shuffle> out(kShuffles);
  std::mt19937 rng(12345);
  for (auto &s : out) {
    for (unsigned i = 0; i < kWindow; ++i)
      s[i] = i;
    std::shuffle(s.begin(), s.end(), rng);
  }
  return out;
}

// Inserts one shuffled window above base and releases it in order; false
// when something came out of order (the benchmark then reports an error).
bool RunWindow(JitterBuffer &jb, Shuffle const &order, std::uint32_t base, char const *packet, char *out) {
  for (std::uint32_t offset : order)
    jb.insert(base + offset + 1, packet, kPacket);
  for (std::uint32_t i = 1; i <= kWindow; ++i) {
    unsigned len = kPacket;
    if (jb.popfirst(out, &len) != base + i)
      return false;
  }
  return true;
}

void BM_JitterBufferShuffledWindow(benchmark::State &state) {
  auto const shuffles = MakeShuffles();
  JitterBuffer jb(kWindow, kPacket);
  std::vector<char> packet(kPacket, 'p');
  std::vector<char> out(kPacket);
  std::uint32_t base = 0;
  // Warm up: every slot the windows need has been allocated and recycled.
  for (unsigned i = 0; i < kShuffles; ++i, base += kWindow)
    RunWindow(jb, shuffles[i], base, packet.data(), out.data());

  std::uint64_t const before = bench::AllocationCount();
  unsigned next = 0;
  for (auto _ : state) {
    if (!RunWindow(jb, shuffles[next], base, packet.data(), out.data())) {
      state.SkipWithError("packets released out of order");
      break;
    }
    next = (next + 1) % kShuffles;
    base += kWindow;
    benchmark::ClobberMemory();
  }
  double const packets = static_cast<double>(state.iterations()) * kWindow;
  state.counters["allocs/pkt"] =
      benchmark::Counter(static_cast<double>(bench::AllocationCount() - before) / packets);
  state.counters["pkts/s"] = benchmark::Counter(packets, benchmark::Counter::kIsRate);
  state.SetItemsProcessed(static_cast<std::int64_t>(packets));
}
BENCHMARK(BM_JitterBufferShuffledWindow);

}  // namespace

BENCHMARK_MAIN();
