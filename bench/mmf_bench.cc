// Block writes through MMFByteWriter against plain write(2) of the same blocks, each into a
// new file of 256 MiB per iteration in the same directory (QOPCI_BENCH_DIR, default /tmp).
// The file is removed between iterations, outside the timing. The writer's block-copy
// strategies and early write-back are compared through MMFSetTuning.
//
// BM_WriteVsMMF is the one to quote: each iteration writes one file with write(2) and one
// with the writer, in alternating order, so that both see the same load on a shared machine;
// its "ratio" counter is the writer's bandwidth over write(2)'s. Run it with
// --benchmark_repetitions=5 and read the medians.
#include <fcntl.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "benchmark/benchmark.h"
#include "writers/mmf/mmf_byte_writer.h"
#include "writers/mmf/mmf_fault.h"

namespace {

constexpr uint64_t kFileBytes = 256ull << 20;

std::string BenchFile() {
  const char* dir = std::getenv("QOPCI_BENCH_DIR");
  return std::string(dir ? dir : "/tmp") + "/qopci_mmf_bench.bin";
}

std::vector<char> Block(size_t n) {
  std::vector<char> b(n);
  for (size_t i = 0; i < n; ++i) b[i] = static_cast<char>(i * 31 + 7);
  return b;
}

// Args: block size, block-copy strategy, early write-back.
void BM_MMFByteWriterWrite(benchmark::State& state) {
  const size_t block = static_cast<size_t>(state.range(0));
  qopci::MMFTuning saved = qopci::MMFGetTuning();
  qopci::MMFSetTuning({static_cast<qopci::MMFBlockCopy>(state.range(1)), state.range(2) != 0});
  const std::vector<char> data = Block(block);
  const std::string path = BenchFile();
  for (auto _ : state) {
    qopci::MMFByteWriter w(path, false);
    if (!w.Open()) state.SkipWithError("open failed");
    for (uint64_t done = 0; done < kFileBytes; done += block) {
      if (!w.Write(data.data(), block)) {
        state.SkipWithError("write failed");
        break;
      }
    }
    w.Close();
    state.PauseTiming();
    std::remove(path.c_str());
    state.ResumeTiming();
  }
  qopci::MMFSetTuning(saved);
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kFileBytes));
}

// Writes kFileBytes in blocks of data into a new file at path with write(2); false on failure.
bool PlainWriteFile(const std::string& path, const std::vector<char>& data) {
  int fd = open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0644);
  if (fd < 0) return false;
  bool ok = true;
  for (uint64_t done = 0; ok && done < kFileBytes; done += data.size()) {
    ok = write(fd, data.data(), data.size()) == static_cast<ssize_t>(data.size());
  }
  return close(fd) == 0 && ok;
}

// The same through MMFByteWriter, including its Close (which cuts the file to size).
bool MMFWriteFile(const std::string& path, const std::vector<char>& data) {
  qopci::MMFByteWriter w(path, false);
  bool ok = w.Open();
  for (uint64_t done = 0; ok && done < kFileBytes; done += data.size()) {
    ok = w.Write(data.data(), data.size());
  }
  return w.Close() && ok;
}

// Seconds taken by f(path, data); the file is removed afterwards, untimed.
template <typename F>
double TimedFile(F f, const std::string& path, const std::vector<char>& data, bool* ok) {
  auto start = std::chrono::steady_clock::now();
  *ok = f(path, data) && *ok;
  std::chrono::duration<double> took = std::chrono::steady_clock::now() - start;
  std::remove(path.c_str());
  return took.count();
}

// Arg: block size. The reported time is the writer's; both bandwidths and their ratio are
// counters.
void BM_WriteVsMMF(benchmark::State& state) {
  const std::vector<char> data = Block(static_cast<size_t>(state.range(0)));
  const std::string path = BenchFile();
  double plain = 0, mmf = 0;
  bool ok = true;
  int64_t n = 0;
  for (auto _ : state) {
    double m;
    if (n++ % 2 == 0) {
      plain += TimedFile(PlainWriteFile, path, data, &ok);
      m = TimedFile(MMFWriteFile, path, data, &ok);
    } else {
      m = TimedFile(MMFWriteFile, path, data, &ok);
      plain += TimedFile(PlainWriteFile, path, data, &ok);
    }
    mmf += m;
    state.SetIterationTime(m);
  }
  if (!ok) state.SkipWithError("write failed");
  const double bytes = static_cast<double>(n) * kFileBytes;
  state.counters["write_GBps"] = bytes / plain / 1e9;
  state.counters["mmf_GBps"] = bytes / mmf / 1e9;
  state.counters["ratio"] = plain / mmf;
}

void BM_PlainWrite(benchmark::State& state) {
  const size_t block = static_cast<size_t>(state.range(0));
  const std::vector<char> data = Block(block);
  const std::string path = BenchFile();
  for (auto _ : state) {
    int fd = open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0644);
    if (fd < 0) state.SkipWithError("open failed");
    for (uint64_t done = 0; done < kFileBytes; done += block) {
      if (write(fd, data.data(), block) != static_cast<ssize_t>(block)) {
        state.SkipWithError("write failed");
        break;
      }
    }
    close(fd);
    state.PauseTiming();
    std::remove(path.c_str());
    state.ResumeTiming();
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kFileBytes));
}

void BlockSizes(benchmark::internal::Benchmark* b) {
  for (int64_t kib : {64, 256, 1024, 4096, 16384}) b->Arg(kib << 10);
}

void Strategies(benchmark::internal::Benchmark* b) {
  for (int64_t kib : {64, 256, 1024, 4096, 16384})
    for (int64_t copy : {0, 1, 2})
      for (int64_t writeback : {0, 1}) b->Args({kib << 10, copy, writeback});
}

BENCHMARK(BM_WriteVsMMF)
    ->ArgName("block")
    ->Apply(BlockSizes)
    ->Unit(benchmark::kMillisecond)
    ->UseManualTime();
BENCHMARK(BM_PlainWrite)->Apply(BlockSizes)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_MMFByteWriterWrite)
    ->ArgNames({"block", "copy", "writeback"})
    ->Apply(Strategies)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
