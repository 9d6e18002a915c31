#include "writers/mmf/mmf_byte_writer.h"

#include <cstring>

#include "writers/mmf/mmf_fault.h"
#include "writers/mmf/mmf_os.h"

namespace qopci {
namespace {

constexpr uintptr_t kPageSize = 4096;

// Copies length bytes to the file at offset through the page cache; view points at the
// same bytes in the mapping, which shares the page cache with the file (null for kPwrite).
bool CopyBlock(MMF* mmf, char* view, const void* data, uint64_t length, uint64_t offset) {
  switch (MMFGetTuning().block_copy) {
    case MMFBlockCopy::kPwrite: {
      const char* p = static_cast<const char*>(data);
      while (length > 0) {
        ssize_t n = mmf_os::Pwrite(mmf->GetFd(), p, length, static_cast<off_t>(offset));
        if (n < 0) {
          if (errno == EINTR) continue;
          return false;
        }
        p += n;
        offset += static_cast<uint64_t>(n);
        length -= static_cast<uint64_t>(n);
      }
      return true;
    }
    case MMFBlockCopy::kPrefault: {
      mmf_os::ErrnoKeeper keep;
      uintptr_t skew = reinterpret_cast<uintptr_t>(view) % kPageSize;
      mmf_os::MadvisePopulateWrite(view - skew, length + skew);
      break;
    }
    case MMFBlockCopy::kMemcpy:
      break;
  }
  std::memcpy(view, data, length);
  return true;
}

}  // namespace

MMFByteWriter::MMFByteWriter(const std::string& name, bool keep_existing, uint64_t requested_size)
    : MMFManipulator(name, requested_size),
      written_count_(requested_size),
      keep_existing_(keep_existing) {}

MMFByteWriter::~MMFByteWriter() = default;

bool MMFByteWriter::Open() {
  mmf_.reset(new MMF(name_.c_str(), keep_existing_ ? 2 : 4, MMF::kWriteAccess, requested_size_));
  mmf_->SetCompressed(compressed_);
  uint32_t error = 0;
  bool ok = mmf_->Open(&error);
  if (!mmf_->IsOpen()) return false;
  position_ = written_count_ = mmf_->GetLogicalSize();
  return ok;
}

int MMFByteWriter::ResetPosition() {
  position_ = 0;
  span_length_ = 0;
  written_count_ = 0;
  return 0;
}

bool MMFByteWriter::Write(const void* data, uint64_t length) {
  if (length == 0) return true;
  if (!mmf_ || !mmf_->IsOpen()) {
    errno = EBADF;
    return false;
  }
  uint64_t end = position_ + length;
  // The scalar span goes with the old view, whatever happens next; a failure below leaves
  // no span, so the next scalar write moves one in (or fails) instead of using a stale one.
  span_ = nullptr;
  span_length_ = 0;
  if (!mmf_->MapLazily(end, position_)) return false;
  // pwrite reaches the bytes without the view, so the view is created only for the other
  // strategies; MMF::Data still gives it on demand.
  bool through_view = MMFGetTuning().block_copy != MMFBlockCopy::kPwrite;
  char* span = through_view ? mmf_->Data() : nullptr;
  if (through_view && !span) return false;
  if (!CopyBlock(mmf_.get(), span, data, length, position_)) return false;
  span_ = span;
  span_length_ = length;
  mmf_->SetLogicalSize(end);
  written_count_ += length;
  mmf_->Flush();
  position_ = end;
  span_cursor_ = position_;
  return true;
}

template <typename T>
bool MMFByteWriter::WriteScalar(T v) {
  // Strict on purpose: the span moves while one value's room is still left in it.
  if (!(span_cursor_ + sizeof(T) < span_length_)) {
    if (!mmf_ || !mmf_->IsOpen()) {
      errno = EBADF;
      return false;
    }
    uint64_t granule = mmf_->GetGranularity();
    mmf_->Map(position_ + granule, position_);
    span_ = mmf_->Data();
    if (!span_) {
      span_length_ = 0;  // no span: the next scalar write tries to move one in again
      return false;
    }
    mmf_->SetLogicalSize(position_ + granule);
    span_cursor_ = 0;
    span_length_ = granule;
  }
  std::memcpy(span_ + span_cursor_, &v, sizeof(T));
  span_cursor_ += sizeof(T);
  position_ += sizeof(T);
  written_count_ += sizeof(T);
  return true;
}

bool MMFByteWriter::WriteInt8(int8_t v) { return WriteScalar(v); }
bool MMFByteWriter::WriteUInt8(uint8_t v) { return WriteScalar(v); }
bool MMFByteWriter::WriteInt16(int16_t v) { return WriteScalar(v); }
bool MMFByteWriter::WriteUInt16(uint16_t v) { return WriteScalar(v); }
bool MMFByteWriter::WriteInt32(int32_t v) { return WriteScalar(v); }
bool MMFByteWriter::WriteUInt32(uint32_t v) { return WriteScalar(v); }
bool MMFByteWriter::WriteUInt32Ex(uint32_t v) { return WriteScalar(v); }

}  // namespace qopci
