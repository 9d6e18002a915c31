// CsvReader: reads a comma-separated file record by record, one record per line, and knows
// each record's 1-based line number for error messages. Fields may be quoted with double
// quotes ("a,b", "say ""hi"""); a quoted field does not span lines. A trailing "\r" is
// dropped, so files with CRLF line ends read as LF ones.
//
// Threading: one reader belongs to one thread.
#ifndef QOPCI_TOOLS_CSV_H_
#define QOPCI_TOOLS_CSV_H_

#include <cstdint>
#include <istream>
#include <string>
#include <vector>

#include "tools/status.h"

namespace qopci {

// Split one line into fields. The error text names the problem, not the line.
Status SplitCsvLine(const std::string& line, std::vector<std::string>* fields);

class CsvReader {
 public:
  // Reads from `in`, which must outlive the reader.
  explicit CsvReader(std::istream* in) : in_(in) {}

  CsvReader(const CsvReader&) = delete;
  CsvReader& operator=(const CsvReader&) = delete;

  // Read the next record into *fields. Sets *done (and leaves *fields alone) at the end of
  // the input. A malformed line or a read error fails with "line N: ...".
  Status Next(std::vector<std::string>* fields, bool* done);

  uint64_t line() const { return line_; }              // line number of the last record
  uint64_t bytes_read() const { return bytes_read_; }  // for progress reports

 private:
  std::istream* in_;
  std::string buffer_;
  uint64_t line_ = 0;
  uint64_t bytes_read_ = 0;
};

}  // namespace qopci

#endif  // QOPCI_TOOLS_CSV_H_
