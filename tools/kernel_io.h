// Kernel I/O: what the tool asks of the embedded kernel around an export: the persistent
// target BAT of every manifest column (found and checked, made, or replaced), and the result
// table that holds a loaded result as transient BATs in a client context. Together with
// ResultData these build "a result table from a manifest and its rows", which copy (and any
// timing harness) drives the export with.
//
// Threading: as the kernel's buffer pool: call from the one thread that uses the farm.
#ifndef QOPCI_TOOLS_KERNEL_IO_H_
#define QOPCI_TOOLS_KERNEL_IO_H_

#include <string>
#include <vector>

#include "corvid/gdk.h"
#include "corvid/sql.h"
#include "tools/column_attributes.h"
#include "tools/manifest.h"
#include "tools/result_data.h"
#include "tools/status.h"

namespace qopci {

// What a command does with a farm directory: reads an existing farm, or writes one (made
// when missing).
enum class FarmUse { kRead, kWrite };

// The checks made before the kernel opens `dir`, for mistakes a user can act on: a farm
// that is missing (for a writer: whose parent directory is missing; the tool makes no
// directory trees), and a directory that holds other files but no farm, which a writer
// takes over only with `init`. A half-made farm (one whose first catalog was never put in
// place, holding only the kernel's own entries) passes: the kernel finishes it.
Status CheckFarmDir(const std::string& dir, FarmUse use, bool init);

// Loads column `name` (BAT id) of the open farm and fixes it (*out; release with
// BBPreleaseref). A column whose files are damaged fails with the kernel's reason: the file,
// and the block that does not match its checksum.
Status LoadColumn(bat id, const std::string& name, BAT** out);

// Turn a kernel exception text (or NULL) into a Status; frees the text.
Status FromKernel(char* exception);

// The atom type of the column's target BAT (and of its result BAT, rowid aside), or -1 when
// the kernel does not know it. A decimal's target holds the integer type of its storage
// width (bte, sht, int or lng); its result BAT holds lng (ResultAtomType).
// A dictionary-coded column's target holds its codes (CodeAtomType: bte for tinyint, sht
// for smallint, int for the others), its dictionary the keys (KeyAtomType, the type's own);
// a time-level column's target holds its timestamps in either form.
int TargetAtomType(const ManifestColumn& column);
int ResultAtomType(const ManifestColumn& column);
int KeyAtomType(const ManifestColumn& column);
int CodeAtomType(const ManifestColumn& column);

// The names of a dictionary-coded column's two dictionary BATs: "<name>.dict" (keys) and
// "<name>.dict_codes" (their codes). Listings show them as part of column <name>.
std::string DictKeysName(const std::string& name);
std::string DictCodesName(const std::string& name);
// The dictionary column `name` belongs to when it is one of those two names; "" otherwise.
std::string DictOwner(const std::string& name);

// The SQL word for a kernel atom type ("bigint" for lng, "double" for dbl), for columns
// that record no SQL type; the atom's own name when SQL has no word for it.
std::string SqlWord(int atom_type);

// The type a persistent BAT holds as its users know it: its recorded SQL type
// ("decimal(9,2)"), else SqlWord() of its atom type.
std::string SqlTypeOf(bat id);

// The name of a column's target BAT: "<table>.<column>".
std::string TargetName(const Manifest& manifest, const ManifestColumn& column);

struct TargetColumn {
  size_t manifest_index = 0;  // the column in Manifest::columns
  bat id = 0;                 // the BAT the export writes
  bat replaced = 0;           // the committed BAT that `id` replaces at the commit, or 0
  bool created = false;       // made by this run; it joins the catalog at the next commit
  TargetInfo info;            // id's tail file and the rows the export keeps
  // Dictionary-coded columns: the keys and key-code BATs the export writes, and the
  // committed ones they replace (or 0). They are made, appended to and replaced with `id`.
  bat dict_keys = 0, dict_codes = 0;
  bat dict_keys_replaced = 0, dict_codes_replaced = 0;
  std::string store_note;  // why a store asked for is not used ("" when it is, or none)
  // Time-level columns: the BATs kept beside `id` (CompanionNames() order) that the export
  // writes, and the committed ones they replace (0 where there is none).
  std::vector<bat> companions, companions_replaced;
};

// Find, check and then make the target of every manifest column, in manifest order. An
// existing target is appended to when its type (the recorded SQL type, or the atom type
// when none is recorded) is the manifest's, and is otherwise refused; a replaced one gets a
// replacement BAT of the manifest's type that takes its place at the commit. Every BAT made
// here records the manifest's type as its SQL type. A "from" column's source must be a
// column of the farm, of the column's type, that this export does not write; its files
// are described in info.source. All checks (types, sources, raw attributes 5 and 38, and a
// string column's heap attributes) run for every column before anything is made.
// REQUIRES: a farm is open for writing; ResolveModes() has run on `manifest`.
Status PrepareTargets(const Manifest& manifest, std::vector<TargetColumn>* out);

// Load `data` into transient BATs and push a result table holding them on m->results;
// *result_id receives its id. The table's order BAT lists rows 0 .. rows-1, or is absent
// with single_row, which then needs a result of exactly one row. On failure nothing is
// left in m or in the buffer pool.
// REQUIRES: a farm is open; `data` was loaded for `manifest`.
Status BuildResultTable(mvc* m, const Manifest& manifest, const ResultData& data, bool single_row,
                        int* result_id);

}  // namespace qopci

#endif  // QOPCI_TOOLS_KERNEL_IO_H_
