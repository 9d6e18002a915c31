// ConcurrentQueue: runs BaseQItems on worker threads, serialising items of one OrderKey.
//
// Items of the same key run one at a time in insertion order; items of different keys run
// in parallel. InsertDataItem with throttle set makes the producer wait while more items
// are pending than the items' GetMaxPending allows; without it, insertion never blocks
// (workers insert follow-up items that way). The first failing item's error text is kept.
// Threading: any thread may insert; ResetOK, WaitForProcessingEnd and the destructor are
// called by the owning thread.
#ifndef QOPCI_QUEUE_CONCURRENT_QUEUE_H_
#define QOPCI_QUEUE_CONCURRENT_QUEUE_H_

#include <atomic>
#include <memory>
#include <string>

#include "queue/base_q_item.h"

namespace qopci {

class ConcurrentQueue {
 public:
  // Starts `workers` threads; 0 (or less) chooses one per available core. `name` may be
  // null; it names the worker threads. Never throws for lack of threads: when not one worker
  // can be started, the success flag is cleared, ErrorText says why and every insertion is
  // refused.
  ConcurrentQueue(const char* name, int workers);
  ConcurrentQueue(const ConcurrentQueue&) = delete;
  ConcurrentQueue& operator=(const ConcurrentQueue&) = delete;
  // Waits for the items inserted so far (and those they insert), then stops and joins the
  // workers.
  // REQUIRES: not called from inside an item.
  ~ConcurrentQueue();

  // Takes ownership of item. Returns false only when the queue is stopping or has no
  // worker (the item is then released with ReleaseAll), or when item is null.
  // With throttle, waits while at least max(1, item->GetMaxPending()) items are pending,
  // unless called from one of this queue's workers, which never wait.
  // A worker runs an item as follows: an item that is not IsProcessable is dropped with
  // ReleaseAll; otherwise Process runs, and on false the success flag is cleared and
  // CreateError is asked, on the same thread, for the text (an exception thrown by Process
  // counts as a failure with the exception's text); then Release after success or
  // ReleaseAll after failure, exactly once.
  bool InsertDataItem(BaseQItem* item, bool throttle);

  // Sets the success flag and forgets the kept error text.
  void ResetOK();

  // Returns once every inserted item, including those inserted by workers meanwhile, has
  // been processed and released.
  // REQUIRES: not called from inside an item.
  void WaitForProcessingEnd();

  // The first failing item's error text since ResetOK ("" when none failed), at most 1023
  // bytes.
  std::string ErrorText() const;

  // Number of worker threads running.
  int WorkerCount() const;

  std::atomic<bool> m_bOK{true};  // true while every processed item succeeded

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace qopci

#endif  // QOPCI_QUEUE_CONCURRENT_QUEUE_H_
