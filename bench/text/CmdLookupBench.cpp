// Look-up of every server command keyword, as received (mixed case): the
// hashed index, the linear table search, and a case-insensitive
// std::unordered_map for comparison. One iteration looks up all 108.
#include "common/AllocCounter.h"

#include <sharedlib.h>

#include <benchmark/benchmark.h>

#include <cctype>
#include <cstddef>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace {

std::vector<std::string> ReceivedKeywords() {
  std::vector<std::string> words;
  for (int i = 0; srvcmd_vet[i].name[0]; ++i) {
    std::string w = srvcmd_vet[i].name;
    for (std::size_t k = 0; k < w.size(); k += 2)
      w[k] = static_cast<char>(std::tolower(static_cast<unsigned char>(w[k])));
    words.push_back(w);
  }
  return words;
}

struct CaseHash {
  using is_transparent = void;
  std::size_t operator()(std::string_view s) const {
    std::size_t h = 14695981039346656037ull;
    for (char c : s)
      h = (h ^ static_cast<unsigned char>(std::toupper(static_cast<unsigned char>(c)))) * 1099511628211ull;
    return h;
  }
};

struct CaseEqual {
  using is_transparent = void;
  bool operator()(std::string_view a, std::string_view b) const {
    if (a.size() != b.size())
      return false;
    for (std::size_t i = 0; i < a.size(); ++i)
      if (std::toupper(static_cast<unsigned char>(a[i])) != std::toupper(static_cast<unsigned char>(b[i])))
        return false;
    return true;
  }
};

template <class Lookup>
void Run(benchmark::State &state, Lookup lookup) {
  auto const words = ReceivedKeywords();
  std::uint64_t const before = bench::AllocationCount();
  for (auto _ : state)
    for (auto const &w : words)
      benchmark::DoNotOptimize(lookup(w.c_str()));
  state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations() * words.size()));
  state.counters["allocs/op"] = benchmark::Counter(
      static_cast<double>(bench::AllocationCount() - before) / static_cast<double>(state.iterations()));
}

void BM_HashCmd(benchmark::State &state) {
  Hash_cmd hash(srvcmd_vet);
  Run(state, [&hash](char const *w) { return hash.search(w); });
}
BENCHMARK(BM_HashCmd);

void BM_SearchCmdSeq(benchmark::State &state) {
  Run(state, [](char const *w) { return search_cmd_seq(w, srvcmd_vet); });
}
BENCHMARK(BM_SearchCmdSeq);

void BM_UnorderedMapNoCase(benchmark::State &state) {
  std::unordered_map<std::string, unsigned, CaseHash, CaseEqual> map;
  for (int i = 0; srvcmd_vet[i].name[0]; ++i)
    map.emplace(srvcmd_vet[i].name, srvcmd_vet[i].code);
  Run(state, [&map](char const *w) {
    auto it = map.find(std::string_view(w));
    return it == map.end() ? 0u : it->second;
  });
}
BENCHMARK(BM_UnorderedMapNoCase);

}  // namespace

BENCHMARK_MAIN();
