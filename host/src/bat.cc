// BAT heaps and values: loading from the column files, reading rows (including void and
// narrow integer tails), property checks and fixed-width appends.
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <vector>

#include "corvid/exception.h"
#include "corvid/strheap.h"
#include "internal.h"

namespace corvid {

bool IsNarrowInteger(const BAT* b) {
  return b->ttype != TYPE_str && b->ttype != TYPE_void && b->twidth > 0 &&
         b->twidth < ATOMsize(b->ttype) && (b->twidth == 1 || b->twidth == 2 || b->twidth == 4);
}

namespace {

uint64_t LoadUnsigned(const char* p, int width) {
  uint64_t v = 0;
  std::memcpy(&v, p, width);  // little-endian host
  return v;
}

int64_t LoadSigned(const char* p, int width) {
  switch (width) {
    case 1:
      return static_cast<int8_t>(*p);
    case 2: {
      int16_t v;
      std::memcpy(&v, p, 2);
      return v;
    }
    case 4: {
      int32_t v;
      std::memcpy(&v, p, 4);
      return v;
    }
  }
  int64_t v;
  std::memcpy(&v, p, 8);
  return v;
}

// Reads `n` bytes of `path` into a new buffer of `alloc` bytes (zero beyond n).
bool ReadFile(const std::string& path, size_t n, size_t alloc, char** out, std::string* why) {
  int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0 && n == 0 && errno == ENOENT) fd = -2;  // nothing to read: a missing file is empty
  if (fd == -1) {
    *why = path + ": " + ErrnoText(errno);
    return false;
  }
  char* buf = static_cast<char*>(std::calloc(std::max<size_t>(alloc, 1), 1));
  if (!buf) {
    if (fd >= 0) ::close(fd);
    *why = path + ": out of memory";
    return false;
  }
  size_t got = 0;
  while (fd >= 0 && got < n) {
    ssize_t r = ::read(fd, buf + got, n - got);
    if (r < 0 && errno == EINTR) continue;
    if (r <= 0) break;
    got += static_cast<size_t>(r);
  }
  if (fd >= 0) ::close(fd);
  if (got < n) {
    std::free(buf);
    *why = path + ": file holds " + std::to_string(got) + " bytes, the catalog describes " +
           std::to_string(n);
    return false;
  }
  *out = buf;
  return true;
}

// Maps the first n bytes of path privately (copy-on-write): loading costs no copy, and the
// page cache the writers just filled serves the reads. Small heaps are read instead.
bool MapFile(const std::string& path, size_t n, char** out, std::string* why) {
  int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    *why = path + ": " + ErrnoText(errno);
    return false;
  }
  struct stat st;
  if (::fstat(fd, &st) != 0 || static_cast<uint64_t>(st.st_size) < n) {
    *why = path + ": file holds " + std::to_string(st.st_size) +
           " bytes, the catalog describes " + std::to_string(n);
    ::close(fd);
    return false;
  }
  void* p = ::mmap(nullptr, n, PROT_READ | PROT_WRITE, MAP_PRIVATE, fd, 0);
  ::close(fd);
  if (p == MAP_FAILED) {
    *why = path + ": " + ErrnoText(errno);
    return false;
  }
  *out = static_cast<char*>(p);
  return true;
}

// Heaps at least this large are mapped rather than read.
constexpr size_t kMapThreshold = 1 << 20;

bool LoadHeap(const std::string& path, Heap* h, size_t alloc, char** out, std::string* why) {
  if (h->free >= kMapThreshold && alloc <= h->free) {
    if (!MapFile(path, h->free, out, why)) return false;
    h->flags |= HEAP_MAPPED;
    return true;
  }
  h->flags &= ~HEAP_MAPPED;
  return ReadFile(path, h->free, alloc, out, why);
}

}  // namespace

bool HeapsLoaded(const BAT* b) { return (b->batStatus & BATSTATUS_LOADED) != 0; }

bool MakeHeapOwned(Heap* h) {
  if (h->base == nullptr || !(h->flags & HEAP_MAPPED)) return true;
  const size_t size = std::max({h->size, h->free, size_t{1}});
  char* own = static_cast<char*>(std::calloc(size, 1));
  if (!own) return false;
  std::memcpy(own, h->base, h->free);
  ::munmap(h->base, h->free);
  h->base = own;
  h->size = size;
  h->flags &= ~HEAP_MAPPED;
  return true;
}

void FreeHeaps(BAT* b) {
  ReleaseHeapMemory(&b->theap);
  if (b->tvheap) ReleaseHeapMemory(b->tvheap);
  if (b->ttype != TYPE_void) b->batStatus &= ~static_cast<uint32_t>(BATSTATUS_LOADED);
}

bool LoadHeaps(BAT* b, std::string* why) {
  if (b->ttype == TYPE_void) return true;
  char* tail = nullptr;
  char* heap = nullptr;
  FreeHeaps(b);
  if (!LoadHeap(BatPath(b->batCacheid, "tail"), &b->theap,
                std::max(b->theap.free, b->theap.size), &tail, why))
    return false;
  b->theap.base = tail;
  if (b->tvheap) {
    size_t alloc = std::max({b->tvheap->free, b->tvheap->size, size_t{CVD_STRHEAP_HASHAREA}});
    if (!LoadHeap(BatPath(b->batCacheid, "theap"), b->tvheap, alloc, &heap, why)) {
      ReleaseHeapMemory(&b->theap);
      return false;
    }
  }
  b->theap.size = std::max(b->theap.free, b->theap.size);
  b->theap.dirty = 0;
  if (b->tvheap) {
    b->tvheap->base = heap;
    b->tvheap->baseoff = 0;
    b->tvheap->size = std::max({b->tvheap->free, b->tvheap->size, size_t{CVD_STRHEAP_HASHAREA}});
    b->tvheap->dirty = 0;
  }
  b->batStatus |= BATSTATUS_LOADED;
  return true;
}

bool EnsureHeapRoom(Heap* h, size_t need) {
  if (!MakeHeapOwned(h)) return false;
  if (need <= h->size && h->base) return true;
  size_t size = std::max<size_t>(h->size, 64);
  while (size < need) size *= 2;
  char* grown = static_cast<char*>(std::realloc(h->base, size));
  if (!grown) return false;
  std::memset(grown + h->size, 0, size - std::min(size, h->size));
  h->base = grown;
  h->size = size;
  return true;
}

const void* TailValue(const BAT* b, BUN i, void* scratch) {
  if (i >= b->batCount) return nullptr;
  if (b->ttype == TYPE_void) {
    oid v = b->tseqbase == oid_nil ? oid_nil : static_cast<oid>(b->tseqbase + i);
    std::memcpy(scratch, &v, sizeof v);
    return scratch;
  }
  if (!HeapsLoaded(b) || !b->theap.base) return nullptr;
  const char* slot = b->theap.base + i * b->twidth;
  if (b->ttype == TYPE_str) {
    if (!b->tvheap || !b->tvheap->base) return nullptr;
    uint32_t pos = cvd_str_heappos(static_cast<uint32_t>(LoadUnsigned(slot, b->twidth)), b->twidth);
    if (pos < b->tvheap->baseoff || pos >= b->tvheap->baseoff + b->tvheap->free) return nullptr;
    return b->tvheap->base + (pos - b->tvheap->baseoff);
  }
  if (IsNarrowInteger(b)) {
    int64_t v = LoadSigned(slot, b->twidth);
    int size = ATOMsize(b->ttype);
    std::memcpy(scratch, &v, size);  // low bytes of the widened value, little-endian
    return scratch;
  }
  return slot;
}

char* AppendFixed(BAT* b, const void* value) {
  const int size = ATOMsize(b->ttype);
  if (b->twidth < size) {  // a narrow integer tail: the value must fit its width
    int64_t v = LoadSigned(static_cast<const char*>(value), size);
    int64_t lim = int64_t{1} << (8 * b->twidth - 1);
    if (v < -lim || v >= lim)
      return createException(OUTOFBNDS, "CVDbat_append", "value does not fit the %d-byte tail",
                             b->twidth);
  }
  if (!EnsureHeapRoom(&b->theap, (b->batCount + 1) * b->twidth))
    return createException(MAL, "CVDbat_append", "out of memory");
  std::memcpy(b->theap.base + b->batCount * b->twidth, value, b->twidth);
  b->theap.free = (b->batCount + 1) * b->twidth;
  return nullptr;
}

void NoteAppended(BAT* b, BUN first) {
  const BUN from = first > 0 ? first - 1 : 0;  // the row before the new ones joins them
  bool sorted = true, revsorted = true, distinct = true, nonil = true;
  if (!ScanPlainTail(b, from, b->batCount, &sorted, &revsorted, &distinct, &nonil)) {
    alignas(8) unsigned char s1[8], s2[8];
    const void* nil = ATOMnil(b->ttype);
    for (BUN i = from; i < b->batCount; i++) {
      const void* cur = TailValue(b, i, s1);
      if (ATOMcmp(b->ttype, cur, nil) == 0) nonil = false;
      if (i == from) continue;
      int c = ATOMcmp(b->ttype, TailValue(b, i - 1, s2), cur);
      if (c > 0) sorted = false;
      if (c < 0) revsorted = false;
      if (c == 0) distinct = false;
    }
  }
  if (!nonil) b->tnonil = 0;
  if (b->batCount - from < 2) return;  // a first row has nothing to be ordered against
  if (!sorted) b->tsorted = 0;
  if (!revsorted) b->trevsorted = 0;
  if (!distinct || (!b->tsorted && !b->trevsorted)) b->tkey = 0;  // unknown is not key
}

}  // namespace corvid

using corvid::Rec;
using corvid::TailValue;

extern "C" {

BUN BUNfnd(BAT* b, const void* value) {
  if (!b || !value) return BUN_NONE;
  oid o;
  std::memcpy(&o, value, sizeof o);
  if (o == oid_nil || o < b->hseqbase) return BUN_NONE;
  BUN row = o - b->hseqbase;
  return row < b->batCount ? row : BUN_NONE;
}

const void* BUNtail(BAT* b, BUN i) {
  corvid::BatRec* r = b ? Rec(b->batCacheid) : nullptr;
  if (!r || &r->desc != b) return nullptr;
  return TailValue(b, i, r->scratch);
}

void BATfree(BAT* b) {
  if (b && b->ttype != TYPE_void) corvid::FreeHeaps(b);
}

void BATpropcheck(BAT* b) {
  if (!b || (b->ttype != TYPE_void && !corvid::HeapsLoaded(b))) return;
  if (!b->tsorted && !b->trevsorted && !b->tkey && !b->tnonil) return;  // nothing to clear
  const int t = b->ttype;
  alignas(8) unsigned char s1[8], s2[8];
  bool sorted = true, revsorted = true, adjacent_distinct = true, nonil = true;
  const void* nil = ATOMnil(t);
  if (!corvid::ScanPlainTail(b, 0, b->batCount, &sorted, &revsorted, &adjacent_distinct, &nonil)) {
    for (BUN i = 0; i < b->batCount; i++) {
      const void* v = TailValue(b, i, s1);
      if (!v) return;  // unreadable row: leave the flags alone rather than guess
      if (ATOMcmp(t, v, nil) == 0) nonil = false;
      if (i == 0) continue;
      int c = ATOMcmp(t, TailValue(b, i - 1, s2), TailValue(b, i, s1));
      if (c > 0) sorted = false;
      if (c < 0) revsorted = false;
      if (c == 0) adjacent_distinct = false;
    }
  }
  bool key = adjacent_distinct;
  if (key && !sorted && !revsorted && b->tkey) {  // only an unordered tail needs the full check
    std::vector<BUN> rows(b->batCount);
    for (BUN i = 0; i < b->batCount; i++) rows[i] = i;
    auto less = [&](BUN x, BUN y) {
      return ATOMcmp(t, TailValue(b, x, s1), TailValue(b, y, s2)) < 0;
    };
    std::sort(rows.begin(), rows.end(), less);
    for (BUN i = 1; i < rows.size() && key; i++)
      key = ATOMcmp(t, TailValue(b, rows[i - 1], s1), TailValue(b, rows[i], s2)) != 0;
  }
  auto clear = [&](uint8_t* flag, bool holds) {
    if (*flag && !holds) {
      *flag = 0;
      b->batDirtydesc = 1;
    }
  };
  clear(&b->tsorted, sorted);
  clear(&b->trevsorted, revsorted);
  clear(&b->tkey, key);
  clear(&b->tnonil, nonil);
}

}  // extern "C"
