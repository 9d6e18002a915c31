// TimestampChunker: the chunker of 64-bit timestamps (day number in the high 32 bits,
// milliseconds since midnight in the low 32 bits).
//
// A value of 0 counts as nil: it clears the no-nil flag and stores the nil value
// (INT64_MIN). Threading: one thread per chunker.
#ifndef QOPCI_CHUNKERS_TIMESTAMP_CHUNKER_H_
#define QOPCI_CHUNKERS_TIMESTAMP_CHUNKER_H_

#include <cstdint>

#include "chunkers/simple_type_chunker.h"

namespace qopci {

class TimestampChunker : public SimpleTypeChunker<int64_t> {
 public:
  // Throws "Chunk size must not be negative" for chunk_size < 0.
  explicit TimestampChunker(int32_t chunk_size);

  // Goes through InsertVal, so that a converted 0 is a nil too.
  bool InsertValue(const void* src, const char* type_name, bool is_nil) override;
  bool InsertVal(int64_t value) override;
  // Value by value: every value goes through InsertVal, which takes 0 as nil.
  size_t InsertRun(const void* src, const char* type_name, size_t n, size_t stride,
                   const void* nil) override {
    return ChunkerBase::InsertRun(src, type_name, n, stride, nil);
  }

  // Stores the timestamp of a calendar date and a time of day. An impossible date gives
  // the nil day number 0x80000000. A time with a component out of range (negative, or
  // hour > 23, minute > 59, second > 59, millisecond > 999) gives the nil time part
  // 0x80000000, which, being added sign-extended, also lowers the day field by one.
  // REQUIRES: !IsChunkFull().
  bool InsertDateTime(int year, int month, int day, int hour, int minute, int second,
                      int millisecond);
};

}  // namespace qopci

#endif  // QOPCI_CHUNKERS_TIMESTAMP_CHUNKER_H_
