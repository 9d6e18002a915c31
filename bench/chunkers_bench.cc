// Insert throughput of the fixed-width chunkers, driven as the copy manager drives them:
// through ChunkerBase, testing IsChunkFull before every value and handing full chunks out.
#include <benchmark/benchmark.h>
#include <corvid/gdk.h>

#include <cstdint>
#include <vector>

#include "chunkers/decimal_chunker.h"
#include "chunkers/double_chunker.h"
#include "chunkers/simple_type_chunker.h"
#include "chunkers/timestamp_chunker.h"

namespace qopci {
void RegisterInsertValue();
namespace {

constexpr int32_t kChunkSize = 1 << 16;
constexpr size_t kSourceValues = 1 << 12;

template <typename S>
std::vector<S> Source() {
  std::vector<S> v(kSourceValues);
  for (size_t i = 0; i < v.size(); ++i) v[i] = static_cast<S>((i * 7919) % 100 + 1);
  return v;
}

// The chunker as the copy manager drives it: through ChunkerBase, with the host's routines.
ChunkerBase& WithHostRoutines(ChunkerBase& chunker) {
  chunker.InitCastTable(ATOMindex, ATOMformat, ATOMstrConvert, GDKfree);
  return chunker;
}

template <typename C, typename S>
void BM_InsertValue(benchmark::State& state, int source_type) {
  C chunker(kChunkSize);
  ChunkerBase& base = WithHostRoutines(chunker);
  const char* type_name = ATOMname(source_type);
  const std::vector<S> source = Source<S>();
  for (auto _ : state) {
    for (const S& v : source) {
      if (base.IsChunkFull()) delete base.TakeChunk();
      base.InsertValue(&v, type_name, false);
    }
  }
  state.SetItemsProcessed(state.iterations() * source.size());
}

// A run of adjacent ascending values, as the copy reads a column through a dense order BAT.
// The values go on ascending from chunk to chunk, so that the run statistics are kept up.
template <typename C, typename S>
void BM_InsertRun(benchmark::State& state, int source_type) {
  C chunker(kChunkSize);
  ChunkerBase& base = WithHostRoutines(chunker);
  const char* type_name = ATOMname(source_type);
  const void* nil = ATOMnil(source_type);
  std::vector<S> source(kChunkSize);
  for (size_t i = 0; i < source.size(); ++i) source[i] = static_cast<S>(i + 1);
  for (auto _ : state) {
    for (size_t at = 0; at < source.size();)
      at += base.InsertRun(&source[at], type_name, source.size() - at, sizeof(S), nil);
    delete base.TakeChunk();
    state.PauseTiming();
    for (S& v : source) v += static_cast<S>(source.size());
    state.ResumeTiming();
  }
  state.SetItemsProcessed(state.iterations() * source.size());
}

template <typename C, typename S>
void Register(const char* name, int source_type) {
  benchmark::RegisterBenchmark(name, BM_InsertValue<C, S>, source_type);
}

// Same-type inserts per value type, then the casts.
void RegisterAll() {
  Register<SimpleTypeChunker<int>, int32_t>("InsertValue/int_from_int", TYPE_int);
  Register<SimpleTypeChunker<char>, int8_t>("InsertValue/chr_from_bte", TYPE_bte);
  Register<SimpleTypeChunker<short>, int16_t>("InsertValue/sht_from_sht", TYPE_sht);
  Register<SimpleTypeChunker<unsigned int>, uint32_t>("InsertValue/oid_from_oid", TYPE_oid);
  Register<SimpleTypeChunker<int64_t>, int64_t>("InsertValue/lng_from_lng", TYPE_lng);
  Register<DoubleChunker, double>("InsertValue/dbl_from_dbl", TYPE_dbl);
  Register<SimpleTypeChunker<int>, double>("InsertValue/int_from_dbl", TYPE_dbl);
  Register<SimpleTypeChunker<int64_t>, int32_t>("InsertValue/lng_from_int", TYPE_int);
  Register<DoubleChunker, int32_t>("InsertValue/dbl_from_int", TYPE_int);
  Register<TimestampChunker, int64_t>("InsertValue/timestamp_from_lng", TYPE_lng);
  benchmark::RegisterBenchmark("InsertRun/int", BM_InsertRun<SimpleTypeChunker<int>, int32_t>,
                               TYPE_int);
  benchmark::RegisterBenchmark("InsertRun/lng",
                               BM_InsertRun<SimpleTypeChunker<int64_t>, int64_t>, TYPE_lng);
  benchmark::RegisterBenchmark("InsertRun/dbl", BM_InsertRun<DoubleChunker, double>, TYPE_dbl);
}

void BM_DecimalInsertVal(benchmark::State& state) {
  DecimalChunker chunker(kChunkSize, static_cast<int32_t>(state.range(0)));
  const std::vector<int64_t> source = Source<int64_t>();
  for (auto _ : state) {
    for (int64_t v : source) {
      if (chunker.IsChunkFull()) delete chunker.TakeChunk();
      chunker.InsertVal(v);
    }
  }
  state.SetItemsProcessed(state.iterations() * source.size());
}
BENCHMARK(BM_DecimalInsertVal)->Arg(2)->Arg(9)->Arg(18);

void BM_TimestampInsertDateTime(benchmark::State& state) {
  TimestampChunker chunker(kChunkSize);
  int64_t n = 0;
  for (auto _ : state) {
    for (size_t i = 0; i < kSourceValues; ++i) {
      if (chunker.IsChunkFull()) delete chunker.TakeChunk();
      chunker.InsertDateTime(1900 + static_cast<int>(i % 200), 1 + static_cast<int>(i % 12),
                             1 + static_cast<int>(i % 28), static_cast<int>(i % 24), 30, 15,
                             static_cast<int>(i % 1000));
    }
    n += kSourceValues;
  }
  state.SetItemsProcessed(n);
}
BENCHMARK(BM_TimestampInsertDateTime);

}  // namespace

void RegisterInsertValue() { RegisterAll(); }

}  // namespace qopci

int main(int argc, char** argv) {
  qopci::RegisterInsertValue();
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
