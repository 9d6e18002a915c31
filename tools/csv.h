// CsvReader: reads delimited text record by record, as spreadsheets and databases export it.
// A UTF-8 byte-order mark at the start is skipped, and so are empty lines. Fields are
// separated by one delimiter byte (',' ';' tab or '|', found from the header line unless
// given) and may be quoted with double quotes: a quoted field may hold delimiters, line
// breaks and doubled quotes ("say ""hi"""). Blanks around a field are dropped, except
// inside quotes. A record ends at "\n" or "\r\n" outside quotes; its line number, for error
// messages, is the line it starts on.
//
// Threading: one reader belongs to one thread.
#ifndef QOPCI_TOOLS_CSV_H_
#define QOPCI_TOOLS_CSV_H_

#include <cstdint>
#include <istream>
#include <string>
#include <string_view>
#include <vector>

#include "tools/status.h"

namespace qopci {

struct CsvOptions {
  char delimiter = 0;     // 0: DetectDelimiter() of the first line
  std::string null_text;  // the field text read as nil; the empty field by default
};

// The delimiter among ',', ';', '\t' and '|' that splits `line` into the most fields
// (quoted text is not split); ',' on a tie.
char DetectDelimiter(std::string_view line);

// How a delimiter is written in messages: ',' or '\t'.
std::string DelimiterName(char delimiter);

class CsvReader {
 public:
  // Reads from `in`, which must outlive the reader. Only options.delimiter is used here.
  explicit CsvReader(std::istream* in, const CsvOptions& options = CsvOptions());

  CsvReader(const CsvReader&) = delete;
  CsvReader& operator=(const CsvReader&) = delete;

  // Read the next record into *fields. Sets *done (and leaves *fields alone) at the end of
  // the input. A malformed record or a read error fails with "line N: ...". When `quoted`
  // is given it receives, per field, whether the field was enclosed in quotes (a string
  // column tells the empty string "" from the empty field, its nil).
  Status Next(std::vector<std::string>* fields, bool* done, std::vector<bool>* quoted = nullptr);

  uint64_t line() const { return record_line_; }       // line the last record started on
  uint64_t bytes_read() const { return bytes_read_; }  // for progress reports
  char delimiter() const { return delimiter_; }        // 0 until the first record is read

 private:
  // Make at least one more unread byte available; false at the end of the input.
  bool Fill();
  bool AtEnd() { return pos_ == buffer_.size() && !Fill(); }
  char Take() {
    ++bytes_read_;
    return buffer_[pos_++];
  }
  void SkipBlanks();
  Status Fail(uint64_t line, const std::string& what) const;

  std::istream* in_;
  char delimiter_;
  bool started_ = false;  // the byte-order mark and the delimiter are settled
  std::string buffer_;    // input read but not yet consumed from pos_ on
  size_t pos_ = 0;
  uint64_t line_ = 1;  // line of the next unread byte
  uint64_t record_line_ = 0;
  uint64_t bytes_read_ = 0;
};

}  // namespace qopci

#endif  // QOPCI_TOOLS_CSV_H_
