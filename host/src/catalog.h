// The farm catalog: a text file listing every persistent BAT's descriptor and the oid
// counter, closed by a checksum line, and the checks that decide whether a farm may be
// opened. docs/formats.md describes the format. The commit runs the same checks on what it
// is about to write, so that it never commits a catalog that open would reject.
// Threading: as the buffer pool.
#ifndef CORVID_SRC_CATALOG_H_
#define CORVID_SRC_CATALOG_H_

#include <cstdint>
#include <string>
#include <vector>

#include "corvid/gdk.h"

namespace corvid {

// Version 2 added the SQL type of each BAT and names pending files by generation; version 3
// promises a sums file beside every column file (sums.h). Versions 1 and 2 are still read:
// their BATs have no SQL type (1) and no checksums (1 and 2) until the next commit.
inline constexpr int kCatalogVersion = 3;
inline constexpr int kFirstSummedVersion = 3;
inline constexpr int kPendingTail = 1;      // the valid tail is the pending file, if present
inline constexpr int kPendingHeap = 2;      // likewise for the string heap
inline constexpr int kPendingTailSums = 4;  // and for the sums of each
inline constexpr int kPendingHeapSums = 8;

struct CatalogEntry {
  BAT desc{};  // heaps not loaded; tvheap unset (vfree/vsize below)
  std::string name;
  std::string sqltype;  // "" when none was set
  size_t vfree = 0, vsize = 0;
  int pending = 0;  // kPending* bits
};

struct Catalog {
  int version = kCatalogVersion;
  uint64_t generation = 0;
  oid next_oid = 0;
  std::vector<CatalogEntry> bats;
};

// Text of the catalog in the current version, checksum line included.
std::string SerializeCatalog(const Catalog& c);

// Parses and checks a catalog text (every field, ids and names unique); false with *why on
// any fault.
bool ParseCatalog(const std::string& text, Catalog* c, std::string* why);

// Checks that every column file of c exists (the pending one where c marks it and it is
// there) and holds at least the bytes c describes. False with *why naming the BAT and file.
// REQUIRES: K().bat_dir is the farm's.
bool CheckCatalogFiles(const Catalog& c, std::string* why);

// Where the commit of a catalog of this version and generation wrote the pending copy of
// the column file `path`. Version 2 puts the generation in the name, so that a pending mark
// never points at a file that a later, unfinished commit wrote.
std::string PendingPath(const std::string& path, int version, uint64_t generation);

// The file holding entry e's committed tail, string heap or their sums (which 0..3, as
// KindExt): the pending copy where c marks one and it is there. False with *why when that
// cannot be told.
bool CommittedPath(const Catalog& c, const CatalogEntry& e, int which, std::string* path,
                   std::string* why);

bool ValidBatName(const std::string& name);     // 1 to 1024 bytes, no blanks or controls
bool ValidSqlType(const std::string& sqltype);  // up to 1024 bytes, no control characters

}  // namespace corvid

#endif  // CORVID_SRC_CATALOG_H_
