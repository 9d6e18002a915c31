// Per-item overhead of ConcurrentQueue: trivial items spread over a number of keys, inserted
// by one producer (as the copy manager does) and drained by 1 or 2 workers. The items do no
// work, so the time measured is the queue's own: allocation of the item, insertion, wake-ups,
// strand bookkeeping and release.
#include <benchmark/benchmark.h>

#include <cstdint>

#include "queue/concurrent_queue.h"

namespace qopci {
namespace {

class TrivialItem : public BaseQItem {
 public:
  TrivialItem(const void* key, uint64_t max_pending) : key_(key), max_pending_(max_pending) {}
  bool Process() override { return true; }
  void CreateError(char* buf, size_t size) override {
    if (size > 0) buf[0] = '\0';
  }
  uint64_t GetMaxPending() override { return max_pending_; }
  void Release() override { delete this; }
  const void* OrderKey() const override { return key_; }

 private:
  const void* key_;
  uint64_t max_pending_;
};

constexpr int kItemsPerIteration = 1 << 14;

// Args: keys, workers, pending bound (the bound only matters to throttled insertion).
void BM_QueueItems(benchmark::State& state) {
  const auto keys = static_cast<uintptr_t>(state.range(0));
  const int workers = static_cast<int>(state.range(1));
  const auto bound = static_cast<uint64_t>(state.range(2));
  ConcurrentQueue q("bench", workers);
  for (auto _ : state) {
    for (int i = 0; i < kItemsPerIteration; ++i) {
      const void* key = reinterpret_cast<const void*>(1 + static_cast<uintptr_t>(i) % keys);
      q.InsertDataItem(new TrivialItem(key, bound), true);
    }
    q.WaitForProcessingEnd();
  }
  const double items = static_cast<double>(state.iterations()) * kItemsPerIteration;
  state.SetItemsProcessed(static_cast<int64_t>(items));
  state.counters["ns_per_item"] =
      benchmark::Counter(items * 1e-9, benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}

void QueueArgs(benchmark::internal::Benchmark* b) {
  for (int workers : {1, 2}) {
    for (int keys : {1, 2, 8, 64}) b->Args({keys, workers, 1 << 20});
    b->Args({64, workers, 256});  // the producer throttles: bound well below the batch
  }
}

BENCHMARK(BM_QueueItems)->Apply(QueueArgs)->UseRealTime()->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace qopci

BENCHMARK_MAIN();
