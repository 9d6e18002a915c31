#include "writers/mmf/mmf_string_byte_reader.h"

#include <algorithm>
#include <cstring>

namespace qopci {

MMFStringByteReader::MMFStringByteReader(const std::string& name, uint64_t requested_size)
    : MMFByteReader(name, requested_size) {}

MMFStringByteReader::~MMFStringByteReader() = default;

bool MMFStringByteReader::Seek(uint64_t position) { return SeekEx(position, true); }

bool MMFStringByteReader::SeekEx(uint64_t position, bool) {
  return MMFByteReader::SeekEx(position, true);
}

uint64_t MMFStringByteReader::Limit() const {
  return std::min(mmf_->GetSizeAtOpen(), mmf_->GetRequestedSizeCopy());
}

bool MMFStringByteReader::ReadString(uint64_t start, uint64_t end, bool lookup) {
  (void)end;  // the zero byte, not the next string, ends a string
  (void)lookup;
  if (empty_ || !mmf_ || start >= Limit()) return false;
  const uint64_t limit = Limit();
  const uint64_t step = span_step_;
  // A span placed anew starts on the granule boundary below start, so that lookups in any
  // order move it once per granule rather than once per string.
  const uint64_t from = start - start % mmf_->GetGranularity();
  uint64_t length = step;
  bool inside = span_ != nullptr && start >= span_start_ && start < span_start_ + span_length_;
  for (;;) {
    if (!inside) {
      // MoveSpan cuts the span at the file's end.
      span_step_ = length;
      const bool moved = MoveSpan(from, true);
      span_step_ = step;
      if (!moved) return false;
    }
    const uint64_t span_end = std::min(span_start_ + span_length_, limit);
    if (std::memchr(span_ + (start - span_start_), 0, span_end - start) != nullptr) {
      span_cursor_ = start;
      position_ = start;
      return true;
    }
    if (span_end >= limit) return false;  // no zero before the end of the file
    length = std::max(length, span_end - from) * 2;
    inside = false;
  }
}

}  // namespace qopci
