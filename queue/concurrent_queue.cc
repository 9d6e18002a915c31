// ConcurrentQueue: per-key strands on a shared ready list, served by a pool of workers.
//
// Every key with queued items has a strand: a FIFO of its items. A strand that has items
// and is not held by a worker sits on the ready list. A worker takes the first ready
// strand, runs its oldest item, and puts the strand back at the end of the ready list if
// more items wait, so that keys share the workers fairly and one key never runs twice at
// once. One mutex guards all bookkeeping; it is held for a few pointer moves per item and
// never while an item's code runs. Sleepers are woken only when someone sleeps.
#include "queue/concurrent_queue.h"

#include <pthread.h>

#include <algorithm>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <deque>
#include <exception>
#include <mutex>
#include <system_error>
#include <thread>
#include <unordered_map>
#include <vector>

namespace qopci {

namespace {

constexpr size_t kErrorTextSize = 1024;
constexpr uint64_t kItemsPerWorker = 8;  // throttled producers stay this far ahead, at most

// The queue whose worker runs on this thread, so that a throttled insertion made from
// inside an item never waits for the very worker that makes it.
thread_local const void* tls_worker_of = nullptr;

}  // namespace

struct ConcurrentQueue::Impl {
  struct Strand {
    const void* key = nullptr;
    std::deque<BaseQItem*> items;  // waiting items of the key, oldest first
    bool running = false;          // a worker is running one of the key's items
    bool ready = false;            // linked in the ready list
    Strand* next = nullptr;        // link in the ready list or the free list
  };

  explicit Impl(ConcurrentQueue* q) : owner(q) {}
  Impl(const Impl&) = delete;
  Impl& operator=(const Impl&) = delete;
  ~Impl();

  void WorkerLoop();
  void RunItem(BaseQItem* item);
  void KeepError(const char* text);
  void PushReady(Strand* s);
  Strand* PopReady();
  Strand* StrandFor(const void* key);
  void Recycle(Strand* s);

  ConcurrentQueue* const owner;  // for its success flag
  std::string name;              // worker thread name
  std::vector<std::thread> threads;

  mutable std::mutex mu;
  std::condition_variable work_cv;   // idle workers wait here for a ready strand
  std::condition_variable space_cv;  // throttled producers wait here for room
  std::condition_variable end_cv;    // WaitForProcessingEnd waits here for pending == 0

  std::unordered_map<const void*, Strand*> strands;  // keys with queued or running items
  Strand* ready_head = nullptr;
  Strand* ready_tail = nullptr;
  Strand* free_strands = nullptr;  // spare strands, keeping their deque's storage
  uint64_t pending = 0;            // items inserted and not yet released
  uint64_t bound = UINT64_MAX;     // pending limit of the latest throttled insertion
  int idle_workers = 0;            // workers waiting on work_cv
  int space_waiters = 0;           // producers waiting on space_cv
  int end_waiters = 0;             // callers waiting on end_cv
  bool stopping = false;           // set by the destructor once drained

  bool has_error = false;           // error holds the first failure since ResetOK
  char error[kErrorTextSize] = {};  // zero-terminated
};

ConcurrentQueue::Impl::~Impl() {
  for (auto& [key, s] : strands) delete s;  // empty after a drain; kept for safety
  while (free_strands != nullptr) {
    Strand* s = free_strands;
    free_strands = s->next;
    delete s;
  }
}

void ConcurrentQueue::Impl::PushReady(Strand* s) {
  s->ready = true;
  s->next = nullptr;
  if (ready_tail == nullptr) {
    ready_head = s;
  } else {
    ready_tail->next = s;
  }
  ready_tail = s;
}

ConcurrentQueue::Impl::Strand* ConcurrentQueue::Impl::PopReady() {
  Strand* s = ready_head;
  ready_head = s->next;
  if (ready_head == nullptr) ready_tail = nullptr;
  s->next = nullptr;
  s->ready = false;
  return s;
}

ConcurrentQueue::Impl::Strand* ConcurrentQueue::Impl::StrandFor(const void* key) {
  Strand*& slot = strands[key];
  if (slot == nullptr) {
    if (free_strands != nullptr) {
      slot = free_strands;
      free_strands = slot->next;
      slot->next = nullptr;
    } else {
      slot = new Strand;
    }
    slot->key = key;
  }
  return slot;
}

void ConcurrentQueue::Impl::Recycle(Strand* s) {
  strands.erase(s->key);
  s->key = nullptr;
  s->next = free_strands;
  free_strands = s;
}

void ConcurrentQueue::Impl::KeepError(const char* text) {
  std::lock_guard<std::mutex> lock(mu);
  if (has_error) return;
  has_error = true;
  snprintf(error, sizeof(error), "%s", text);
}

void ConcurrentQueue::Impl::RunItem(BaseQItem* item) {
  bool ok = false;
  bool processable = true;
  char text[kErrorTextSize];
  text[0] = '\0';
  try {
    processable = item->IsProcessable();
    if (processable) {
      ok = item->Process();
      if (!ok) {
        // Nothing else runs on this thread in between, so errno is still the failure's
        // when CreateError reads it.
        owner->m_bOK.store(false);
        item->CreateError(text, sizeof(text));
        text[sizeof(text) - 1] = '\0';
      }
    }
  } catch (const char* e) {
    snprintf(text, sizeof(text), "%s", e != nullptr ? e : "unknown error");
  } catch (const std::exception& e) {
    snprintf(text, sizeof(text), "%s", e.what());
  } catch (...) {
    snprintf(text, sizeof(text), "ConcurrentQueue: work item threw an unknown exception");
  }
  if (!processable) {
    item->ReleaseAll();  // dropped unprocessed: what it carries goes with it
    return;
  }
  if (ok) {
    item->Release();
    return;
  }
  owner->m_bOK.store(false);
  KeepError(text);
  item->ReleaseAll();
}

void ConcurrentQueue::Impl::WorkerLoop() {
  tls_worker_of = this;
  std::unique_lock<std::mutex> lock(mu);
  for (;;) {
    while (ready_head == nullptr && !stopping) {
      ++idle_workers;
      work_cv.wait(lock);
      --idle_workers;
    }
    if (ready_head == nullptr) return;  // stopping, and nothing is left to run
    Strand* s = PopReady();
    s->running = true;
    BaseQItem* item = s->items.front();
    s->items.pop_front();
    lock.unlock();

    RunItem(item);  // released by now

    lock.lock();
    s->running = false;
    if (!s->items.empty()) {
      PushReady(s);  // this worker or another takes it in turn
    } else {
      Recycle(s);
    }
    --pending;
    // Throttled producers resume once half the bound has drained, so that they insert in
    // batches instead of waking for every finished item.
    if (space_waiters > 0 && pending <= bound / 2) space_cv.notify_all();
    if (end_waiters > 0 && pending == 0) end_cv.notify_all();
  }
}

ConcurrentQueue::ConcurrentQueue(const char* name, int workers)
    : impl_(std::make_unique<Impl>(this)) {
  impl_->name = name != nullptr ? name : "";
  unsigned count = workers > 0 ? static_cast<unsigned>(workers)
                               : std::max(1u, std::thread::hardware_concurrency());
  std::string failure;
  impl_->threads.reserve(count);
  for (unsigned i = 0; i < count; ++i) {
    try {
      impl_->threads.emplace_back(&Impl::WorkerLoop, impl_.get());
    } catch (const std::system_error& e) {
      failure = e.what();
      break;  // run with the workers already started
    }
    // Thread names hold 15 characters; a nameless queue still shows up in debuggers.
    std::string tname = (impl_->name.empty() ? std::string("qopci-queue") : impl_->name);
    tname.resize(std::min<size_t>(tname.size(), 15));
    pthread_setname_np(impl_->threads.back().native_handle(), tname.c_str());
  }
  if (impl_->threads.empty()) {
    char text[kErrorTextSize];
    snprintf(text, sizeof(text), "ConcurrentQueue(%s): no worker thread could be started: %s",
             impl_->name.c_str(), failure.c_str());
    m_bOK.store(false);
    impl_->KeepError(text);
  }
}

ConcurrentQueue::~ConcurrentQueue() {
  WaitForProcessingEnd();
  {
    std::lock_guard<std::mutex> lock(impl_->mu);
    impl_->stopping = true;
  }
  impl_->work_cv.notify_all();
  impl_->space_cv.notify_all();
  for (std::thread& t : impl_->threads) t.join();
}

bool ConcurrentQueue::InsertDataItem(BaseQItem* item, bool throttle) {
  if (item == nullptr) return false;
  Impl& q = *impl_;
  const bool wait_for_room = throttle && tls_worker_of != &q;
  // Asked outside the lock: an item may query the machine for its answer.
  // The item's own bound, and no more than a few items per worker: a producer further
  // ahead gains nothing but memory, and a short queue reuses the same buffers.
  const uint64_t cap = std::max<uint64_t>(1, kItemsPerWorker * q.threads.size());
  const uint64_t limit = wait_for_room ? std::clamp<uint64_t>(item->GetMaxPending(), 1, cap) : 0;
  const void* key = item->OrderKey();

  std::unique_lock<std::mutex> lock(q.mu);
  if (wait_for_room) {
    q.bound = limit;
    // Without workers nothing would ever make room: the item is refused below instead.
    while (q.pending >= q.bound && !q.stopping && !q.threads.empty()) {
      ++q.space_waiters;
      q.space_cv.wait(lock);
      --q.space_waiters;
    }
  }
  if (q.stopping || q.threads.empty()) {
    const bool no_workers = q.threads.empty();
    lock.unlock();
    if (no_workers) {
      // Refused work must not pass unnoticed, even after a ResetOK.
      m_bOK.store(false);
      q.KeepError("ConcurrentQueue: no worker thread is running; work item refused");
    }
    item->ReleaseAll();
    return false;
  }
  Impl::Strand* s = q.StrandFor(key);
  s->items.push_back(item);
  ++q.pending;
  bool wake = false;
  if (!s->running && !s->ready) {
    q.PushReady(s);
    wake = q.idle_workers > 0;
  }
  lock.unlock();
  if (wake) q.work_cv.notify_one();
  return true;
}

void ConcurrentQueue::ResetOK() {
  std::lock_guard<std::mutex> lock(impl_->mu);
  impl_->has_error = false;
  impl_->error[0] = '\0';
  m_bOK.store(true);
}

void ConcurrentQueue::WaitForProcessingEnd() {
  Impl& q = *impl_;
  std::unique_lock<std::mutex> lock(q.mu);
  while (q.pending > 0) {
    ++q.end_waiters;
    q.end_cv.wait(lock);
    --q.end_waiters;
  }
}

std::string ConcurrentQueue::ErrorText() const {
  std::lock_guard<std::mutex> lock(impl_->mu);
  return impl_->error;
}

int ConcurrentQueue::WorkerCount() const { return static_cast<int>(impl_->threads.size()); }

}  // namespace qopci
