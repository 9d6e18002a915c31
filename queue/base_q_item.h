// BaseQItem: a unit of work for ConcurrentQueue.
//
// A worker calls Process; on false it clears the queue's success flag and asks CreateError
// for the text; then it disposes of the item: Release after success, ReleaseAll after
// failure, so what the item carries is destroyed exactly once.
// Items that return the same OrderKey never run at the same time and run in insertion
// order; items of different keys may run in parallel. The key is this queue's addition to
// the item interface: work items return the writer they append to.
// Threading: an item is processed and released by one worker thread.
#ifndef QOPCI_QUEUE_BASE_Q_ITEM_H_
#define QOPCI_QUEUE_BASE_Q_ITEM_H_

#include <cstddef>
#include <cstdint>

namespace qopci {

class BaseQItem {
 public:
  BaseQItem() = default;
  BaseQItem(const BaseQItem&) = delete;
  BaseQItem& operator=(const BaseQItem&) = delete;
  virtual ~BaseQItem() = default;

  // Does the item's work; false is a failure.
  virtual bool Process() = 0;
  // Writes the item's error text into buf (at most size bytes, zero-terminated).
  virtual void CreateError(char* buf, size_t size) = 0;
  virtual bool IsProcessable() { return true; }
  // How many items like this one may wait in memory.
  virtual uint64_t GetMaxPending() = 0;
  // Destroys the item alone.
  virtual void Release() = 0;
  // Destroys the item and what it carries.
  virtual void ReleaseAll() { Release(); }

  // Items with equal keys are serialised in insertion order. Defaults to the item itself.
  virtual const void* OrderKey() const { return this; }
};

}  // namespace qopci

#endif  // QOPCI_QUEUE_BASE_Q_ITEM_H_
