#include "queue/concurrent_queue.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <functional>
#include <semaphore>
#include <string>
#include <thread>
#include <vector>

namespace qopci {
namespace {

using namespace std::chrono_literals;

// What happened to a set of items, counted across threads.
struct Tally {
  std::atomic<int> processed{0}, released{0}, released_all{0}, destroyed{0};
  std::atomic<size_t> error_buf_size{0};
};

// An item whose work is a callback; it counts how it was disposed of.
class Item : public BaseQItem {
 public:
  Item(Tally* t, const void* key, std::function<bool()> work, uint64_t max_pending = 1 << 20)
      : t_(t), key_(key), work_(std::move(work)), max_pending_(max_pending) {}
  ~Item() override { ++t_->destroyed; }
  bool Process() override {
    ++t_->processed;
    return work_ ? work_() : true;
  }
  void CreateError(char* buf, size_t size) override {
    t_->error_buf_size = size;
    snprintf(buf, size, "%s (Error code %d)", text.c_str(), errno);
  }
  bool IsProcessable() override { return processable; }
  uint64_t GetMaxPending() override { return max_pending_; }
  void Release() override {
    ++t_->released;
    delete this;
  }
  void ReleaseAll() override {
    ++t_->released_all;
    delete this;
  }
  const void* OrderKey() const override { return key_ != nullptr ? key_ : this; }

  std::string text = "item failed";
  bool processable = true;

 private:
  Tally* t_;
  const void* key_;
  std::function<bool()> work_;
  uint64_t max_pending_;
};

const void* Key(size_t k) { return reinterpret_cast<const void*>(k + 1); }

// Waits up to 10 s for pred; tests fail instead of hanging when the queue misbehaves.
bool Eventually(const std::function<bool()>& pred) {
  for (int i = 0; i < 10000 && !pred(); ++i) std::this_thread::sleep_for(1ms);
  return pred();
}

TEST(ConcurrentQueueTest, SameKeyRunsAloneAndInOrder) {
  struct Case {
    int workers, producers, keys_per_producer, items_per_key;
    uint64_t max_pending;  // small values make producers throttle
  };
  for (const Case c : {Case{1, 1, 1, 200, 1 << 20}, Case{2, 1, 64, 40, 1 << 20},
                       Case{4, 4, 16, 30, 8}, Case{8, 3, 100, 10, 1}}) {
    SCOPED_TRACE(testing::Message() << c.workers << " workers, " << c.producers << "x"
                                    << c.keys_per_producer << " keys");
    const size_t keys = static_cast<size_t>(c.producers) * c.keys_per_producer;
    std::vector<std::atomic<bool>> in_flight(keys);
    std::vector<std::atomic<int>> last_seq(keys);
    for (auto& s : last_seq) s = -1;
    std::atomic<int> overlaps{0}, disorders{0};
    Tally t;
    {
      ConcurrentQueue q(nullptr, c.workers);
      std::vector<std::thread> producers;
      for (int p = 0; p < c.producers; ++p) {
        producers.emplace_back([&, p] {
          for (int seq = 0; seq < c.items_per_key; ++seq) {
            for (int k = 0; k < c.keys_per_producer; ++k) {
              size_t key = static_cast<size_t>(p) * c.keys_per_producer + k;
              auto work = [&, key, seq] {
                if (in_flight[key].exchange(true)) ++overlaps;
                if (last_seq[key].exchange(seq) >= seq) ++disorders;
                std::this_thread::yield();
                in_flight[key] = false;
                return true;
              };
              q.InsertDataItem(new Item(&t, Key(key), work, c.max_pending), true);
            }
          }
        });
      }
      for (auto& th : producers) th.join();
      q.WaitForProcessingEnd();
      EXPECT_TRUE(q.m_bOK);
    }
    EXPECT_EQ(overlaps, 0);
    EXPECT_EQ(disorders, 0);
    EXPECT_EQ(t.processed, static_cast<int>(keys) * c.items_per_key);
    EXPECT_EQ(t.released, t.processed);
    EXPECT_EQ(t.destroyed, t.processed);
  }
}

TEST(ConcurrentQueueTest, ThrottledProducerWaitsForRoom) {
  std::counting_semaphore<1024> gate(0);
  Tally t;
  ConcurrentQueue q(nullptr, 1);
  auto held = [&] {
    gate.acquire();
    return true;
  };
  std::atomic<int> inserted{0};
  std::thread producer([&] {
    for (int i = 0; i < 5; ++i) {
      q.InsertDataItem(new Item(&t, Key(i), held, /*max_pending=*/2), true);
      ++inserted;
    }
  });
  ASSERT_TRUE(Eventually([&] { return inserted == 2; }));
  std::this_thread::sleep_for(50ms);
  EXPECT_EQ(inserted, 2) << "the third insertion must wait while 2 items are pending";

  gate.release();  // one item finishes: exactly one more insertion gets through
  ASSERT_TRUE(Eventually([&] { return inserted == 3; }));
  std::this_thread::sleep_for(50ms);
  EXPECT_EQ(inserted, 3);

  // Unthrottled insertions never wait, even far over the bound, from outside or from inside
  // an item; nor does a throttled insertion made by a worker, which would wait for itself.
  std::atomic<int> outside{0}, children{0};
  auto spawn = [&] {
    for (int i = 0; i < 10; ++i) children += q.InsertDataItem(new Item(&t, Key(9), {}, 1), i % 2);
    return true;
  };
  std::thread other([&] {
    for (int i = 0; i < 10; ++i) outside += q.InsertDataItem(new Item(&t, Key(7), {}, 1), false);
    outside += q.InsertDataItem(new Item(&t, Key(8), spawn, 1), false);
  });
  EXPECT_TRUE(Eventually([&] { return outside == 11; }));
  gate.release(64);
  other.join();
  producer.join();
  ASSERT_TRUE(Eventually([&] { return children == 10; }));
  q.WaitForProcessingEnd();
  EXPECT_EQ(t.released, 5 + 10 + 1 + 10);
}

TEST(ConcurrentQueueTest, FirstFailureIsKeptAndEachItemDisposedOnce) {
  struct Case {
    const char* name;
    int workers;
    std::vector<int> failing;  // indices (one key, insertion order) whose Process fails
    bool throws, unprocessable;
    std::string want;
  };
  const std::string long_text(2000, 'x');
  const std::vector<Case> cases = {
      {"all succeed", 2, {}, false, false, ""},
      {"first of two", 2, {3, 7}, false, false, "item 3 (Error code 28)"},
      {"single worker", 1, {0}, false, false, "item 0 (Error code 28)"},
      {"exception", 2, {5}, true, false, "disk on fire"},
      {"too long", 2, {1}, false, false, long_text.substr(0, 1023)},
      {"not processable", 2, {}, false, true, ""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    Tally t;
    ConcurrentQueue q(nullptr, c.workers);
    for (int i = 0; i < 10; ++i) {
      bool fails = std::find(c.failing.begin(), c.failing.end(), i) != c.failing.end();
      auto work = [fails, throws = c.throws] {
        if (fails && throws) throw "disk on fire";
        errno = fails ? ENOSPC : 0;
        return !fails;
      };
      auto* item = new Item(&t, Key(0), work);
      item->text = c.want.size() > 100 ? long_text : "item " + std::to_string(i);
      item->processable = !c.unprocessable;
      ASSERT_TRUE(q.InsertDataItem(item, true));
    }
    q.WaitForProcessingEnd();
    const int failed = static_cast<int>(c.failing.size());
    EXPECT_EQ(q.m_bOK, failed == 0);
    EXPECT_EQ(q.ErrorText(), c.want);
    EXPECT_EQ(t.processed, c.unprocessable ? 0 : 10);
    EXPECT_EQ(t.released, c.unprocessable ? 0 : 10 - failed);
    EXPECT_EQ(t.released_all, c.unprocessable ? 10 : failed);
    EXPECT_EQ(t.destroyed, 10);
    if (failed > 0 && !c.throws) {
      EXPECT_EQ(t.error_buf_size, 1024u);
    }

    q.ResetOK();
    EXPECT_TRUE(q.m_bOK);
    EXPECT_EQ(q.ErrorText(), "");
  }
}

// Items that insert children (of other keys) from inside a worker, a few levels deep.
void Spawn(ConcurrentQueue* q, Tally* t, int depth) {
  auto work = [q, t, depth] {
    std::this_thread::sleep_for(1ms);
    if (depth > 0) {
      for (int i = 0; i < 3; ++i) Spawn(q, t, depth - 1);
    }
    return true;
  };
  q->InsertDataItem(new Item(t, nullptr, work), false);  // keyed by itself
}

TEST(ConcurrentQueueTest, WaitAndDestructorCoverWorkerInsertedItems) {
  const int total = 1 + 3 + 9 + 27;  // a tree of depth 3, fan-out 3
  for (bool wait : {true, false}) {
    SCOPED_TRACE(wait ? "WaitForProcessingEnd" : "destructor");
    Tally t;
    {
      ConcurrentQueue q(nullptr, 2);
      for (int i = 0; i < 4; ++i) Spawn(&q, &t, 3);
      if (wait) {
        q.WaitForProcessingEnd();
        EXPECT_EQ(t.released, 4 * total);
      }
    }
    EXPECT_EQ(t.processed, 4 * total);
    EXPECT_EQ(t.released, 4 * total);
    EXPECT_EQ(t.destroyed, 4 * total);
  }
}

// Zero or fewer workers asked for means one per core, and every worker runs an item of its
// own key at once: each item waits until all have started, which only parallel workers end.
TEST(ConcurrentQueueTest, WorkersRunDifferentKeysAtOnce) {
  int cores = std::max(1u, std::thread::hardware_concurrency());
  for (auto [asked, want] :
       std::vector<std::pair<int, int>>{{0, cores}, {-3, cores}, {1, 1}, {3, 3}}) {
    SCOPED_TRACE(asked);
    Tally t;
    ConcurrentQueue q("parallel", asked);
    EXPECT_EQ(q.WorkerCount(), want);
    std::atomic<int> started{0};
    auto meet = [&] {
      ++started;
      return Eventually([&] { return started == want; });
    };
    for (int k = 0; k < want; ++k) q.InsertDataItem(new Item(&t, Key(k), meet), true);
    q.WaitForProcessingEnd();
    EXPECT_TRUE(q.m_bOK);
    EXPECT_EQ(t.released, want);
  }
}

}  // namespace
}  // namespace qopci
