// Farm inspection: prints the catalog of an open farm (every persistent BAT with its type,
// count, width, heap sizes and property flags) and the first values of each column, read
// back through the kernel's own loading, so that it shows what a later query would see.
// Types are SQL words: the column's recorded SQL type when it has one ("decimal(9,2)"), else
// the word for its kernel type ("bigint" for lng). Values are printed as they were given
// to the copy: a decimal with its scale ("201.49"), a timestamp with milliseconds only when
// they are not zero, a double in the shortest text that reads back the same, a string in
// double quotes with JSON's escapes (the catalog's value lists are comma-separated). It only
// reads: a farm opened read-only will do. row_view.h prints the same values as rows.
//
// Threading: as the kernel's buffer pool: call from the one thread that uses the farm.
#ifndef QOPCI_TOOLS_INSPECT_H_
#define QOPCI_TOOLS_INSPECT_H_

#include <cstdint>
#include <ostream>
#include <string>
#include <vector>

#include "corvid/gdk.h"
#include "tools/status.h"

namespace qopci {

// The property flags of a descriptor as words ("sorted key nonil"), "-" when none is set.
std::string FlagWords(const BAT& b);

// A persistent column of the open farm: its BAT id and its name ("trades.price").
// A dictionary-coded column is shown by its name and decoded: keys and key_codes are its
// dictionary's BATs ("<name>.dict", "<name>.dict_codes"), 0 for any other column.
// A time-level column is shown with its levels: `levels` holds its five row-level BATs
// (level_target.h), and `level_dict` its dictionary's level numbers (0 without one).
struct FarmColumn {
  bat id = 0;
  std::string name;
  bat keys = 0;
  bat key_codes = 0;
  std::vector<bat> levels = {};
  bat level_dict = 0;
};

// Every persistent column of the open farm, in the order they were made (BAT id order). The
// two dictionary BATs of a dictionary-coded column, and the level BATs of a time-level
// column, are part of it, not columns of their own.
std::vector<FarmColumn> FarmColumns();

// Whether a column named `name` ("trades.price") is the one a user means by `wanted`
// ("trades.price", or "price").
bool NameMatches(const std::string& name, const std::string& wanted);

// Formats the values of one loaded column as text. Holds the kernel's format buffer.
class ValueFormatter {
 public:
  // `b` is the loaded descriptor of persistent BAT `id`; it must outlive the formatter.
  // With `dates`, a timestamp at midnight is printed as its date ("2013-04-01"), as the
  // period starts of a time-level column are.
  ValueFormatter(bat id, BAT* b, bool dates = false);
  ~ValueFormatter();
  ValueFormatter(const ValueFormatter&) = delete;
  ValueFormatter& operator=(const ValueFormatter&) = delete;

  // The text of row `row` into *text; false when the value is nil (*text is then "nil").
  // A value the kernel cannot format is an error naming the row.
  // REQUIRES: row < b->batCount.
  Status Format(BUN row, std::string* text, bool* nil);

  bool decimal() const { return scale_ >= 0; }
  bool timestamp() const;
  bool string() const { return b_->ttype == TYPE_str; }

 private:
  BAT* b_;
  int scale_;            // a decimal's scale, or -1 for any other column
  bool dates_;           // midnight timestamps as dates
  char* buf_ = nullptr;  // ATOMformat's buffer, grown as needed
  size_t len_ = 0;
};

// Loads column c as its users see it (*out; release with ReleaseShown): its own BAT, or
// for a dictionary-coded column a transient BAT of its decoded values (nil for the nil
// code). A code its dictionary does not hold is an error naming the row.
Status LoadShown(const FarmColumn& c, BAT** out);
void ReleaseShown(const FarmColumn& c, BAT* b);

// Print the catalog and then up to `limit` values of every column, or only of the columns
// named in `columns` ("trades.price", or "price" when one table has it) when not empty.
// A column that does not exist, or whose files do not load, is an error.
// REQUIRES: a farm is open.
Status PrintFarm(std::ostream& out, const std::vector<std::string>& columns, uint64_t limit);

}  // namespace qopci

#endif  // QOPCI_TOOLS_INSPECT_H_
