// qopci verify: checks a committed farm without changing it (the kernel's CVDfarm_verify) and
// prints one line per fault, then a summary. A farm the kernel finds sound is then checked
// for row codes of dictionary columns that their dictionary does not hold, and for levels of
// time-level columns that do not agree with their timestamps. A farm whose catalog cannot be
// read is one fault, reported as the error.
//
// Threading: opens and closes the process's one farm: call from the thread that uses it, with
// no farm open.
#ifndef QOPCI_TOOLS_VERIFY_H_
#define QOPCI_TOOLS_VERIFY_H_

#include <ostream>
#include <string>

#include "tools/status.h"

namespace qopci {

// Verifies the farm in `farm`, printing the kernel's report on `out`. OK when no fault was
// found; otherwise an error saying how many.
Status RunVerify(const std::string& farm, std::ostream& out);

}  // namespace qopci

#endif  // QOPCI_TOOLS_VERIFY_H_
