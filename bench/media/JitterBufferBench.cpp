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
#include <map>
#include <string>
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

// One insert above the highest plus one pop of the lowest with range(0)
// packets held, in a buffer of capacity 20,000 (the cost should not depend
// on how many are held). 160-byte packets.
constexpr unsigned kCapacity = 20000;
constexpr unsigned kSmall = 160;

void BM_JitterBufferInsertPopHeld(benchmark::State &state) {
  auto const held = static_cast<std::uint32_t>(state.range(0));
  JitterBuffer jb(kCapacity, kSmall);
  std::vector<char> packet(kSmall, 'p');
  std::vector<char> out(kSmall);
  std::uint32_t seq = 1;
  for (; seq <= held; ++seq)
    jb.insert(seq, packet.data(), kSmall);
  for (auto _ : state) {
    jb.insert(seq++, packet.data(), kSmall);
    unsigned len = kSmall;
    benchmark::DoNotOptimize(jb.popfirst(out.data(), &len));
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_JitterBufferInsertPopHeld)->Arg(10)->Arg(1000)->Arg(19999);

// The same with the ordered map a user would otherwise reach for.
void BM_StdMapInsertPopHeld(benchmark::State &state) {
  auto const held = static_cast<std::uint32_t>(state.range(0));
  std::map<std::uint32_t, std::string> jb;
  std::string const packet(kSmall, 'p');
  std::vector<char> out(kSmall);
  std::uint32_t seq = 1;
  for (; seq <= held; ++seq)
    jb.emplace(seq, packet);
  for (auto _ : state) {
    jb.emplace(seq++, packet);
    auto first = jb.begin();
    std::copy(first->second.begin(), first->second.end(), out.begin());
    jb.erase(first);
    benchmark::ClobberMemory();
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_StdMapInsertPopHeld)->Arg(10)->Arg(1000)->Arg(19999);

}  // namespace

BENCHMARK_MAIN();
