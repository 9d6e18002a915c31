// WriterChunkPair: the work item that appends one chunk with one writer, and SubmitChunk,
// the one path by which a chunk reaches a writer.
//
// The item owns its chunk until the writer has written (and so destroyed) it; a failed
// item's chunk is destroyed by ReleaseAll. Items of one writer share an OrderKey, so the
// queue runs them one at a time in insertion order.
// Threading: an item is processed and released by one queue worker; SubmitChunk may be
// called from any thread.
#ifndef QOPCI_WRITERS_WRITER_CHUNK_PAIR_H_
#define QOPCI_WRITERS_WRITER_CHUNK_PAIR_H_

#include <cstddef>
#include <cstdint>

#include "chunkers/bat_chunk.h"
#include "queue/base_q_item.h"
#include "writers/bat_writer.h"

namespace qopci {

class WriterChunkPair : public BaseQItem {
 public:
  // Takes ownership of chunk; writer is not owned and must outlive the item.
  WriterChunkPair(BATWriter* writer, BATChunk* chunk) : writer_(writer), chunk_(chunk) {}
  // Destroys neither the writer nor the chunk.
  ~WriterChunkPair() override;

  // Writes the chunk; on success the writer has destroyed it.
  bool Process() override;
  // "WriterChunkPair::CreateError() : Can't insert chunk to file [ name ] (Error code N)"
  // with the writer's file name and this thread's errno.
  void CreateError(char* buf, size_t size) override;
  // One hundredth of the available memory, counted in chunks like this one.
  uint64_t GetMaxPending() override;
  // Destroys the item alone.
  void Release() override;
  // Destroys the chunk, if still owned, and the item.
  void ReleaseAll() override;
  // The writer: its items must run one at a time, in order.
  const void* OrderKey() const override { return writer_; }

 private:
  BATWriter* writer_;
  BATChunk* chunk_;  // owned until written
};

// Hands chunk to writer: as a WriterChunkPair through the writer's queue when it has one
// (InsertDataItem(item, throttle)), or written at once on this thread. Returns whether the
// item was accepted or the chunk written. Ownership of chunk passes to the queue, or to the
// writer on a successful write; after a failed direct write it stays with the caller.
bool SubmitChunk(BATWriter* writer, BATChunk* chunk, bool throttle);

// Memory assumed available when it cannot be read: 1 GiB.
constexpr uint64_t kUnknownAvailableMemory = 1073741824;

// Available physical memory in bytes: MemAvailable of /proc/meminfo, else the free memory
// reported by sysinfo, else kUnknownAvailableMemory.
uint64_t AvailableMemory();
// MemAvailable of a meminfo file in bytes, or 0 when it cannot be read.
uint64_t MemAvailableFrom(const char* meminfo_path);
// available / capacity / 100, a capacity of 0 counting as 1.
uint64_t MaxPendingChunks(uint64_t available, uint64_t capacity);

}  // namespace qopci

#endif  // QOPCI_WRITERS_WRITER_CHUNK_PAIR_H_
