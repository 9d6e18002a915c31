// CVDfarm_verify: every check the kernel can make of a committed farm without trusting it,
// each fault reported on its own line rather than the first one ending the check.
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "catalog.h"
#include "corvid/exception.h"
#include "corvid/farm.h"
#include "corvid/strheap.h"
#include "fileio.h"
#include "internal.h"
#include "sums.h"

namespace corvid {
namespace {

// A read-only private mapping of the first n bytes of a file.
class Mapping {
 public:
  Mapping() = default;
  Mapping(const Mapping&) = delete;
  Mapping& operator=(const Mapping&) = delete;
  ~Mapping() {
    if (base_ != nullptr) ::munmap(base_, n_);
  }

  bool Map(const std::string& path, size_t n, std::string* why) {
    n_ = n;
    if (n == 0) return true;
    const int fd = SysOpen(path.c_str(), O_RDONLY);
    if (fd < 0) {
      *why = "cannot open " + path + ": " + ErrnoText(errno);
      return false;
    }
    void* p = SysMmap(n, PROT_READ, MAP_PRIVATE, fd);
    const int err = errno;
    ::close(fd);
    if (p == MAP_FAILED) {
      *why = "cannot map " + path + ": " + ErrnoText(err);
      return false;
    }
    base_ = static_cast<char*>(p);
    return true;
  }
  char* base() const { return base_; }

 private:
  char* base_ = nullptr;
  size_t n_ = 0;
};

struct Verifier {
  std::string report;
  int faults = 0, columns = 0, files = 0;
  uint64_t blocks = 0;

  void Fault(const std::string& column, const std::string& what) {
    report += column + ": " + what + "\n";
    faults++;
  }
};

bool WidthFitsType(const BAT& b) {
  const int w = b.twidth;
  if (w != 1 && w != 2 && w != 4 && w != 8) return false;
  if (b.ttype == TYPE_str) return true;
  return w == ATOMsize(b.ttype) ||
         (IsNarrowInteger(&b) && (b.ttype == TYPE_bte || b.ttype == TYPE_sht ||
                                  b.ttype == TYPE_int || b.ttype == TYPE_lng));
}

// The heap position of row i's string, or false when its offset cannot name one.
bool RowPosition(const BAT& b, const char* tail, BUN i, uint64_t* pos) {
  uint64_t v = 0;
  std::memcpy(&v, tail + i * b.twidth, b.twidth);  // little-endian host
  if (b.twidth == 8) {
    if (v > UINT32_MAX / CVD_STRHEAP_ALIGN) return false;
    *pos = v * CVD_STRHEAP_ALIGN;
  } else {
    *pos = cvd_str_heappos(static_cast<uint32_t>(v), b.twidth);
  }
  return true;
}

// Every row's offset names a whole string record inside the heap's bytes in use: past the
// hash area and its prefix, its length reaching no further than the heap, ending in its
// first zero (the nil string is the two bytes 0x80 0).
bool CheckStrings(Verifier* v, const std::string& column, const BAT& b, const char* tail,
                  const char* heap, size_t heap_free) {
  BUN bad = 0, first = 0;
  uint64_t first_pos = 0;
  for (BUN i = 0; i < b.batCount; i++) {
    uint64_t pos = 0;
    bool whole = RowPosition(b, tail, i, &pos) && pos % CVD_STRHEAP_ALIGN == 0 &&
                 pos >= CVD_STRHEAP_HASHAREA + CVD_STRHEAP_PREFIX && pos < heap_free;
    if (whole) {
      uint32_t len;
      std::memcpy(&len, heap + pos - CVD_STRHEAP_PREFIX, 4);
      const char* s = heap + pos;
      whole = len >= 1 && len <= heap_free - pos && s[len - 1] == 0 &&
              (cvd_str_isnil(s) ? len == 2 : std::memchr(s, 0, len - 1) == nullptr);
    }
    if (whole) continue;
    if (bad++ == 0) {
      first = i;
      first_pos = pos;
    }
  }
  if (bad == 0) return true;
  std::string what = "row " + std::to_string(first) + " points at heap position " +
                     std::to_string(first_pos) + ", not at a whole string within the heap's " +
                     std::to_string(heap_free) + " bytes in use";
  if (bad > 1) what += " (nor do " + std::to_string(bad - 1) + " more rows)";
  v->Fault(column, what);
  return false;
}

// The sorted, revsorted, key and no-nil claims against the data.
void CheckFlags(Verifier* v, const std::string& column, const BAT& b, char* tail, char* heap,
                size_t heap_free) {
  BAT copy = b;
  Heap vheap{};
  copy.theap.base = tail;
  copy.theap.flags = 0;
  vheap.base = heap;
  vheap.free = vheap.size = heap_free;
  copy.tvheap = b.ttype == TYPE_str ? &vheap : nullptr;
  copy.batStatus |= BATSTATUS_LOADED;
  if (!CheckClaims(&copy)) return;  // unreadable rows, reported by the string check
  const struct {
    uint8_t claimed, holds;
    const char* word;
  } flags[] = {{b.tsorted, copy.tsorted, "sorted"},
               {b.trevsorted, copy.trevsorted, "revsorted"},
               {b.tkey, copy.tkey, "key"},
               {b.tnonil, copy.tnonil, "nonil"}};
  for (const auto& f : flags)
    if (f.claimed && !f.holds)
      v->Fault(column, std::string("claims ") + f.word + ", which its values contradict");
}

void CheckColumn(Verifier* v, const BatRec& r, bool summed) {
  const BAT& b = r.desc;
  const std::string& column = r.name;
  v->columns++;
  if (!WidthFitsType(b))
    v->Fault(column,
             "width " + std::to_string(b.twidth) + " does not suit type " + ATOMname(b.ttype));
  if (b.twidth == 0 || b.theap.free % b.twidth != 0 || b.batCount > b.theap.free / b.twidth)
    v->Fault(column, "count " + std::to_string(b.batCount) + " does not match its tail of " +
                         std::to_string(b.theap.free) + " bytes at width " +
                         std::to_string(b.twidth));
  const int kinds = b.ttype == TYPE_str ? 2 : 1;
  Mapping data[2];
  bool readable = true;
  for (int which = 0; which < kinds; which++) {
    const size_t n = which == 0 ? b.theap.free : b.tvheap->free;
    const std::string path = LoadPath(b.batCacheid, KindExt(which));
    const std::string kind = which == 0 ? "tail" : "heap";
    size_t size = 0;
    std::string why;
    v->files++;
    if (!FileSize(path, &size, &why) || size < n) {
      v->Fault(column, kind + " file " +
                           (why.empty() ? path + " holds " + std::to_string(size) +
                                              " bytes, the catalog describes " + std::to_string(n)
                                        : why));
      readable = false;
      continue;
    }
    if (!data[which].Map(path, n, &why)) {
      v->Fault(column, kind + " file " + why);
      readable = false;
      continue;
    }
    if (!summed) continue;
    BlockSums s;
    if (!ReadSums(LoadPath(b.batCacheid, KindExt(which + 2)), &s, &why)) {
      v->Fault(column, why);
      continue;
    }
    if (s.covered != n) {
      v->Fault(column, "the checksums of " + path + " cover " + std::to_string(s.covered) +
                           " bytes, the catalog describes " + std::to_string(n));
      continue;
    }
    v->blocks += BlockCount(n);
    for (size_t i : BadBlocks(s, data[which].base(), n))
      v->Fault(column,
               kind + " " + BlockText(i, n) + " of " + path + " does not match its checksum");
  }
  if (!readable || b.twidth == 0 || b.batCount > b.theap.free / b.twidth) return;
  const size_t heap_free = kinds == 2 ? b.tvheap->free : 0;
  // Flags are only told from rows that can be read.
  if (kinds == 2 && !CheckStrings(v, column, b, data[0].base(), data[1].base(), heap_free)) return;
  CheckFlags(v, column, b, data[0].base(), data[1].base(), heap_free);
}

}  // namespace
}  // namespace corvid

using namespace corvid;

extern "C" {

char* CVDfarm_verify(const char* dir, char** report, int* faults) {
  if (report) *report = nullptr;
  if (faults) *faults = 0;
  if (char* err = OpenFarm(dir, CVD_FARM_READONLY, false)) return err;
  Verifier v;
  Kernel& k = K();
  const bool summed = k.catalog_version >= kFirstSummedVersion;
  if (!summed)
    v.report += "farm " + k.farm + ": no checksums (catalog version " +
                std::to_string(k.catalog_version) + "); its next commit adds them\n";
  for (size_t i = 1; i < k.pool.size(); i++)
    if (k.pool[i] && k.pool[i]->desc.batPersistent) CheckColumn(&v, *k.pool[i], summed);
  v.report += "farm " + k.farm + ": " + std::to_string(v.columns) + " columns, " +
              std::to_string(v.files) + " files, " + std::to_string(v.blocks) +
              " blocks checked: " +
              (v.faults == 0   ? std::string("no faults")
               : v.faults == 1 ? std::string("1 fault")
                               : std::to_string(v.faults) + " faults") +
              "\n";
  CVDfarm_close();
  if (faults) *faults = v.faults;
  if (report) *report = GDKstrdup(v.report.c_str());
  return nullptr;
}

}  // extern "C"
