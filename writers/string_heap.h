// CorvidHeap and StringHeap: a string column's heap, built in memory in the host's format
// (corvid/strheap.h), so that a string already in the heap is stored once and the heap file
// the library writes is byte for byte the heap the kernel builds from the same strings.
//
// Duplicates are searched as the kernel searches them: below 64 KiB through the chains of
// the 16-bit links (found flag set); from 64 KiB on only the string a bucket names within
// the current 64 KiB block is compared (found flag not set). An existing heap of more than
// 65535 bytes is not loaded and nothing is searched ("elimination off"): its bytes stay on
// disk and the new strings are appended after them.
//
// Memory: the buffer holds the hash area and the heap from the last flush on, plus, once the
// heap has passed 64 KiB, the part of the current 64 KiB block before the flush (the only
// old bytes a search can reach). It grows geometrically (doubling, the new part zeroed) when
// a string does not fit, and TakeFlush slides the kept bytes back to its start, so its size
// follows one chunk's heap bytes, not the column's. TakeFlush gives the caller its own copy
// of the bytes added since the last flush and of the 2048-byte hash area: later adds never
// touch what was handed out.
// Threading: one thread (the column's chunker) at a time.
#ifndef QOPCI_WRITERS_STRING_HEAP_H_
#define QOPCI_WRITERS_STRING_HEAP_H_

#include <cstdint>
#include <memory>

#include "corvid/gdk.h"
#include "corvid/strheap.h"

namespace qopci {

// One host heap descriptor and the zeroed buffer it points at.
class CorvidHeap {
 public:
  // A buffer of size bytes (at least the hash area); free position 2048, base offset 0,
  // string prefixes on. Throws "StringHeap out of memory" when it cannot be allocated.
  explicit CorvidHeap(uint64_t size);
  CorvidHeap(const CorvidHeap&) = delete;
  CorvidHeap& operator=(const CorvidHeap&) = delete;
  virtual ~CorvidHeap();

  const Heap* descriptor() const { return heap_; }

 protected:
  Heap* heap_;          // malloc'd; base is the buffer, baseoff the position of base[0]
  uint64_t allocated_;  // bytes of the buffer
  uint64_t size_;       // recorded size: the heap's extent in positions
  bool loaded_ = true;  // the buffer holds the heap from position 0
};

class StringHeap : public CorvidHeap {
 public:
  // AddString's answers beyond tail values.
  static constexpr int64_t kNoMemory = -1;
  static constexpr int64_t kPastLimit = -2;

  // A buffer for chunk_size strings of expected_width bytes, plus the hash area. With an
  // existing_file and existing_size > 0 the heap continues that file: loaded for search
  // when existing_size <= 65535, else only appended to. Throws a text naming the file when
  // it cannot be read or holds fewer than existing_size bytes.
  StringHeap(uint32_t chunk_size, uint32_t expected_width, const char* existing_file,
             uint64_t existing_size);

  // Stores s (or finds it) and returns its tail value, heap position / 8; *found is set
  // only for a duplicate found through a chain. kPastLimit when its record would end past
  // the limit (4294967295 bytes), kNoMemory when the buffer cannot grow; the heap is
  // unchanged then.
  int64_t AddString(const char* s, bool* found);

  // Hands out the bytes added since the last flush ([flushed, Free()) of the heap) and a
  // copy of the hash area, and starts the next flush at Free(). *restart is true for the
  // first flush of a heap written from position 0 (its bytes then start there).
  void TakeFlush(std::unique_ptr<char[]>* bytes, uint64_t* count,
                 std::unique_ptr<char[]>* hash_area, bool* restart);
  // True once after the heap was rewritten since the last call; this heap never is.
  bool TakeRewritten() { return false; }

  uint64_t Free() const { return heap_->free; }  // heap size in bytes
  int32_t GetOffsetWidth() const { return offset_width_; }
  void SetOffsetWidth(int32_t width) { offset_width_ = width; }
  int32_t GetExpectedWidth() const { return expected_width_; }
  bool IsEliminationOff() const { return elimination_off_; }
  bool IsLoaded() const { return loaded_; }
  uint64_t BufferSize() const { return allocated_; }

  // Test hook: heaps made from now on refuse records ending past limit; 0 restores
  // 4294967295. REQUIRES: no heap is being made on another thread.
  static void SetLimitForTesting(uint64_t limit);

 private:
  static constexpr int kRecentBits = 13;  // slots of the index of strings below 64 KiB

  void Load(const char* file, uint64_t existing_size);
  int64_t AddStringSlowly(const char* s, bool* found);
  int64_t FindDuplicate(const char* s, uint32_t len, uint32_t hash, uint32_t bucket,
                        bool* found) const;
  bool Grow(uint64_t need);  // makes the buffer hold `need` bytes from base[0]
  char* At(uint64_t pos) const { return heap_->base + (pos - heap_->baseoff); }
  char* HashArea() const { return heap_->baseoff == 0 ? heap_->base : hash_area_.get(); }

  bool elimination_off_ = false;       // the existing heap is too large to search
  int32_t offset_width_ = 1;           // tail width the heap's offsets need so far
  int32_t expected_width_;             // bytes expected per string
  uint64_t flushed_ = 0;               // heap position of the first byte not yet handed out
  bool restart_ = true;                // the next flush starts at position 0
  uint64_t limit_;                     // a record may end at this position, not past it
  std::unique_ptr<char[]> hash_area_;  // the hash area once the buffer no longer starts at 0
  // Strings below 64 KiB by a quick hash: its low 32 bits, then the tail value; 0 is empty.
  std::unique_ptr<uint64_t[]> recent_;
};

}  // namespace qopci

#endif  // QOPCI_WRITERS_STRING_HEAP_H_
