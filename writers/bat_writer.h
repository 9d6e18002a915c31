// BATWriter: appends the chunks of one result column to that column's files.
//
// The interface that the copy manager and the write work items see. A writer is created
// for one copy run, given its queue and compression flag, registered, opened once, written
// chunk by chunk, closed once the queue has drained, asked for its sizes and destroyed.
// Failures are reported by false results; the work item turns them into error text.
// Threading: WriteChunk may run on a queue worker, but the chunks of one writer are
// written one at a time; every other operation runs on the copy manager's thread.
#ifndef QOPCI_WRITERS_BAT_WRITER_H_
#define QOPCI_WRITERS_BAT_WRITER_H_

#include <cstdint>
#include <list>

#include "chunkers/bat_chunk.h"
#include "corvid/gdk.h"
#include "queue/concurrent_queue.h"

namespace qopci {

class BATWriter {
 public:
  // file_name is not copied and must outlive the writer; existing_count is the number of
  // values the column already holds.
  BATWriter(const char* file_name, uint64_t existing_count, bool keep_existing);
  BATWriter(const BATWriter&) = delete;
  BATWriter& operator=(const BATWriter&) = delete;

  // The heap file's name for writers with a heap; null otherwise.
  virtual const char* GetHeapFileName();
  // With a queue, chunks travel through it as work items; with null they are written at
  // once. The queue is not owned. REQUIRES: before the first chunk.
  virtual void SetQueue(ConcurrentQueue* queue);
  // Wanted file-system compression of the files. REQUIRES: before Open.
  virtual void SetCompressed(bool compressed);
  // Appends this writer to list, the copy manager's list of files to match with BATs.
  virtual void RegisterIn(std::list<BATWriter*>& list);
  // Destroys the byte writers, which close their files if still open.
  virtual ~BATWriter();

  virtual uint32_t GetGranularity() = 0;
  virtual bool GetKeepExisting();
  virtual bool GetTailKeepExisting() = 0;
  // Bytes that count as written in the tail.
  virtual uint64_t GetTailSize() = 0;
  // The tail's mapping size; after Close, the tail's size on disk.
  virtual uint64_t GetTailMappedSize() = 0;
  virtual uint64_t GetHeapSize() = 0;
  virtual uint64_t GetHeapMappedSize() = 0;
  // Bytes per value in the tail.
  virtual uint32_t GetValueWidth() = 0;
  virtual bool Open() = 0;
  // Cuts the files to what was written and closes them.
  virtual bool Close() = 0;
  // Appends chunk. On success the chunk has been destroyed; on failure it is left to the
  // caller, and errno tells why.
  virtual bool WriteChunk(BATChunk* chunk) = 0;

  const char* GetFileName() const { return file_name_; }
  // Values the column held before this export, as the writer was told.
  uint64_t GetExistingCount() const { return existing_count_; }
  ConcurrentQueue* GetQueue() const { return queue_; }

 protected:
  const char* file_name_;    // reported in error texts; not owned
  uint64_t existing_count_;  // values already in the column
  ConcurrentQueue* queue_ = nullptr;
  bool compressed_ = true;
  bool keep_existing_;  // files are appended to, not created anew
};

// Points BAT b's descriptor at what w wrote once it is closed: rows, the tail's and the
// heap's sizes, the value width; marks it dirty and rewritten. Every property but the
// sorted flag is cleared and left to the host's check when it commits and reloads the BAT.
void DescribeWrittenBAT(BAT* b, BATWriter* w, BUN rows, bool sorted);

}  // namespace qopci

#endif  // QOPCI_WRITERS_BAT_WRITER_H_
