// Throughput of StringHeap::AddString, the work every row of a string column does.
// Case (a): 10,000,000 rows drawn from 1,000 distinct strings of 4 to 10 bytes; the heap
// stays below 64 KiB, so every repeat is found through its chain. Reported as rows per
// second of one core.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "writers/string_heap.h"

namespace qopci {
namespace {

constexpr int64_t kRows = 10000000;
constexpr size_t kDistinct = 1000;
constexpr size_t kPattern = 1 << 20;  // row order, repeated; a power of two

struct Source {
  std::vector<std::string> strings;
  std::vector<const char*> rows;
};

const Source& Rows() {
  static const Source source = [] {
    Source s;
    uint64_t x = 88172645463325252ull;  // xorshift: the same rows on every run
    auto next = [&x] {
      x ^= x << 13;
      x ^= x >> 7;
      x ^= x << 17;
      return x;
    };
    std::set<std::string> seen;
    while (s.strings.size() < kDistinct) {
      std::string t(4 + next() % 7, ' ');
      for (char& c : t) c = static_cast<char>('a' + next() % 26);
      if (seen.insert(t).second) s.strings.push_back(t);
    }
    s.rows.resize(kPattern);
    for (const char*& r : s.rows) r = s.strings[next() % kDistinct].c_str();
    return s;
  }();
  return source;
}

void BM_StringHeapAdd(benchmark::State& state) {
  const Source& source = Rows();
  for (auto _ : state) {
    StringHeap heap(100000, 20, nullptr, 0);
    int64_t sum = 0;
    bool found;
    for (int64_t i = 0; i < kRows; i++)
      sum += heap.AddString(source.rows[i & (kPattern - 1)], &found);
    benchmark::DoNotOptimize(sum);
  }
  state.SetItemsProcessed(state.iterations() * kRows);
}
BENCHMARK(BM_StringHeapAdd)->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace qopci

BENCHMARK_MAIN();
