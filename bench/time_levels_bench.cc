// Time-level derivation: 10 M timestamps, one a second from 2013-01-01 (a day's rows share
// their levels) or on random days (every row splits its day number), through the levels
// chunker row by row and as a run, and through the timestamp chunker's InsertRun; the
// baseline is TimestampChunker::InsertVal of the same values. Full chunks are handed out
// and dropped as the copy does.
#include <benchmark/benchmark.h>
#include <corvid/gdk.h>
#include <corvid/mtime.h>
#include <malloc.h>

#include <cstdint>
#include <cstring>
#include <random>
#include <vector>

#include "chunkers/time_levels_chunker.h"
#include "chunkers/timestamp_chunker.h"

namespace qopci {
namespace {

constexpr int32_t kChunkSize = 1 << 16;
constexpr size_t kRows = 10'000'000;

const std::vector<int64_t>& Stamps(bool random_days) {
  static const std::vector<int64_t> kinds[2] = {
      [] {
        std::vector<int64_t> v(kRows);
        const int32_t first = cvd_date_days(2013, 1, 1);
        for (size_t i = 0; i < kRows; i++)
          v[i] = cvd_timestamp(first + static_cast<int32_t>(i / 86400),
                               static_cast<int32_t>(i % 86400 * 1000));
        return v;
      }(),
      [] {
        std::vector<int64_t> v(kRows);
        std::mt19937_64 rng(5);
        const int32_t first = cvd_date_days(1900, 1, 1);
        for (int64_t& t : v)
          t = cvd_timestamp(first + static_cast<int32_t>(rng() % 73000),
                            static_cast<int32_t>(rng() % 86400000));
        return v;
      }()};
  return kinds[random_days ? 1 : 0];
}

// Deletes a handed-out chunk with the members it holds.
void Drop(BATChunk* c) {
  if (auto* t = dynamic_cast<TesselTimestampChunk*>(c)) {
    for (BATChunk* m : t->members_) Drop(m);
  } else if (auto* l = dynamic_cast<TesselTimeLevelsChunk*>(c)) {
    for (BATChunk* m : l->members_) Drop(m);
  }
  delete c;
}

void BM_TimestampInsertVal(benchmark::State& state) {
  const std::vector<int64_t>& source = Stamps(state.range(0) != 0);
  TimestampChunker chunker(kChunkSize);
  for (auto _ : state) {
    for (int64_t t : source) {
      if (chunker.IsChunkFull()) delete chunker.TakeChunk();
      chunker.InsertVal(t);
    }
  }
  state.SetItemsProcessed(state.iterations() * source.size());
}

void BM_InsertTimestamp(benchmark::State& state) {
  const std::vector<int64_t>& source = Stamps(state.range(0) != 0);
  TesselTimeLevelsChunker chunker(kChunkSize);
  for (auto _ : state) {
    for (int64_t t : source) {
      if (chunker.IsChunkFull()) Drop(chunker.TakeChunk());
      chunker.InsertTimestamp(t);
    }
  }
  state.SetItemsProcessed(state.iterations() * source.size());
}

void BM_InsertTimestamps(benchmark::State& state) {
  const std::vector<int64_t>& source = Stamps(state.range(0) != 0);
  TesselTimeLevelsChunker chunker(kChunkSize);
  for (auto _ : state) {
    for (size_t done = 0; done < source.size();) {
      if (chunker.IsChunkFull()) Drop(chunker.TakeChunk());
      done += chunker.InsertTimestamps(source.data() + done, source.size() - done);
    }
  }
  state.SetItemsProcessed(state.iterations() * source.size());
}

// The whole column as the copy feeds it: timestamps and levels from a "timestamp" run.
void BM_TimestampLevelsInsertRun(benchmark::State& state) {
  const std::vector<int64_t>& source = Stamps(state.range(0) != 0);
  TesselTimestampChunker chunker(kChunkSize);
  chunker.InitCastTable(ATOMindex, ATOMformat, ATOMstrConvert, GDKfree);
  const int64_t nil = INT64_MIN;
  for (auto _ : state) {
    for (size_t done = 0; done < source.size();) {
      if (chunker.IsChunkFull()) Drop(chunker.TakeChunk());
      done += chunker.InsertRun(source.data() + done, "timestamp", source.size() - done,
                                sizeof(int64_t), &nil);
    }
  }
  state.SetItemsProcessed(state.iterations() * source.size());
}

// Argument 0: one a second from 2013-01-01; 1: random days.
BENCHMARK(BM_TimestampInsertVal)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_InsertTimestamp)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_InsertTimestamps)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_TimestampLevelsInsertRun)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace qopci

// Chunks of 5 streams are handed out and freed at a rate at which glibc, left to itself,
// returns the freed memory to the kernel at once and faults it in again for the next
// chunk; on a virtual machine the page faults then cost more than the levels. Keeping the
// memory (as a long copy's steady state does) measures the chunkers. "--keep-memory=0"
// measures with glibc's defaults.
int main(int argc, char** argv) {
  bool keep = true;
  for (int i = 1; i < argc; i++)
    if (std::strcmp(argv[i], "--keep-memory=0") == 0) keep = false;
  if (keep) {
    mallopt(M_MMAP_THRESHOLD, 64 << 20);
    mallopt(M_TRIM_THRESHOLD, 512 << 20);
  }
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
