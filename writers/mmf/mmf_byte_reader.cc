#include "writers/mmf/mmf_byte_reader.h"

#include <sys/stat.h>

#include "writers/mmf/mmf_os.h"

namespace qopci {

MMFByteReader::MMFByteReader(const std::string& name, uint64_t requested_size)
    : MMFManipulator(name, requested_size) {}

MMFByteReader::~MMFByteReader() = default;

bool MMFByteReader::Open() {
  // A reader may be opened again after Close: nothing of the last open's span survives.
  span_ = nullptr;
  span_start_ = span_length_ = span_cursor_ = position_ = 0;
  last_span_ = empty_ = false;
  struct stat st;
  if (mmf_os::Stat(name_.c_str(), &st) != 0) return false;
  mmf_.reset(new MMF(name_.c_str(), 2, MMF::kReadAccess, requested_size_));
  uint32_t error = 0;
  bool ok = mmf_->Open(&error);
  // A file that could not be opened has every size at 0 and, as the layer has always
  // answered, opens as an empty file.
  if (mmf_->GetMappingSize() == 0 && mmf_->GetLogicalSize() == 0) {
    empty_ = true;
    return true;
  }
  uint64_t granule = mmf_->GetGranularity();
  uint64_t file_size = mmf_->GetMappingSize();
  span_length_ = whole_file_ && file_size >= granule ? file_size : granule;
  span_step_ = span_length_;
  position_ = 0;
  span_start_ = 0;
  if (!last_span_) {
    if (span_length_ >= mmf_->GetSizeAtOpen()) {
      span_length_ = mmf_->GetSizeAtOpen();
      last_span_ = true;
    }
    mmf_->Map(span_length_, 0);
    mmf_->SetLogicalSize(span_length_);
    span_ = mmf_->Data();
    if (!span_) span_length_ = 0;  // no span: a Seek must move one in before reading
  }
  return ok;
}

bool MMFByteReader::Close() {
  span_ = nullptr;  // the view goes with the file
  span_length_ = 0;
  return MMFManipulator::Close();
}

bool MMFByteReader::Seek(uint64_t position) { return SeekEx(position, true); }

bool MMFByteReader::SeekEx(uint64_t position, bool force) {
  if (empty_ || !mmf_ || position >= mmf_->GetRequestedSizeCopy()) return false;
  if (position >= span_start_ + span_length_ || position < span_start_) {
    if (!MoveSpan(position, force)) return false;
  }
  span_cursor_ = position;
  position_ = position;
  return true;
}

bool MMFByteReader::MoveSpan(uint64_t p, bool force) {
  if (last_span_ && !force) return false;
  uint64_t end = p + span_step_;
  if (end >= mmf_->GetSizeAtOpen()) {
    end = mmf_->GetSizeAtOpen();
    last_span_ = true;
  }
  if (end <= p) {
    errno = EINVAL;
    return false;
  }
  mmf_->Map(end, p);
  mmf_->SetLogicalSize(end);
  span_ = mmf_->Data();
  if (!span_) {  // the old span is gone with its view
    span_start_ = 0;
    span_length_ = 0;
    return false;
  }
  span_start_ = p;
  span_length_ = end - p;
  return true;
}

}  // namespace qopci
