// Row view: the columns of one table of an open farm printed side by side, one line per
// row, as a table for people, as CSV that diffs clean against the CSV the copy read, or as
// one JSON object for programs. Values are printed as ValueFormatter gives them; nil is
// "nil" in the table, the empty field in CSV and null in JSON. It only reads.
//
// Threading: as the kernel's buffer pool: call from the one thread that uses the farm.
#ifndef QOPCI_TOOLS_ROW_VIEW_H_
#define QOPCI_TOOLS_ROW_VIEW_H_

#include <cstdint>
#include <limits>
#include <ostream>
#include <string>
#include <vector>

#include "tools/status.h"

namespace qopci {

enum class RowFormat { kTable, kCsv, kJson };

// "table", "csv" or "json" into *out; false for any other word.
bool ParseRowFormat(const std::string& word, RowFormat* out);

struct RowViewOptions {
  std::string table;                 // empty: the farm's only table
  std::vector<std::string> columns;  // empty: every column of the table, in the order they
                                     // were made (a fresh farm's manifest order)
  uint64_t limit = 10;               // rows printed at most
  RowFormat format = RowFormat::kTable;
};

constexpr uint64_t kAllRows = std::numeric_limits<uint64_t>::max();

// A CSV field as written: quoted (with doubled quotes) only when it holds a comma, a quote
// or a line break.
std::string CsvField(const std::string& text);

// Print the rows of the chosen columns. The columns must belong to one table and hold the
// same number of rows; a name that matches nothing, or a table the farm does not hold, is
// an error that names it and the closest existing one.
// REQUIRES: a farm is open.
Status PrintRows(std::ostream& out, const RowViewOptions& options);

}  // namespace qopci

#endif  // QOPCI_TOOLS_ROW_VIEW_H_
