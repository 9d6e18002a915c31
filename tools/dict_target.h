// Dictionary targets: the three persistent BATs of a dictionary-coded column ("<t>.<c>" one
// code per row, "<t>.<c>.dict" the keys, "<t>.<c>.dict_codes" their codes), found for an
// append or made (new, or as replacements) together, and the checks made on them before an
// export: that the dictionary's codes will not pass what the code type holds.
//
// Threading: as the kernel's buffer pool: call from the one thread that uses the farm.
#ifndef QOPCI_TOOLS_DICT_TARGET_H_
#define QOPCI_TOOLS_DICT_TARGET_H_

#include <string>
#include <vector>

#include "tools/kernel_io.h"
#include "tools/manifest.h"
#include "tools/result_data.h"
#include "tools/status.h"

namespace qopci {

// Finds the dictionary BATs of appended column `name` (t->id is its code BAT) and fills
// t->info.dict; both must exist and hold the same number of entries.
Status FindDictionary(const std::string& name, TargetColumn* t);

// Makes the dictionary BATs of a new or replaced column `name` (t->id is made already): new
// ones, or replacements of the committed ones, which then give way at the same commit as
// the code BAT. Fills t->info.dict with empty files.
Status MakeDictionary(const ManifestColumn& column, const std::string& name, TargetColumn* t);

// The most entries a dictionary of this column may hold: its codes wrap past them (127 for
// tinyint, 32767 for smallint; 2^31 - 1 for the 32-bit codes).
int64_t MaxDictionaryEntries(const ManifestColumn& column);

// Refuses, before anything is written, a dictionary column whose kept entries plus the
// result's distinct values not among them would pass MaxDictionaryEntries().
// REQUIRES: PrepareTargets() filled `targets`; `data` was loaded for `manifest`.
Status CheckCodeLimits(const Manifest& manifest, const std::vector<TargetColumn>& targets,
                       const ResultData& data);

// Every key of a committed dictionary as text (strings as they are, numbers printed as the
// column shows them), with its code, in the dictionary's order.
struct DictEntry {
  std::string key;
  bool nil = false;
  int64_t code = 0;
};
Status ReadDictionary(bat keys, bat codes, std::vector<DictEntry>* out);

}  // namespace qopci

#endif  // QOPCI_TOOLS_DICT_TARGET_H_
