// Row view: the columns of one table of an open farm printed side by side, one line per
// row, as a table for people, as CSV that diffs clean against the CSV the copy read, or as
// one JSON object for programs. Values are printed as ValueFormatter gives them; nil is
// NULL in the table, the empty field in CSV (an empty string is "") and null in JSON.
// Strings are their text: control bytes escaped in the table (\n, \x01, and \\ for a
// backslash), quoted where CSV needs it, escaped as JSON strings. It only reads.
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

// A CSV field as written: quoted (with doubled quotes) only when it is empty, holds a
// comma, a quote or a line break, or starts or ends with a blank, so that the copy reads the
// same text back.
std::string CsvField(const std::string& text);

// A JSON string literal of `text`: valid UTF-8 as it is, control characters, quotes and
// backslashes escaped, and each byte that is not part of valid UTF-8 as \u00XX (the
// character Latin-1 gives that byte), so the output is always valid JSON.
std::string JsonText(const std::string& text);

// The text with bytes below 0x20, 0x7f and the backslash escaped C-style (\n, \t, \x1b,
// \\), so that a string prints on one line.
std::string EscapeControls(const std::string& text);

// Print the rows of the chosen columns. The columns must belong to one table and hold the
// same number of rows; a name that matches nothing, or a table the farm does not hold, is
// an error that names it and the closest existing one.
// REQUIRES: a farm is open.
Status PrintRows(std::ostream& out, const RowViewOptions& options);

}  // namespace qopci

#endif  // QOPCI_TOOLS_ROW_VIEW_H_
