// StringReader and StringDictReader: read string columns back from their tail and heap.
//
// A string column is a tail of offsets, one per row, and a heap of zero-terminated
// strings; a tail value v designates heap position (v + 256) * 8 for tail widths 1 and 2
// and v * 8 for widths 4 and 8, in 32-bit arithmetic. StringReader walks the rows: each
// Read makes the row's string addressable and GetValue points at it in the mapped heap
// (no copy; valid until the next Read or ValueAt). ValueAt(code) looks up the code-th
// string (1-based), which is how a string dictionary is read. StringDictReader reads a
// dictionary-coded string column: a code file of unsigned 32-bit codes into a dictionary
// held as a StringReader. Log lines carry the prefixes "StringReader" and
// "StringDictReader".
// Threading: a reader belongs to one thread at a time.
#ifndef QOPCI_READERS_STRING_READER_H_
#define QOPCI_READERS_STRING_READER_H_

#include <cstdint>
#include <memory>

#include "readers/bat_reader.h"
#include "readers/string_tail_reader.h"
#include "writers/mmf/mmf_string_byte_reader.h"

namespace qopci {

class StringReader : public BATReader<char*> {
 public:
  // heap_file and tail_file are copied. tail_width: 1, 2, 4 or 8; requested_size: the
  // tail's bytes that count (rows x width); heap_size: the heap's, or
  // MMF::kNoRequestedSize for the whole heap.
  StringReader(const char* heap_file, const char* tail_file, uint32_t tail_width,
               uint64_t requested_size, uint64_t heap_size);
  // Destroys the tail reader, then the heap reader.
  ~StringReader() override;

  void SetWholeFile() override;
  // Opens the heap, then the tail, logging which failed.
  bool Initialize(TextLog* log) override;
  // Opens both files; answers true even when one failed (Initialize checks).
  bool Open() override;
  void Close() override;
  // The tail has no bytes.
  bool IsEmpty() override;
  // Moves to the next row. The end of the column is a failed Read.
  bool Read(TextLog* log) override { return Step(log); }
  bool Read() override { return Step(nullptr); }
  // The current row's string, or null before a successful Read.
  char* GetValue() override;
  uint32_t ElementWidth() override { return tail_width_; }

  // The string of dictionary code `code` (row code - 1), or null when it cannot be read.
  // Valid until the next Read or ValueAt.
  char* ValueAt(uint32_t code);

 private:
  bool Step(TextLog* log);
  uint32_t HeapPosition(uint32_t v) const;

  uint32_t tail_width_;
  std::unique_ptr<MMFStringByteReader> heap_;
  std::unique_ptr<StringTailReader> tail_;
  bool first_read_ = true;   // the next Read is the first: it takes two tail entries
  bool tail_read_ = true;    // the last read of the tail succeeded
  uint32_t tail_value_ = 0;  // the last tail entry read
};

class StringDictReader : public BATReader<char*> {
 public:
  // Both readers are owned from here on: codes over the column's code file, strings over
  // the dictionary's tail and heap.
  StringDictReader(BATReader<unsigned int>* codes, StringReader* strings);
  ~StringDictReader() override;

  bool Initialize(TextLog* log) override;
  // Opens the code file and, only if that succeeded, the dictionary.
  bool Open() override;
  void Close() override;
  // The code file has no bytes.
  bool IsEmpty() override;
  bool Read(TextLog* log) override;
  // Moves to the next row's code.
  bool Read() override;
  // The current row's string, as StringReader::ValueAt.
  char* GetValue() override;
  uint32_t ElementWidth() override { return strings_->ElementWidth(); }

 private:
  std::unique_ptr<BATReader<unsigned int>> codes_;
  std::unique_ptr<StringReader> strings_;
};

}  // namespace qopci

#endif  // QOPCI_READERS_STRING_READER_H_
