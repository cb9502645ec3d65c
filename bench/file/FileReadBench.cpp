// Loading a configuration-sized file and walking it line by line: one
// allocation per load (the buffer and its shared count), none per line.
#include "common/AllocCounter.h"

#include <sharedlib.h>

#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <string>
#include <unistd.h>

namespace {

// A file of state.range(0) lines of about 60 bytes with CR LF ends.
class LinesFile {
public:
  explicit LinesFile(long lines) {
    char dir[] = "/tmp/sharedlib-bench-XXXXXX";
    if (::mkdtemp(dir))
      dir_ = dir;
    path_ = dir_ + "/lines.txt";
    std::FILE *f = std::fopen(path_.c_str(), "wb");
    for (long i = 0; f && i < lines; ++i)
      std::fprintf(f, "key%06ld = some configuration value of moderate length\r\n", i);
    if (f)
      std::fclose(f);
  }
  ~LinesFile() {
    std::remove(path_.c_str());
    ::rmdir(dir_.c_str());
  }
  char const *path() const { return path_.c_str(); }

private:
  std::string dir_;
  std::string path_;
};

void BM_FileReadLoadAndWalk(benchmark::State &state) {
  LinesFile file(state.range(0));
  char line[256];
  std::uint64_t before = bench::AllocationCount();
  long lines = 0;
  for (auto _ : state) {
    FileRead f(file.path(), O_RDONLY);
    while (f.read_line(line, sizeof line) > 0)
      ++lines;
  }
  benchmark::DoNotOptimize(lines);
  state.counters["lines/s"] = benchmark::Counter(static_cast<double>(lines), benchmark::Counter::kIsRate);
  state.counters["allocs/load"] = benchmark::Counter(
      static_cast<double>(bench::AllocationCount() - before) / static_cast<double>(state.iterations()));
}
BENCHMARK(BM_FileReadLoadAndWalk)->Arg(100)->Arg(100000);

}  // namespace

BENCHMARK_MAIN();
