// Farm inspection: prints the catalog of an open farm (every persistent BAT with its type,
// count, width, heap sizes and property flags) and the first values of each column, read
// back through the kernel's own loading, so that it shows what a later query would see.
// The type is the column's recorded SQL type when it has one, and a decimal's values are
// printed with its scale ("201.49"). It only reads: a farm opened read-only will do.
//
// Threading: as the kernel's buffer pool: call from the one thread that uses the farm.
#ifndef QOPCI_TOOLS_INSPECT_H_
#define QOPCI_TOOLS_INSPECT_H_

#include <cstdint>
#include <ostream>
#include <string>

#include "corvid/gdk.h"
#include "tools/status.h"

namespace qopci {

// The property flags of a descriptor as words ("sorted key nonil"), "-" when none is set.
std::string FlagWords(const BAT& b);

// Print the catalog and then up to `limit` values of every column, or only of the column
// whose name is `column` ("trades.price", or "price" when one table has it) when not empty.
// A column that does not exist, or whose files do not load, is an error.
// REQUIRES: a farm is open.
Status PrintFarm(std::ostream& out, const std::string& column, uint64_t limit);

}  // namespace qopci

#endif  // QOPCI_TOOLS_INSPECT_H_
