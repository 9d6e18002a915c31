// The copy command: exports a result (a CSV file or generated rows) into the target columns
// of a farm through the copy-into library's five functions, then prints what the targets
// hold. A failure before the export leaves the farm as it was: nothing is committed.
//
// Threading: runs on the calling thread; the export writes columns on its own workers.
#ifndef QOPCI_TOOLS_COPY_COMMAND_H_
#define QOPCI_TOOLS_COPY_COMMAND_H_

#include <cstdint>
#include <ostream>
#include <string>

#include "tools/status.h"

namespace qopci {

struct CopyOptions {
  std::string farm;      // farm directory, made when missing
  std::string manifest;  // JSON manifest file
  std::string csv;       // CSV file to load; empty to generate rows
  uint64_t generate_rows = 0;
  bool single_row = false;  // result without an order BAT (needs exactly one row)
  bool sync = false;        // write every column on the calling thread
};

// Run one copy and print the per-column summary on `out`.
Status RunCopy(const CopyOptions& options, std::ostream& out);

}  // namespace qopci

#endif  // QOPCI_TOOLS_COPY_COMMAND_H_
