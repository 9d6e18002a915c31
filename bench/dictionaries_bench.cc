// Encoding a column of 10,000,000 int values through a dictionary, chunk by chunk as a
// dictionary chunker hands them over (65,536 values per EncodeChunk call), with 1,000 or
// 1,000,000 distinct values in random order (fixed seed). "Fresh" starts from an empty table
// each time, so the growth of the table is part of the figure, as in a real export; "Warm"
// encodes into a table that already holds every value. std::unordered_map does the same
// encoding as the reference.
#include <benchmark/benchmark.h>

#include <climits>
#include <cstdint>
#include <map>
#include <random>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "dictionaries/khash_hash.h"

namespace qopci {
namespace {

constexpr size_t kValues = 10'000'000;
constexpr uint64_t kChunk = 65'536;
constexpr int kNull = INT_MIN;

// kValues draws from `distinct` random ints, every one of them drawn at least once.
const std::vector<int>& Column(size_t distinct) {
  static std::map<size_t, std::vector<int>> columns;
  std::vector<int>& column = columns[distinct];
  if (!column.empty()) return column;
  std::mt19937_64 rng(20261123);
  std::unordered_set<int> seen;
  std::vector<int> keys;
  while (keys.size() < distinct) {
    const int k = static_cast<int>(rng());
    if (k != kNull && seen.insert(k).second) keys.push_back(k);
  }
  column.resize(kValues);
  for (size_t i = 0; i < kValues; ++i) column[i] = i < distinct ? keys[i] : keys[rng() % distinct];
  std::shuffle(column.begin(), column.end(), rng);
  return column;
}

// The buffers a chunker passes: one chunk of codes and room for one chunk of new values.
struct Buffers {
  std::vector<int> codes = std::vector<int>(kChunk);
  std::vector<int> new_values = std::vector<int>(kChunk);
  std::vector<int> new_codes = std::vector<int>(kChunk);
};

void EncodeColumn(KhashHash<int, int>* table, const std::vector<int>& column, Buffers* b) {
  int next = 1;
  for (size_t at = 0; at < column.size(); at += kChunk) {
    const uint64_t n = std::min<uint64_t>(kChunk, column.size() - at);
    uint64_t new_count = 0;
    table->EncodeChunk(column.data() + at, next, b->codes.data(), n, b->new_values.data(),
                       b->new_codes.data(), &new_count, 0, kNull);
    next += static_cast<int>(new_count);
    benchmark::DoNotOptimize(b->codes.data());
  }
}

// The same encoding through std::unordered_map: nulls skipped, new values listed.
void EncodeColumn(std::unordered_map<int, int>* map, const std::vector<int>& column, Buffers* b) {
  int next = 1;
  for (size_t at = 0; at < column.size(); at += kChunk) {
    const uint64_t n = std::min<uint64_t>(kChunk, column.size() - at);
    const int* values = column.data() + at;
    uint64_t new_count = 0;
    for (uint64_t i = 0; i < n; ++i) {
      if (values[i] == kNull) {
        b->codes[i] = 0;
        continue;
      }
      auto [it, added] = map->try_emplace(values[i], next);
      if (added) {
        b->new_values[new_count] = values[i];
        b->new_codes[new_count++] = next++;
      }
      b->codes[i] = it->second;
    }
    benchmark::DoNotOptimize(b->codes.data());
  }
}

template <typename Table>
void BM_Fresh(benchmark::State& state) {
  const std::vector<int>& column = Column(static_cast<size_t>(state.range(0)));
  Buffers buffers;
  for (auto _ : state) {
    Table table(false);
    EncodeColumn(&table, column, &buffers);
  }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * kValues));
}

template <typename Table>
void BM_Warm(benchmark::State& state) {
  const std::vector<int>& column = Column(static_cast<size_t>(state.range(0)));
  Buffers buffers;
  Table table(false);
  EncodeColumn(&table, column, &buffers);
  for (auto _ : state) EncodeColumn(&table, column, &buffers);
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * kValues));
}

// unordered_map has no hashes_nulls constructor argument: give it one.
struct StdMap : std::unordered_map<int, int> {
  explicit StdMap(bool) {}
};
void EncodeColumn(StdMap* map, const std::vector<int>& column, Buffers* b) {
  EncodeColumn(static_cast<std::unordered_map<int, int>*>(map), column, b);
}

BENCHMARK(BM_Fresh<KhashHash<int, int>>)->Arg(1'000)->Arg(1'000'000)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Fresh<StdMap>)->Arg(1'000)->Arg(1'000'000)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Warm<KhashHash<int, int>>)->Arg(1'000)->Arg(1'000'000)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Warm<StdMap>)->Arg(1'000)->Arg(1'000'000)->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace qopci

BENCHMARK_MAIN();
