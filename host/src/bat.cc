// BAT heaps and values: loading from the column files, reading rows (including void and
// narrow integer tails) and fixed-width appends.
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
#include "fileio.h"
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
  int fd = SysOpen(path.c_str(), O_RDONLY);
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
  ssize_t r = 0;
  while (fd >= 0 && got < n) {
    r = SysRead(fd, buf + got, n - got);
    if (r < 0 && errno == EINTR) continue;
    if (r <= 0) break;
    got += static_cast<size_t>(r);
  }
  const int err = errno;
  if (fd >= 0) ::close(fd);
  if (got < n) {
    std::free(buf);
    *why = r < 0 ? path + ": " + ErrnoText(err)
                 : path + ": file holds " + std::to_string(got) + " bytes, the catalog describes " +
                       std::to_string(n);
    return false;
  }
  *out = buf;
  return true;
}

// Maps the first n bytes of path privately (copy-on-write): loading costs no copy, and the
// page cache the writers just filled serves the reads. Small heaps are read instead.
bool MapFile(const std::string& path, size_t n, char** out, std::string* why) {
  int fd = SysOpen(path.c_str(), O_RDONLY);
  if (fd < 0) {
    *why = path + ": " + ErrnoText(errno);
    return false;
  }
  struct stat st;
  if (SysFstat(fd, &st) != 0) {
    *why = path + ": " + ErrnoText(errno);
    ::close(fd);
    return false;
  }
  if (static_cast<uint64_t>(st.st_size) < n) {
    *why = path + ": file holds " + std::to_string(st.st_size) + " bytes, the catalog describes " +
           std::to_string(n);
    ::close(fd);
    return false;
  }
  void* p = SysMmap(n, PROT_READ | PROT_WRITE, MAP_PRIVATE, fd);
  const int err = errno;
  ::close(fd);
  if (p == MAP_FAILED) {
    *why = path + ": " + ErrnoText(err);
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
  if (!LoadHeap(LoadPath(b->batCacheid, "tail"), &b->theap, std::max(b->theap.free, b->theap.size),
                &tail, why))
    return false;
  b->theap.base = tail;
  if (b->tvheap) {
    size_t alloc = std::max({b->tvheap->free, b->tvheap->size, size_t{CVD_STRHEAP_HASHAREA}});
    const std::string path = LoadPath(b->batCacheid, "theap");
    if (!LoadHeap(path, b->tvheap, alloc, &heap, why)) {
      ReleaseHeapMemory(&b->theap);
      return false;
    }
    // Every string ends with its zero and the heap ends with its last string: a heap that
    // does not end in a zero would let a read run past its end.
    const size_t free = b->tvheap->free;
    if (free > 0 && heap[free - 1] != 0) {
      b->tvheap->base = heap;
      ReleaseHeapMemory(b->tvheap);
      ReleaseHeapMemory(&b->theap);
      *why = path + ": string heap does not end with a string's closing zero";
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

}  // extern "C"
