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
  const bool valid_time = hour >= 0 && hour <= 23 && minute >= 0 && minute <= 59 && second >= 0 &&
                          second <= 59 && millisecond >= 0 && millisecond <= 999;
  const int32_t msecs =
      valid_time ? ((hour * 60 + minute) * 60 + second) * 1000 + millisecond : CVD_MSEC_NIL;
  int64_t ts;
  if (days == CVD_DAY_NIL && msecs < 0) {
    // Both halves nil: the sum wraps below INT64_MIN, so form it in unsigned arithmetic.
    ts = static_cast<int64_t>((uint64_t{0x80000000u} << 32) +
                              static_cast<uint64_t>(static_cast<int64_t>(msecs)));
  } else {
    ts = cvd_timestamp(days, msecs);
  }
  return InsertVal(ts);
}

}  // namespace qopci
