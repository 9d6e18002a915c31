// Time-level targets: the BATs a timestamp column with levels keeps beside its timestamps
// ("<t>.<c>"): five level streams of one value per row, "<t>.<c>.level" (yyyymmddhh, int)
// and "<t>.<c>.year", ".quarter", ".month", ".day" (the first day of the row's period at
// midnight, timestamps), and in the dictionary form a dictionary of the distinct hours:
// "<t>.<c>.dict.level", ".dict.year", ".dict.quarter", ".dict.month", ".dict.day" and
// "<t>.<c>.dict_codes" (the entry's ordinal, its dictionary's size once it was added). They
// are found for an append or made (new, or as replacements) together with "<t>.<c>", and
// checked by verify against the timestamps they come from.
//
// Threading: as the kernel's buffer pool: call from the one thread that uses the farm;
// LevelsOf() is a pure function.
#ifndef QOPCI_TOOLS_LEVEL_TARGET_H_
#define QOPCI_TOOLS_LEVEL_TARGET_H_

#include <cstdint>
#include <ostream>
#include <string>
#include <vector>

#include "tools/kernel_io.h"
#include "tools/manifest.h"
#include "tools/status.h"

namespace qopci {

// The level streams in the order the export writes them: the level number, then the starts
// of the row's year, quarter and month, and its day.
inline constexpr int kLevelCount = 5;
inline constexpr const char* kLevelWords[kLevelCount] = {"level", "year", "quarter", "month",
                                                         "day"};

// "<name>.<word>" of level k, and "<name>.dict.<word>" of the dictionary's level k.
std::string RowLevelName(const std::string& name, int k);
std::string DictLevelName(const std::string& name, int k);

// Every BAT a column of this form keeps beside "<name>", in the order the export pairs them
// with its files: the five row levels, then for the dictionary form the dictionary's five
// levels and "<name>.dict_codes". Empty for a column without levels; a dictionary column
// without levels keeps "<name>.dict" and "<name>.dict_codes" (dict_target.h).
std::vector<std::string> CompanionNames(const ManifestColumn& column, const std::string& name);

// The column a companion BAT belongs to ("t.c" for "t.c.dict.year" or "t.c.dict_codes"), or
// "" when `name` is no companion name. Listings show companions as part of their column.
std::string CompanionOwner(const std::string& name);

// Whether the persistent BAT `id` is a time-level column (its recorded type says so).
bool HasLevels(bat id);

// The levels of one timestamp as the export computes them. A nil timestamp, and 0, give
// nil in all five; the level number is computed in 32-bit arithmetic, and a nil time of day
// counts as the hour 0x80000000.
struct Levels {
  int32_t level;
  int64_t year, quarter, month, day;
  bool operator==(const Levels&) const = default;
};
Levels LevelsOf(int64_t timestamp);

// Finds the companions of appended column `name` (t->id is its timestamp BAT) and fills
// t->info: each must exist, the row levels holding as many rows as the column, the
// dictionary's six BATs as many entries as each other.
Status FindLevels(const ManifestColumn& column, const std::string& name, TargetColumn* t);

// Makes the companions of a new or replaced column `name` (t->id is made already): new ones,
// or replacements of the committed ones that give way at the same commit as t->id.
Status MakeLevels(const ManifestColumn& column, const std::string& name, TargetColumn* t);

// Checks every time-level column of the open farm: its companions hold matching counts, each
// row's levels are those of its timestamp, and in the dictionary form every entry's levels
// agree with its level number, the ordinals run 1, 2, ... and every row's hour (nil rows
// aside) is an entry.
// Prints one line per column that fails ("t.c: ...") and returns how many failed.
// REQUIRES: a farm is open and the kernel found its files sound.
int CheckLevelColumns(std::ostream& out);

}  // namespace qopci

#endif  // QOPCI_TOOLS_LEVEL_TARGET_H_
