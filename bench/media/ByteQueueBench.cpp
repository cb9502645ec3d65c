// Byte queues under a backlog: one write plus one read with a small and a
// multi-megabyte backlog held throughout, next to the standard container a
// user would otherwise queue bytes in. The cost should not depend on the
// backlog.
//
//   FragQueue: 1,400-byte media packets (short framing, growable queue)
//              against std::deque<std::vector<char>>.
//   BinBuf_reg: 64-byte writes and reads (growable register) against
//              std::deque<char>.
//
// range(0) is the backlog in bytes. Items are write+read pairs.
#include <sharedlib.h>

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <deque>
#include <vector>

namespace {

constexpr unsigned kPacket = 1400;
constexpr unsigned kChunk = 64;

std::vector<char> MediaPacket() {
  std::vector<char> p(kPacket, 'm');
  unsigned const len = kPacket - 12;  // little-endian length after the 12-byte header
  p[8] = static_cast<char>(len & 0xFF);
  p[9] = static_cast<char>(len >> 8);
  return p;
}

void BM_FragQueueWriteRead(benchmark::State &state) {
  auto const backlog = static_cast<unsigned>(state.range(0));
  FragQueue q(64 * 1024, 0, 1, 0);
  auto const pkt = MediaPacket();
  for (unsigned held = 0; held + kPacket <= backlog; held += kPacket)
    q.Write(pkt.data(), kPacket);
  char *buf = static_cast<char *>(std::malloc(kPacket));
  unsigned cap = kPacket;
  for (auto _ : state) {
    q.Write(pkt.data(), kPacket);
    cap = kPacket;
    if (q.Read(&buf, &cap, 0) != 1) {
      state.SkipWithError("no packet read");
      break;
    }
    benchmark::DoNotOptimize(buf);
  }
  std::free(buf);
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_FragQueueWriteRead)->Arg(4 * kPacket)->Arg(2000 * kPacket);

void BM_DequeOfPacketsWriteRead(benchmark::State &state) {
  auto const backlog = static_cast<unsigned>(state.range(0));
  std::deque<std::vector<char>> q;
  auto const pkt = MediaPacket();
  for (unsigned held = 0; held + kPacket <= backlog; held += kPacket)
    q.push_back(pkt);
  std::vector<char> buf(kPacket);
  for (auto _ : state) {
    q.push_back(pkt);
    std::copy(q.front().begin(), q.front().end(), buf.begin());
    q.pop_front();
    benchmark::DoNotOptimize(buf.data());
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_DequeOfPacketsWriteRead)->Arg(4 * kPacket)->Arg(2000 * kPacket);

void BM_BinBufWriteRead(benchmark::State &state) {
  auto const backlog = static_cast<unsigned>(state.range(0));
  BinBuf_reg reg(4096, 1, 0, 0);
  std::vector<char> chunk(kChunk, 'b');
  for (unsigned held = 0; held + kChunk <= backlog; held += kChunk)
    reg.SaveData(chunk.data(), kChunk);
  char out[kChunk];
  for (auto _ : state) {
    reg.SaveData(chunk.data(), kChunk);
    unsigned len = kChunk;
    if (reg.GetData(out, &len) != 1) {
      state.SkipWithError("nothing read");
      break;
    }
    benchmark::DoNotOptimize(out);
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_BinBufWriteRead)->Arg(64 * 1024)->Arg(4 * 1024 * 1024);

void BM_DequeBytesWriteRead(benchmark::State &state) {
  auto const backlog = static_cast<unsigned>(state.range(0));
  std::deque<char> q(backlog, 'b');
  std::vector<char> chunk(kChunk, 'b');
  char out[kChunk];
  for (auto _ : state) {
    q.insert(q.end(), chunk.begin(), chunk.end());
    std::copy(q.begin(), q.begin() + kChunk, out);
    q.erase(q.begin(), q.begin() + kChunk);
    benchmark::DoNotOptimize(out);
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_DequeBytesWriteRead)->Arg(64 * 1024)->Arg(4 * 1024 * 1024);

}  // namespace

BENCHMARK_MAIN();
