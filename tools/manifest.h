// Manifest: the JSON description of an export's target table: its name, chunk size, whether
// columns are written through the work queue, and for every target column its encoding,
// whether the export appends to it or replaces it, and any raw attribute overrides
// (column_attributes.h turns a column into the numbered attributes the library reads).
//
// Threading: plain values and pure functions; safe from any thread.
#ifndef QOPCI_TOOLS_MANIFEST_H_
#define QOPCI_TOOLS_MANIFEST_H_

#include <cstdint>
#include <ostream>
#include <string>
#include <vector>

#include "tools/status.h"

namespace qopci {

// How a target column is encoded on disk; each has its own attribute set.
// kRowid numbers each export's rows from 1 (the export makes them); kSerial continues from
// the rows the target already holds (the tool makes them). kString holds text of any length
// in a str BAT (a tail of heap offsets and a heap of the strings).
enum class Encoding {
  kTinyint,
  kSmallint,
  kInt,
  kBigint,
  kDouble,
  kDecimal,
  kTimestamp,
  kRowid,
  kSerial,
  kString
};

// What an export does with the rows a target already holds.
enum class Mode { kAppend, kReplace };

// One numbered column attribute, of one of the three kinds the add calls take.
struct Attribute {
  enum Kind { kInt, kLng, kStr };
  int number = 0;
  Kind kind = kInt;
  int64_t value = 0;  // kInt and kLng
  std::string text;   // kStr

  static Attribute Int(int number, int32_t v) { return {number, kInt, v, {}}; }
  static Attribute Lng(int number, int64_t v) { return {number, kLng, v, {}}; }
  static Attribute Str(int number, std::string s) { return {number, kStr, 0, std::move(s)}; }
  bool operator==(const Attribute&) const = default;
};

struct ManifestColumn {
  std::string name;
  Encoding encoding = Encoding::kInt;
  int precision = 0;                 // decimal only
  int scale = 0;                     // decimal only
  Mode mode = Mode::kAppend;         // after ResolveModes(): --replace and raw 6 = 0 included
  bool mode_given = false;           // "mode" was written in the manifest
  std::vector<Attribute> overrides;  // "attributes", applied after the encoding's own
  // "from": a generated column that copies this existing column of the farm
  // ("trades.id"); it has no field in the result.
  std::string from;
  // "encoding": "dictionary": stored as a dictionary of distinct values and one code per
  // row (three BATs: "<t>.<c>" the row codes, "<t>.<c>.dict" the keys, "<t>.<c>.dict_codes"
  // their codes). For tinyint, smallint, int, bigint, double and string columns.
  bool dictionary = false;
  // "store": "leveldb" (string dictionaries only): the dictionary is also kept in a
  // persistent store, in store_dir ("store_dir"), or inside the farm when that is empty.
  bool store = false;
  std::string store_dir;
  // "levels": true (timestamp columns only): stored with five derived streams per row, so
  // that a query groups by year, quarter, month, day or hour without computing them:
  // "<t>.<c>.level" (yyyymmddhh, int) and "<t>.<c>.year", ".quarter", ".month", ".day" (the
  // period's first day at midnight). With `dictionary` the column also keeps a dictionary
  // of the distinct hours (kernel_io.h names its BATs).
  bool levels = false;
};

// Whether the result carries this column's values (rowid and "from" columns are made by the
// export; serial columns are made by the tool but travel in the result).
bool InResult(const ManifestColumn& column);

struct Manifest {
  std::string table;
  int chunk_size = 65536;
  bool queued = true;
  std::vector<ManifestColumn> columns;  // in manifest order; names are unique
  std::vector<std::string> ignored;     // CSV columns left out on purpose ("ignore")
  // What the manifest asks for that is kept but looks like a mistake (an unknown key, an
  // attribute the library never reads): printed on stderr before the copy, or refused as
  // errors under --strict.
  std::vector<std::string> warnings;
};

// Parse a manifest from JSON text. On failure *out is unspecified and the status names
// the offending field, or the line and column where the text stops being JSON. Types are
// read in SQL words with their usual aliases, in any case. Unknown keys become warnings.
Status ParseManifest(const std::string& json_text, Manifest* out);

// Print each warning as "qopci: warning: ..." on `err`; with `strict`, print nothing and
// return them as one error instead (a line each), so that the copy stops.
Status ReportWarnings(const std::vector<std::string>& warnings, bool strict, std::ostream& err);

// Read and parse the manifest file at `path`.
Status LoadManifest(const std::string& path, Manifest* out);

// The manifest spelling of a column's encoding ("decimal(9,2)"), which is also the SQL type
// recorded for its target.
std::string EncodingName(const ManifestColumn& column);

// The type a column is known by, recorded with its target and shown in summaries:
// EncodingName(), followed by " levels" for a time-level column and " dictionary" for a
// dictionary-coded one ("int dictionary", "timestamp levels dictionary").
std::string ColumnTypeName(const ManifestColumn& column);

// The SQL type name a result column of this encoding carries ("int", "decimal", ...).
const char* SqlTypeName(Encoding encoding);

// Bytes of one fixed-width value of this encoding in a result BAT (0 for rowid, which has
// no result, and for string, whose values are held as text).
int ResultWidth(Encoding encoding);

// Bytes of one stored value of a decimal of this precision: 1, 2, 4 or 8.
int DecimalWidth(int precision);

}  // namespace qopci

#endif  // QOPCI_TOOLS_MANIFEST_H_
