// Result-column readers: yield, one at a time, the values of one target column in the row
// order of the copy.
//
// A column either comes from the query result (read through the order BAT, or as the single
// value of a result without one) or is generated (row ids). Each value is returned by
// address; the address stays valid until the next call.
// Threading: a reader belongs to the exporting thread; the BATs it reads are fixed by the
// copy manager for the reader's lifetime.
#ifndef QOPCI_READERS_INTERNAL_READER_H_
#define QOPCI_READERS_INTERNAL_READER_H_

#include <cstddef>
#include <cstdint>

#include "corvid/gdk.h"

namespace qopci {

class InternalReader {
 public:
  InternalReader() = default;
  InternalReader(const InternalReader&) = delete;
  InternalReader& operator=(const InternalReader&) = delete;

  // Host type number of the values (what ATOMnil, ATOMcmp and ATOMname take).
  virtual int type() = 0;
  virtual ~InternalReader() = default;
  // Address of the next value, advancing the reader; null for a row that yields no value.
  virtual const void* next() = 0;
  virtual bool atEnd() = 0;
  // Consumes up to max values that lie next to each other in memory, ATOMsize(type())
  // bytes apart, setting *base to the first; the same values next() would yield. Returns
  // 0, consuming nothing, when the next values are not laid out so.
  virtual size_t NextRun(const void** base, size_t max) {
    (void)base;
    (void)max;
    return 0;
  }
};

// Reads a BAT's tail value at a row index: fixed-width slots, string offsets into the
// heap, or dense (void) values computed into a scratch oid.
class BatIterator {
 public:
  explicit BatIterator(BAT* b) : b_(b) {}
  // REQUIRES: i < row count of the BAT.
  const void* At(BUN i);

 private:
  BAT* b_;
  oid scratch_ = 0;  // computed value of a dense tail
};

// Yields the result column's values in the order the order BAT lists their row ids.
// Throws "Row id of the order BAT not found in the result column" when the order BAT
// names a row the result column lacks.
class RegularInternalReader : public InternalReader {
 public:
  // Neither BAT is owned; both must outlive the reader.
  RegularInternalReader(BAT* result, BAT* order);

  int type() override { return type_; }
  const void* next() override;
  bool atEnd() override { return position_ >= end_; }
  // Runs exist while a dense order BAT walks a full-width fixed-size result tail.
  size_t NextRun(const void** base, size_t max) override;

 private:
  int type_;
  uint32_t position_;  // next row of the order BAT
  uint32_t end_;       // the result BAT's row count
  BatIterator result_iter_;
  BatIterator order_iter_;
  BAT* result_;
  BAT* order_;
  bool runs_;  // the order BAT is dense and the result tail is plain fixed-width values
};

// Generated row numbers 1, 2, ..., count (the first row id is 1).
class RowIdInternalReader : public InternalReader {
 public:
  // count: the order BAT's row count, or 1 for a result without an order BAT.
  explicit RowIdInternalReader(uint32_t count) : count_(count) {}

  int type() override { return TYPE_oid; }
  const void* next() override {
    ++current_;
    return &current_;
  }
  bool atEnd() override { return current_ >= count_; }

 private:
  oid current_ = 0;
  uint32_t count_;
};

// The single value of a result column of a result without an order BAT; a column that
// holds no value yields one nil of its type.
class SingleValInternalReader : public InternalReader {
 public:
  // The BAT is not owned and must outlive the reader.
  explicit SingleValInternalReader(BAT* column);

  int type() override { return type_; }
  const void* next() override {
    done_ = 1;
    return value_;
  }
  bool atEnd() override { return done_ != 0; }

 private:
  const void* value_;
  int32_t done_ = 0;
  int32_t type_;
  oid dense_value_ = 0;  // the value of a dense column
};

}  // namespace qopci

#endif  // QOPCI_READERS_INTERNAL_READER_H_
