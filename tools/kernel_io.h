// Kernel I/O: what the tool asks of the embedded kernel around an export: the persistent
// target BAT of every manifest column, and the result table that holds a loaded result as
// transient BATs in a client context. Together with ResultData these build "a result table
// from a manifest and its rows", which copy (and any timing harness) drives the export with.
//
// Threading: as the kernel's buffer pool: call from the one thread that uses the farm.
#ifndef QOPCI_TOOLS_KERNEL_IO_H_
#define QOPCI_TOOLS_KERNEL_IO_H_

#include <string>
#include <vector>

#include "corvid/gdk.h"
#include "corvid/sql.h"
#include "tools/manifest.h"
#include "tools/result_data.h"
#include "tools/status.h"

namespace qopci {

// Turn a kernel exception text (or NULL) into a Status; frees the text.
Status FromKernel(char* exception);

// The atom type of the column's target BAT (and of its result BAT, rowid aside), or -1 when
// the kernel does not know it. A decimal's target holds the integer type of its storage
// width (bte, sht, int or lng); its result BAT holds lng (ResultAtomType).
int TargetAtomType(const ManifestColumn& column);
int ResultAtomType(const ManifestColumn& column);

// The name of a column's target BAT: "<table>.<column>".
std::string TargetName(const Manifest& manifest, const ManifestColumn& column);

struct TargetColumn {
  size_t manifest_index = 0;  // the column in Manifest::columns
  bat id = 0;
  bool created = false;  // made by this run; it joins the catalog at the next commit
};

// Find or create the persistent target BAT of every manifest column. An existing BAT of
// another type is an error, checked for all columns before any BAT is created.
// REQUIRES: a farm is open.
Status EnsureTargets(const Manifest& manifest, std::vector<TargetColumn>* out);

// The tail file and current row count of a target BAT.
// REQUIRES: a farm is open and `target` is a persistent BAT.
Status DescribeTarget(bat target, TargetInfo* out);

// Load `data` into transient BATs and push a result table holding them on m->results;
// *result_id receives its id. The table's order BAT lists rows 0 .. rows-1, or is absent
// with single_row, which then needs a result of exactly one row. On failure nothing is
// left in m or in the buffer pool.
// REQUIRES: a farm is open; `data` was loaded for `manifest`.
Status BuildResultTable(mvc* m, const Manifest& manifest, const ResultData& data, bool single_row,
                        int* result_id);

}  // namespace qopci

#endif  // QOPCI_TOOLS_KERNEL_IO_H_
