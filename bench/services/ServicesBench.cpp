// Throughput of the checksums and encodings, and their heap use (none).
#include "common/AllocCounter.h"

#include <sharedlib.h>

#include <benchmark/benchmark.h>

#include <string>
#include <vector>

namespace {

std::vector<unsigned char> Payload(std::size_t n) {
  std::vector<unsigned char> v(n);
  for (std::size_t i = 0; i < n; ++i)
    v[i] = static_cast<unsigned char>(i * 131 + 7);
  return v;
}

void CountAllocs(benchmark::State &state, std::uint64_t before) {
  state.counters["allocs/op"] = benchmark::Counter(
      static_cast<double>(bench::AllocationCount() - before) / static_cast<double>(state.iterations()));
}

void BM_Adler32(benchmark::State &state) {
  auto data = Payload(static_cast<std::size_t>(state.range(0)));
  std::uint64_t before = bench::AllocationCount();
  for (auto _ : state)
    benchmark::DoNotOptimize(adler32(0, data.data(), data.size()));
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) * state.range(0));
  CountAllocs(state, before);
}
BENCHMARK(BM_Adler32)->Arg(4093)->Arg(1 << 20);

void BM_Sha1(benchmark::State &state) {
  auto data = Payload(static_cast<std::size_t>(state.range(0)));
  unsigned char digest[SHA1::kDigestSize];
  std::uint64_t before = bench::AllocationCount();
  for (auto _ : state) {
    DoSHA1(data.data(), data.size(), digest);
    benchmark::DoNotOptimize(digest);
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) * state.range(0));
  CountAllocs(state, before);
}
BENCHMARK(BM_Sha1)->Arg(64)->Arg(1 << 20);

void BM_Encode64(benchmark::State &state) {
  auto data = Payload(static_cast<std::size_t>(state.range(0)));
  std::string out(Base64EncodedSize(data.size()), '\0');
  std::uint64_t before = bench::AllocationCount();
  for (auto _ : state)
    benchmark::DoNotOptimize(encode64(data.data(), static_cast<unsigned>(data.size()), out.data(),
                                      static_cast<unsigned>(out.size())));
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) * state.range(0));
  CountAllocs(state, before);
}
BENCHMARK(BM_Encode64)->Arg(94)->Arg(1 << 20);

void BM_Decode64(benchmark::State &state) {
  auto data = Payload(static_cast<std::size_t>(state.range(0)));
  std::string text(Base64EncodedSize(data.size()), '\0');
  int len = encode64(data.data(), static_cast<unsigned>(data.size()), text.data(),
                     static_cast<unsigned>(text.size()));
  std::vector<unsigned char> out(data.size());
  std::uint64_t before = bench::AllocationCount();
  for (auto _ : state)
    benchmark::DoNotOptimize(decode64(text.data(), static_cast<unsigned>(len), out.data(),
                                      static_cast<unsigned>(out.size())));
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) * state.range(0));
  CountAllocs(state, before);
}
BENCHMARK(BM_Decode64)->Arg(96)->Arg(1 << 20);

}  // namespace

BENCHMARK_MAIN();
