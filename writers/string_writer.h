// StringWriter: appends string chunks to a string column's heap and tail files.
//
// Each chunk carries the heap bytes added since the last one and a copy of the heap's hash
// area: the bytes are appended (from position 0 for the first chunk of a heap written anew),
// then the copy is written over the file's first 2048 bytes, so the last chunk leaves the
// final hash area. The tail gets the chunk's offsets at the tail's width W, which starts
// from the heap file's size on disk; a chunk of a wider width first widens the tail: the
// values are rewritten at the new width into a file named as the tail plus the width's
// digit, which then replaces the tail (or, if the tail cannot be removed, is copied over
// it). 1- and 2-byte tail values are reduced by 256, wider ones are not. A tail of width 8
// holds 64-bit values.
// Threading: as BATWriter; chunks of one writer are written one at a time, in order.
#ifndef QOPCI_WRITERS_STRING_WRITER_H_
#define QOPCI_WRITERS_STRING_WRITER_H_

#include <cstdint>
#include <memory>
#include <string>

#include "writers/bat_writer.h"
#include "writers/mmf/mmf_byte_writer.h"

namespace qopci {

class StringWriter : public BATWriter {
 public:
  // keep_existing appends to both files; row_count rows are in the tail and
  // existing_heap_size bytes in the heap. The names are copied.
  StringWriter(const char* heap_file, const char* tail_file, bool keep_existing, uint64_t row_count,
               uint64_t existing_heap_size);
  ~StringWriter() override;

  const char* GetHeapFileName() override { return heap_name_.c_str(); }
  void SetCompressed(bool compressed) override;
  uint32_t GetGranularity() override { return tail_->GetGranularity(); }
  bool GetTailKeepExisting() override { return tail_->GetKeepExisting(); }
  uint64_t GetTailSize() override { return tail_->Size(); }
  uint64_t GetTailMappedSize() override { return tail_->GetMappingSize(); }
  uint64_t GetHeapSize() override { return heap_->Size(); }
  uint64_t GetHeapMappedSize() override { return heap_->GetMappingSize(); }
  uint32_t GetValueWidth() override { return static_cast<uint32_t>(width_); }
  // Opens the heap and, if that succeeded, the tail.
  bool Open() override;
  // Closes the heap, then the tail. A heap that received nothing gets an empty hash area,
  // the smallest heap the host accepts.
  bool Close() override;
  // REQUIRES: chunk is a StringChunk; anything else fails with EINVAL. On failure the
  // chunk stays with the caller; the files then hold a partial write.
  bool WriteChunk(BATChunk* chunk) override;

  // Rewrites the tail's count values from width_ to new_width (2, 4 or 8). True with
  // nothing done for a tail with nothing mapped; false, the tail as it was, when the
  // temporary file cannot be written.
  bool WidenTail(int32_t new_width, uint64_t count);

  const std::string& GetTailFileName() const { return tail_name_; }

 private:
  bool WriteHashArea(const char* area);
  // Writes the tail's count values at new_width to the file temp; *written its size.
  bool RewriteTail(const std::string& temp, int32_t new_width, uint64_t count, uint64_t* written);
  // Copies the size bytes of temp over the tail from byte 0 and cuts it there.
  bool CopyInPlace(const std::string& temp, uint64_t size);
  static bool RemoveFile(const std::string& name);

  std::string heap_name_;
  std::string tail_name_;
  int32_t width_;                // tail width W
  uint64_t existing_heap_size_;  // bytes already in the heap file
  std::unique_ptr<MMFByteWriter> heap_;
  std::unique_ptr<MMFByteWriter> tail_;  // replaced when the tail widens
};

}  // namespace qopci

#endif  // QOPCI_WRITERS_STRING_WRITER_H_
