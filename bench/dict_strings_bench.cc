// Coding throughput of the string dictionary's table (KHash::EncodeChunk, no store) over 10
// million strings of 8 to 12 bytes with 1,000 distinct, in chunks as the string dictionary
// chunker hands them, against std::unordered_map<std::string_view, unsigned> doing the same
// work (null test, code lookup, new lists) over the same rows.
// Two row layouts: every row points at one of the 1,000 strings (a column whose strings the
// host already shares), or every row has its own copy (10 million strings in one arena).
#include <benchmark/benchmark.h>

#include <cstring>
#include <random>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "dictionaries/khash.h"

namespace qopci {
namespace {

constexpr size_t kRows = 10'000'000;
constexpr size_t kDistinct = 1000;
constexpr size_t kChunk = 1 << 16;
constexpr unsigned kNullCode = 0x80000000u;
char kNil[] = "\x80";

struct Rows {
  std::vector<std::string> distinct;
  std::vector<char> arena;  // the own-copy layout's strings
  std::vector<char*> shared, copied;
};

const Rows& Input() {
  static const Rows rows = [] {
    Rows r;
    std::mt19937 rng(1);
    while (r.distinct.size() < kDistinct) {
      std::string s(std::uniform_int_distribution<int>(8, 12)(rng), ' ');
      for (char& c : s) c = static_cast<char>(std::uniform_int_distribution<int>('0', 'z')(rng));
      if (std::find(r.distinct.begin(), r.distinct.end(), s) == r.distinct.end()) {
        r.distinct.push_back(s);
      }
    }
    std::vector<uint32_t> pick(kRows);
    size_t arena_bytes = 0;
    for (uint32_t& p : pick) {
      p = rng() % kDistinct;
      arena_bytes += r.distinct[p].size() + 1;
    }
    r.arena.resize(arena_bytes);
    r.shared.reserve(kRows);
    r.copied.reserve(kRows);
    char* at = r.arena.data();
    for (uint32_t p : pick) {
      std::string& s = r.distinct[p];
      r.shared.push_back(s.data());
      std::memcpy(at, s.c_str(), s.size() + 1);
      r.copied.push_back(at);
      at += s.size() + 1;
    }
    return r;
  }();
  return rows;
}

const std::vector<char*>& Layout(const benchmark::State& state) {
  return state.range(0) == 0 ? Input().shared : Input().copied;
}

void BM_KHashEncodeChunk(benchmark::State& state) {
  const std::vector<char*>& rows = Layout(state);
  std::vector<unsigned> codes(kChunk), new_codes(kChunk);
  std::vector<char*> new_values(kChunk);
  for (auto _ : state) {
    KHash table(0, false);
    unsigned next = 1;
    for (size_t at = 0; at < rows.size(); at += kChunk) {
      const size_t n = std::min(kChunk, rows.size() - at);
      uint64_t new_count = 0;
      table.EncodeChunk(rows.data() + at, next, codes.data(), n, new_values.data(),
                        new_codes.data(), &new_count, kNullCode, kNil);
      next += static_cast<unsigned>(new_count);
      benchmark::DoNotOptimize(codes.data());
    }
    if (table.Size() != kDistinct) state.SkipWithError("wrong dictionary size");
  }
  state.SetItemsProcessed(state.iterations() * rows.size());
}

void BM_UnorderedMapReference(benchmark::State& state) {
  const std::vector<char*>& rows = Layout(state);
  std::vector<unsigned> codes(kChunk), new_codes(kChunk);
  std::vector<char*> new_values(kChunk);
  for (auto _ : state) {
    std::unordered_map<std::string_view, unsigned> table;
    unsigned next = 1;
    for (size_t at = 0; at < rows.size(); at += kChunk) {
      const size_t n = std::min(kChunk, rows.size() - at);
      uint64_t new_count = 0;
      for (size_t i = 0; i < n; ++i) {
        char* s = rows[at + i];
        if (s[0] == kNil[0] && s[1] == kNil[1]) {
          codes[i] = kNullCode;
          continue;
        }
        auto [it, fresh] = table.try_emplace(std::string_view(s), next);
        if (fresh) {
          new_values[new_count] = s;
          new_codes[new_count++] = next++;
        }
        codes[i] = it->second;
      }
      benchmark::DoNotOptimize(codes.data());
    }
    if (table.size() != kDistinct) state.SkipWithError("wrong dictionary size");
  }
  state.SetItemsProcessed(state.iterations() * rows.size());
}

BENCHMARK(BM_KHashEncodeChunk)
    ->ArgName("own_copies")
    ->Arg(0)
    ->Arg(1)
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_UnorderedMapReference)
    ->ArgName("own_copies")
    ->Arg(0)
    ->Arg(1)
    ->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace qopci

BENCHMARK_MAIN();
