// The copy command: exports a result (a CSV file or generated rows) into the target columns
// of a farm through the copy-into library's five functions, appending to each target or
// replacing it, then prints what the targets hold, as a table or as one JSON object. A failure
// before the export's commit leaves the farm as it was: nothing is committed, and a replaced column
// keeps its rows.
//
// Threading: runs on the calling thread; the export writes columns on its own workers.
#ifndef QOPCI_TOOLS_COPY_COMMAND_H_
#define QOPCI_TOOLS_COPY_COMMAND_H_

#include <cstdint>
#include <ostream>
#include <string>

#include "tools/manifest.h"
#include "tools/result_data.h"
#include "tools/status.h"

namespace qopci {

struct CopyOptions {
  std::string farm;      // farm directory, made when missing
  std::string manifest;  // JSON manifest file
  std::string csv;       // CSV file to load; empty to generate rows
  uint64_t generate_rows = 0;
  bool single_row = false;  // result without an order BAT (needs exactly one row)
  bool sync = false;        // write every column on the calling thread
  bool replace = false;     // replace every column instead of appending to it
  bool init = false;        // make a farm in a directory that holds other files
  bool json = false;        // print the summary as one JSON object
  CsvOptions csv_options;   // delimiter and nil text of the CSV
  bool strict = false;      // warnings are errors: the copy stops before touching the farm
};

// Run one copy from the files `options` names and print the per-column summary on `out`:
// per column its target name, type, action ("created", "appended" or "replaced"), the rows
// it holds, its tail bytes and flags; then the rows exported and the seconds taken. As JSON:
// {"table", "columns": [{"name", "type", "action", "rows", "tail_bytes", "flags": [...]}],
//  "rows", "seconds"}.
Status RunCopy(const CopyOptions& options, std::ostream& out);

// The copy itself, from a parsed manifest and a loaded result; `options` gives the farm and
// the flags. Serial columns of `data` are renumbered from each target's count.
// REQUIRES: ResolveModes() has run on `manifest`; `data` was loaded for it.
Status CopyResult(const Manifest& manifest, ResultData* data, const CopyOptions& options,
                  std::ostream& out);

}  // namespace qopci

#endif  // QOPCI_TOOLS_COPY_COMMAND_H_
