// Giving large heaps back to the system off the caller's thread.
//
// Unmapping or freeing a heap of hundreds of megabytes costs the caller a few hundredths of
// a second of page-table work (about 0.1 s per GB here), and the caller is usually a query
// that has just dropped its result and has more to do. Heaps of at least kReleaseLaterBytes
// are therefore handed to one background thread of the kernel; smaller ones are released at
// once. The memory is no longer the kernel's from the hand-over on: nothing refers to it.
#include <malloc.h>
#include <pthread.h>
#include <sys/mman.h>

#include <algorithm>
#include <condition_variable>
#include <cstdint>
#include <cstdlib>
#include <deque>
#include <mutex>
#include <thread>

#include "internal.h"

namespace corvid {
namespace {

struct Release {
  void* base;
  size_t length;  // of the mapping, or of the allocation
  bool mapped;
};

void ReleaseNow(const Release& r) {
  if (r.mapped)
    ::munmap(r.base, r.length);
  else
    std::free(r.base);
}

// Drops the pages in pieces first: madvise holds the address space only for reading, and
// only a piece at a time, so the owner's own mappings and page faults go on meanwhile; the
// final free or munmap then finds next to nothing to do. The first page of malloc'd memory
// keeps its allocator header.
void ReleaseInPieces(const Release& r) {
  constexpr uintptr_t kPage = 4096, kPiece = uintptr_t{8} << 20;
  const uintptr_t start = reinterpret_cast<uintptr_t>(r.base);
  uintptr_t from = (start + kPage - 1) & ~(kPage - 1);
  if (!r.mapped && from == start) from += kPage;
  const uintptr_t end = (start + r.length) & ~(kPage - 1);
  for (uintptr_t at = from; at < end; at += kPiece)
    ::madvise(reinterpret_cast<void*>(at), std::min(kPiece, end - at), MADV_DONTNEED);
  ReleaseNow(r);
}

// Started by the first large release; at exit it finishes its queue and is joined.
class Reclaimer {
 public:
  ~Reclaimer() {
    {
      std::lock_guard<std::mutex> lock(mu_);
      stop_ = true;
    }
    wake_.notify_one();
    if (thread_.joinable()) thread_.join();
  }

  void Take(const Release& r) {
    std::unique_lock<std::mutex> lock(mu_);
    if (!stop_ && !thread_.joinable()) {
      try {
        thread_ = std::thread([this] { Run(); });
      } catch (...) {  // no thread to be had: release on the caller
      }
    }
    if (stop_ || !thread_.joinable()) {
      lock.unlock();
      ReleaseInPieces(r);
      return;
    }
    queue_.push_back(r);
    wake_.notify_one();
  }

  void Wait() {
    std::unique_lock<std::mutex> lock(mu_);
    idle_.wait(lock, [this] { return queue_.empty() && !busy_; });
  }

 private:
  void Run() {
    pthread_setname_np(pthread_self(), "corvid-reclaim");
    std::unique_lock<std::mutex> lock(mu_);
    for (;;) {
      wake_.wait(lock, [this] { return stop_ || !queue_.empty(); });
      if (queue_.empty()) return;  // stopping, and nothing left
      Release r = queue_.front();
      queue_.pop_front();
      busy_ = true;
      lock.unlock();
      ReleaseInPieces(r);
      lock.lock();
      busy_ = false;
      if (queue_.empty()) idle_.notify_all();
    }
  }

  std::mutex mu_;
  std::condition_variable wake_, idle_;
  std::deque<Release> queue_;
  bool busy_ = false;
  bool stop_ = false;
  std::thread thread_;
};

Reclaimer& TheReclaimer() {
  static Reclaimer reclaimer;
  return reclaimer;
}

}  // namespace

void ReleaseHeapMemory(Heap* h) {
  if (h->base != nullptr) {
    const bool mapped = (h->flags & HEAP_MAPPED) != 0;
    // The allocator's own record of a block's length, not the descriptor's, which callers
    // rewrite: dropping pages past the block would wipe someone else's memory.
    const Release r{h->base, mapped ? h->free : ::malloc_usable_size(h->base), mapped};
    if (r.length >= kReleaseLaterBytes)
      TheReclaimer().Take(r);
    else
      ReleaseNow(r);
  }
  h->base = nullptr;
  h->flags &= ~HEAP_MAPPED;
}

void WaitForReleases() { TheReclaimer().Wait(); }

}  // namespace corvid
