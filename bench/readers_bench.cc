// Cost per value of the result-column readers that feed the chunkers: RegularInternalReader
// over a 10,000,000-row int column read through a dense order BAT (rows in storage order)
// and through a permuted one (a random permutation, so every read lands somewhere else in
// the column), the same dense walk in runs (NextRun, what the copy uses), and
// RowIdInternalReader, which only counts. The sum of the values read is
// kept so that the reads cannot be optimised away.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <numeric>
#include <random>
#include <vector>

#include "corvid/farm.h"
#include "corvid/gdk.h"
#include "readers/internal_reader.h"

namespace qopci {
namespace {

constexpr BUN kRows = 10000000;

void Check(char* exception) {
  if (exception == nullptr) return;
  std::fprintf(stderr, "readers_bench: %s\n", exception);
  std::exit(1);
}

// The result column and both order BATs, made once and shared by every benchmark.
struct Fixture {
  bat column = 0;
  bat dense = 0;
  bat permuted = 0;

  Fixture() {
    std::vector<int> values(kRows);
    std::iota(values.begin(), values.end(), 0);
    Check(CVDbat_create(TYPE_int, nullptr, kRows, &column));
    Check(CVDbat_append_n(column, values.data(), kRows));
    Check(CVDbat_dense(0, kRows, &dense));
    std::vector<oid> order(kRows);
    std::iota(order.begin(), order.end(), oid{0});
    std::shuffle(order.begin(), order.end(), std::mt19937_64(2013));
    Check(CVDbat_create(TYPE_oid, nullptr, kRows, &permuted));
    Check(CVDbat_append_n(permuted, order.data(), kRows));
  }
};

Fixture& Data() {
  static Fixture* f = new Fixture();  // lives until the process ends
  return *f;
}

// Printed in seconds with an SI prefix: "6.5n" is 6.5 ns per value.
void ReportTimePerValue(benchmark::State& state) {
  const double values = static_cast<double>(state.iterations()) * static_cast<double>(kRows);
  state.SetItemsProcessed(static_cast<int64_t>(values));
  state.counters["time_per_value"] =
      benchmark::Counter(values, benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}

// Reads every value through the InternalReader interface, as the copy manager does; the
// hidden pointer keeps the compiler from seeing through the virtual calls.
template <typename V>
int64_t SumAll(InternalReader* reader) {
  benchmark::DoNotOptimize(reader);
  int64_t sum = 0;
  while (!reader->atEnd()) sum += *static_cast<const V*>(reader->next());
  return sum;
}

void BM_RegularReader(benchmark::State& state, bool permuted) {
  Fixture& f = Data();
  BAT* column = BBPdescriptor(f.column);
  BAT* order = BBPdescriptor(permuted ? f.permuted : f.dense);
  int64_t sum = 0;
  for (auto _ : state) {
    RegularInternalReader reader(column, order);
    sum += SumAll<int>(&reader);
  }
  benchmark::DoNotOptimize(sum);
  ReportTimePerValue(state);
  BBPreleaseref(order->batCacheid);
  BBPreleaseref(column->batCacheid);
}

// The copy's own path over a dense order BAT: runs of adjacent values, summed in place.
void BM_RegularReaderRuns(benchmark::State& state) {
  Fixture& f = Data();
  BAT* column = BBPdescriptor(f.column);
  BAT* order = BBPdescriptor(f.dense);
  int64_t sum = 0;
  for (auto _ : state) {
    RegularInternalReader reader(column, order);
    InternalReader* r = &reader;
    benchmark::DoNotOptimize(r);
    const void* base;
    while (size_t n = r->NextRun(&base, 1 << 16))
      for (size_t i = 0; i < n; i++) sum += static_cast<const int*>(base)[i];
  }
  benchmark::DoNotOptimize(sum);
  ReportTimePerValue(state);
  BBPreleaseref(order->batCacheid);
  BBPreleaseref(column->batCacheid);
}

void BM_RowIdReader(benchmark::State& state) {
  int64_t sum = 0;
  for (auto _ : state) {
    RowIdInternalReader reader(static_cast<uint32_t>(kRows));
    sum += SumAll<oid>(&reader);
  }
  benchmark::DoNotOptimize(sum);
  ReportTimePerValue(state);
}

BENCHMARK_CAPTURE(BM_RegularReader, dense_order, false)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_RegularReader, permuted_order, true)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_RegularReaderRuns)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_RowIdReader)->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace qopci

BENCHMARK_MAIN();
