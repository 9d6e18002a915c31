// StringTailReader: reads the offsets of a string tail, of width 1, 2, 4 or 8 bytes, as
// unsigned 32-bit numbers.
//
// A tail value v designates heap position (v + 256) * 8 for widths 1 and 2 and v * 8 for
// widths 4 and 8 (cvd_str_heappos); this reader hands out v itself. An 8-byte entry is cut
// to its low 32 bits. Only the inner SimpleTypeBATReader of the tail's width exists; for
// any other width every operation answers false or 0. Failures of the logging forms are
// appended with the prefix "StringTailReader".
// Threading: a reader belongs to one thread at a time.
#ifndef QOPCI_READERS_STRING_TAIL_READER_H_
#define QOPCI_READERS_STRING_TAIL_READER_H_

#include <cstdint>
#include <memory>

#include "readers/bat_reader.h"
#include "readers/simple_type_bat_reader.h"

namespace qopci {

class StringTailReader : public BATReader<unsigned int> {
 public:
  // tail_file: the tail (copied); width: bytes per entry; requested_size: entry count x
  // width, or MMF::kNoRequestedSize for the whole file.
  StringTailReader(const char* tail_file, uint32_t width, uint64_t requested_size);
  ~StringTailReader() override;

  void SetWholeFile() override;
  bool Initialize(TextLog* log) override;
  bool Open() override;
  void Close() override;
  bool IsEmpty() override;
  bool Read(TextLog* log) override;
  bool Read() override;
  // The entry under the cursor, as its low 32 bits.
  unsigned int GetValue() override;
  uint32_t ElementWidth() override { return width_; }

  // The entry of row index (0-based), moving the cursor there; when the row is not in the
  // tail the cursor stays and the entry under it is returned.
  uint32_t ValueAt(uint64_t index);

 private:
  // Calls f with the inner reader of the tail's width; returns fallback without one.
  template <typename R, typename F>
  R WithInner(R fallback, F f);

  bool first_read_ = true;  // no Read has been answered yet
  uint32_t width_;
  std::unique_ptr<SimpleTypeBATReader<unsigned char>> reader1_;
  std::unique_ptr<SimpleTypeBATReader<unsigned short>> reader2_;
  std::unique_ptr<SimpleTypeBATReader<unsigned int>> reader4_;
  std::unique_ptr<SimpleTypeBATReader<uint64_t>> reader8_;
};

}  // namespace qopci

#endif  // QOPCI_READERS_STRING_TAIL_READER_H_
