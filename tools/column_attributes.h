// Column attributes: the numbered attributes one manifest column registers with the
// copy-into library, and the checks that refuse raw attributes which would make the export
// write something else than the column's rows: a fresh file behind a hole, committed rows
// overwritten, another file than the target's.
//
// Threading: plain values and pure functions; safe from any thread.
#ifndef QOPCI_TOOLS_COLUMN_ATTRIBUTES_H_
#define QOPCI_TOOLS_COLUMN_ATTRIBUTES_H_

#include <cstdint>
#include <string>
#include <vector>

#include "tools/manifest.h"
#include "tools/status.h"

namespace qopci {

// Check the manifest's chunk size and every raw attribute against the attribute table: a
// string where the library reads a string, a number that fits the call and the range where
// it reads a number. A number the library does not read is kept, with a warning appended to
// manifest->warnings. The error names the column, the attribute and what it must be.
Status CheckAttributes(Manifest* manifest);

// Run CheckAttributes(), then settle every column's mode: replace with `replace_all` (copy
// --replace), with "mode": "replace", or with a raw attribute 6 = 0; append otherwise.
// Refuses raw attributes 6 and 38 that contradict the mode or each other, naming the column
// and the attribute. Needs no farm.
Status ResolveModes(Manifest* manifest, bool replace_all);

// The existing column a generated ("from") column copies, as the export reads it back.
struct SourceInfo {
  int kind = 0;           // source kind: 2 fixed-width values, 4 strings
  std::string tail_file;  // the source's tail
  int64_t count = 0;      // its rows
  std::string heap_file;  // strings: its heap
  int width = 0;          // strings: its tail's offset width
};

// The dictionary of a dictionary-coded column: its two BATs' files and what they keep.
struct DictInfo {
  std::string key_file;   // tail of "<t>.<c>.dict": the keys (a string dictionary's key tail)
  std::string key_heap;   // strings: heap of "<t>.<c>.dict"
  std::string code_file;  // tail of "<t>.<c>.dict_codes": the keys' codes
  int64_t entries = 0;    // entries kept (0 for a new or replaced column)
  int64_t heap_size = 0;  // strings: key heap bytes kept
  int key_width = 1;      // strings: the key tail's offset width
  std::string store_dir;  // string dictionaries: the open-able store the export uses, or ""
};

// What the export needs to know of a column's target BAT.
struct TargetInfo {
  std::string tail_file;       // full path of the tail file the export writes
  int64_t existing_count = 0;  // rows kept: the export appends behind them (0 when replacing)
  bool replace = false;        // the file is written anew (attribute 6 = 0)
  bool new_file = false;       // the target is made by this run, or replaced: its file is new
  std::string heap_file = {};  // strings: full path of the heap file the export writes
  int64_t heap_size = 0;       // strings: heap bytes kept (0 for a new or empty column)
  int tail_width = 1;          // strings: the offset width of the kept tail
  SourceInfo source = {};      // "from" columns only
  DictInfo dict = {};          // dictionary-coded columns only; for a time-level dictionary
                               // key_file is its level-number file and code_file its ordinals
  // Time-level columns: the tails of the five row levels and of the dictionary's five
  // levels (level number, year, quarter, month, day), empty where the column has none.
  std::vector<std::string> level_files = {};
  std::vector<std::string> dict_level_files = {};
};

// Refuse raw attributes 5 and 38 that differ from what the tool registers for `target`
// (its tail file; its existing count, or 0 when replacing), and for a string column raw
// attributes 12, 22, 23, 41 and 42 that differ from its heap file, tail width and heap size.
// REQUIRES: ResolveModes() has run; tail_file may be empty when new_file is set.
Status CheckTargetOverrides(const std::string& target_name, const ManifestColumn& column,
                            const TargetInfo& target);

// Every attribute the column registers, in registration order: the encoding's own set,
// then the manifest's raw overrides (a later entry for the same number wins).
// With force_sync the column is written on the calling thread whatever the manifest says.
std::vector<Attribute> ColumnAttributes(const Manifest& manifest, const ManifestColumn& column,
                                        const TargetInfo& target, bool force_sync);

// What the tool hands the library for a column of a result of `rows` rows: ColumnAttributes()
// with a chunk size above max(rows, 1) cut to it, each then checked by CheckRegistered(). A
// failure is an internal error: the manifest checks should have refused the value.
Status RegisteredAttributes(const Manifest& manifest, const ManifestColumn& column,
                            const TargetInfo& target, bool force_sync, uint64_t rows,
                            std::vector<Attribute>* out);

}  // namespace qopci

#endif  // QOPCI_TOOLS_COLUMN_ATTRIBUTES_H_
