#include "chunkers/timestamp_chunker.h"

#include <corvid/mtime.h>

namespace qopci {

TimestampChunker::TimestampChunker(int32_t chunk_size) : SimpleTypeChunker<int64_t>(chunk_size) {}

bool TimestampChunker::InsertValue(const void* src, const char* type_name, bool is_nil) {
  return Chunker<int64_t>::InsertValue(src, type_name, is_nil);
}

bool TimestampChunker::InsertVal(int64_t value) {
  if (value == 0) {
    no_nil_ = false;
    value = nil_;
  }
  return Store(value);
}

bool TimestampChunker::InsertDateTime(int year, int month, int day, int hour, int minute,
                                      int second, int millisecond) {
  const int32_t days = cvd_date_days(year, month, day);
  // Only the upper bounds make a time invalid; a negative part goes into the arithmetic.
  const bool valid_time = hour <= 23 && minute <= 59 && second <= 59 && millisecond <= 999;
  // Computed wide and cut to 32 bits, as 32-bit arithmetic wraps, so that no input overflows.
  const int64_t time = ((int64_t{hour} * 60 + minute) * 60 + second) * 1000 + millisecond;
  const int32_t msecs = valid_time ? static_cast<int32_t>(static_cast<uint32_t>(time))
                                   : CVD_MSEC_NIL;
  const int64_t ts = cvd_timestamp(days, msecs);
  return InsertVal(ts);
}

}  // namespace qopci
