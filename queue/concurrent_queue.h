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
  // Starts `workers` threads; 0 chooses one per available core. `name` may be null.
  ConcurrentQueue(const char* name, int workers);
  ConcurrentQueue(const ConcurrentQueue&) = delete;
  ConcurrentQueue& operator=(const ConcurrentQueue&) = delete;
  // Waits for the items inserted so far, then stops and joins the workers.
  ~ConcurrentQueue();

  // Takes ownership of item. Returns false only when the queue is stopping (the item is
  // then released with ReleaseAll).
  bool InsertDataItem(BaseQItem* item, bool throttle);

  // Sets the success flag and forgets the kept error text.
  void ResetOK();

  // Returns once every inserted item, including those inserted by workers meanwhile, has
  // been processed and released.
  void WaitForProcessingEnd();

  // The first failing item's error text since ResetOK ("" when none failed).
  std::string ErrorText() const;

  int WorkerCount() const;

  std::atomic<bool> m_bOK{true};  // true while every processed item succeeded

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace qopci

#endif  // QOPCI_QUEUE_CONCURRENT_QUEUE_H_
