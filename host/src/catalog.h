// The farm catalog: a text file listing every persistent BAT's descriptor and the oid
// counter, closed by a checksum line. docs/formats.md describes the format.
// Threading: as the buffer pool.
#ifndef CORVID_SRC_CATALOG_H_
#define CORVID_SRC_CATALOG_H_

#include <cstdint>
#include <string>
#include <vector>

#include "corvid/gdk.h"

namespace corvid {

inline constexpr int kCatalogVersion = 1;
inline constexpr int kPendingTail = 1;  // the valid tail is "<physical>.tail.new" if present
inline constexpr int kPendingHeap = 2;  // likewise for the string heap

struct CatalogEntry {
  BAT desc{};  // heaps not loaded; tvheap unset (vfree/vsize below)
  std::string name;
  size_t vfree = 0, vsize = 0;
  int pending = 0;  // kPending* bits
};

struct Catalog {
  uint64_t generation = 0;
  oid next_oid = 0;
  std::vector<CatalogEntry> bats;
};

// Text of the catalog for the pool's persistent BATs; `pending` gives kPending* bits per id.
std::string SerializeCatalog(const Catalog& c);

// Parses and checks a catalog text; false with *why on any fault.
bool ParseCatalog(const std::string& text, Catalog* c, std::string* why);

}  // namespace corvid

#endif  // CORVID_SRC_CATALOG_H_
