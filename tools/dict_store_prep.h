// Dictionary stores: the persistent stores of string dictionary columns, chosen, created
// and kept truthful by the tool around an export (the library only opens them).
//
// A store must hold exactly the committed dictionary's entries when an export starts: the
// library writes new entries to it while it codes, before the commit, so an export that
// fails (or a process that dies) leaves codes in it that the farm never committed. A small
// file beside the store, "<store>.entries", records the dictionary size the store matches;
// it is removed before each export and written again after a successful commit. When it is
// missing or disagrees with the committed size, the store is repaired first: entries whose
// code lies above the committed size are deleted, and a store that then still differs from
// the dictionary in size is filled again from the dictionary's BATs.
//
// Threading: as the kernel's buffer pool: call from the one thread that uses the farm.
#ifndef QOPCI_TOOLS_DICT_STORE_PREP_H_
#define QOPCI_TOOLS_DICT_STORE_PREP_H_

#include <ostream>
#include <string>
#include <vector>

#include "tools/kernel_io.h"
#include "tools/manifest.h"
#include "tools/status.h"

namespace qopci {

// Where the store of `column` lives: its "store_dir" (made absolute), else
// "<farm>/stores/<table>.<column>", a folder the farm's own cleanup never looks into.
std::string StoreDir(const std::string& farm, const Manifest& manifest,
                     const ManifestColumn& column);

// The file beside a store that records the dictionary size it matches.
std::string StoreGuardFile(const std::string& store_dir);

// For every string dictionary column that asks for a store: creates it when missing (filled
// with the committed dictionary), repairs it as above, and hands its directory to the export
// (t->info.dict.store_dir). A store that cannot be created, opened or repaired is not used:
// the column is then coded in memory (the library reloads its dictionary from its files),
// t->store_note says why, and a warning naming the column and the reason goes to `err`.
// REQUIRES: PrepareTargets() filled `targets`.
void PrepareStores(const std::string& farm, const Manifest& manifest,
                   std::vector<TargetColumn>* targets, std::ostream& err);

// After a successful commit: records the committed dictionary size beside every store used.
// A guard that cannot be written only costs a repair at the next copy; it is reported on err.
void FinishStores(const Manifest& manifest, const std::vector<TargetColumn>& targets,
                  std::ostream& err);

}  // namespace qopci

#endif  // QOPCI_TOOLS_DICT_STORE_PREP_H_
