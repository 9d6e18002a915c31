// MMFByteWriter: appends blocks and scalars at the end of a file through its mapping.
//
// Blocks are written at a view of exactly their own range and set the logical size to
// their end; the bytes travel by pwrite, so that view is created only when the MMF's Data
// asks for it. Scalars go into a span of one granule that moves along the file, and each
// move sets the logical size to the end of the new span, so a file whose last write was a
// scalar keeps the zero bytes up to the end of that span when it is closed.
// Failures return false with errno as the failing system call left it.
// Threading: used by one thread at a time.
#ifndef QOPCI_WRITERS_MMF_MMF_BYTE_WRITER_H_
#define QOPCI_WRITERS_MMF_MMF_BYTE_WRITER_H_

#include <cstdint>
#include <string>

#include "writers/mmf/mmf_manipulator.h"

namespace qopci {

class MMFByteWriter : public MMFManipulator {
 public:
  // keep_existing appends to the file as it is; otherwise the file is created anew.
  // requested_size, unless MMF::kNoRequestedSize, is where writing starts.
  MMFByteWriter(const std::string& name, bool keep_existing,
                uint64_t requested_size = MMF::kNoRequestedSize);
  ~MMFByteWriter() override;

  // Kept in the MMF at Open. REQUIRES: before Open.
  void SetCompressed(bool compressed) { compressed_ = compressed; }
  // Opens or creates the file and places the position at its logical size.
  bool Open() override;

  // Back to position 0, forgetting the span and the written count. Returns 0.
  virtual int ResetPosition();
  // Appends length bytes of data. Length 0 succeeds and touches nothing.
  virtual bool Write(const void* data, uint64_t length);
  virtual bool WriteInt8(int8_t v);
  virtual bool WriteUInt8(uint8_t v);
  virtual bool WriteInt16(int16_t v);
  virtual bool WriteUInt16(uint16_t v);
  virtual bool WriteInt32(int32_t v);
  virtual bool WriteUInt32(uint32_t v);
  // Same as WriteUInt32.
  virtual bool WriteUInt32Ex(uint32_t v);

  uint64_t GetWrittenCount() const { return written_count_; }
  uint64_t GetPosition() const { return position_; }
  bool GetKeepExisting() const { return keep_existing_; }
  bool GetCompressed() const { return compressed_; }

 private:
  template <typename T>
  bool WriteScalar(T v);

  char* span_ = nullptr;   // start of the current span in memory
  uint64_t position_ = 0;  // file offset of the next byte
  uint64_t span_length_ = 0;
  uint64_t written_count_;  // starting size plus the bytes written since
  bool keep_existing_;
  bool compressed_ = false;
};

}  // namespace qopci

#endif  // QOPCI_WRITERS_MMF_MMF_BYTE_WRITER_H_
