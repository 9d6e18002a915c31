// BatInternalReader<T,U>: yields the values of a generated column, read back from existing
// column files.
//
// Exactly one of two readers is set: a plain column reader (a SimpleTypeBATReader<T> or a
// StringReader) or a dictionary column reader (a SimpleTypeDictReader<T,U> or a
// StringDictReader). The first next() opens it and throws "shit on the ground" when it
// cannot; each next() then reads one row and returns its value's address, valid until the
// following call, or null once the rows are done (atEnd is then true). For char* the
// address handed out is the string itself, as for a string column of a query result. A
// column that ends before the row count it was given throws "Generated column ended after
// N of M rows".
// Instances: <int64_t, unsigned int>, <unsigned short, unsigned int>, <int, int>,
// <unsigned char, char>, <unsigned short, short>, <uint64_t, unsigned int>,
// <unsigned int, unsigned int>, <int, unsigned int>, <unsigned char, unsigned int>,
// <char, char>, <double, unsigned int>, <unsigned int, int>, <char*, unsigned int>,
// <short, unsigned int>, <char, unsigned int>, <short, short>.
// Threading: a reader belongs to the exporting thread.
#ifndef QOPCI_READERS_BAT_INTERNAL_READER_H_
#define QOPCI_READERS_BAT_INTERNAL_READER_H_

#include <cstdint>
#include <memory>

#include "readers/bat_reader.h"
#include "readers/internal_reader.h"

namespace qopci {

template <typename T, typename U>
class BatInternalReader : public InternalReader {
 public:
  // Takes ownership of whichever of plain and dict is not null (one of them should be).
  // timestamp: the 64-bit values are timestamps. rows: the rows the column must yield, or
  // UINT64_MAX when the file's end decides.
  BatInternalReader(BATReader<T>* plain, BATReader<T>* dict, bool timestamp, uint64_t rows);
  ~BatInternalReader() override;

  // The host type by name: "int", "dbl", "str", "timestamp" or "lng" for int64_t (by the
  // timestamp flag), and "chr", "sht", "oid", "lng" for the other widths.
  int type() override;
  const void* next() override;
  bool atEnd() override { return end_; }

 private:
  bool timestamp_;
  bool opened_ = false;
  bool end_ = false;
  std::unique_ptr<BATReader<T>> plain_;
  std::unique_ptr<BATReader<T>> dict_;
  uint64_t rows_;         // rows expected
  uint64_t yielded_ = 0;  // rows handed out so far
  T value_{};             // the current row's value
};

}  // namespace qopci

#endif  // QOPCI_READERS_BAT_INTERNAL_READER_H_
