// Appending to string BATs: the string goes into the heap in the shared heap format
// (corvid/strheap.h), duplicates found through the hash buckets are shared, and the tail of
// offsets widens when the heap outgrows its width.
#include <cstdlib>
#include <cstring>

#include "corvid/exception.h"
#include "corvid/strheap.h"
#include "internal.h"

namespace corvid {
namespace {

uint16_t Load16(const char* p) {
  uint16_t v;
  std::memcpy(&v, p, 2);
  return v;
}

void Store16(char* p, uint16_t v) { std::memcpy(p, &v, 2); }

bool SameString(const char* stored, const char* s) {
  return cvd_str_isnil(stored) ? cvd_str_isnil(s) : std::strcmp(stored, s) == 0;
}

// Position of an equal string already in the heap, or 0.
size_t FindDuplicate(const Heap* h, const char* s, uint32_t bucket) {
  const char* base = h->base;
  const uint16_t head = Load16(base + 2 * bucket);
  if (h->free < CVD_STRHEAP_ELIMLIMIT) {
    size_t steps = 0;  // a chain cannot be longer than the heap has records
    for (size_t link = head; link != 0 && steps < h->free / CVD_STRHEAP_ALIGN; steps++) {
      size_t pos = link + CVD_STRHEAP_LINK + CVD_STRHEAP_PREFIX;
      // Strings start at multiples of 8: a link elsewhere comes from a damaged heap, and a
      // tail offset (position / 8) could not name that string anyway.
      if (link < CVD_STRHEAP_HASHAREA || pos >= h->free || pos % CVD_STRHEAP_ALIGN != 0) break;
      if (SameString(base + pos, s)) return pos;
      link = Load16(base + link);
    }
    return 0;
  }
  if (head == 0) return 0;
  size_t pos = (h->free & ~size_t{0xFFFF}) + head;  // offset within the current block
  if (pos >= h->free || pos < CVD_STRHEAP_HASHAREA + CVD_STRHEAP_PREFIX ||
      pos % CVD_STRHEAP_ALIGN != 0)
    return 0;
  uint32_t len;
  std::memcpy(&len, base + pos - CVD_STRHEAP_PREFIX, 4);
  if (pos + len > h->free) return 0;
  return SameString(base + pos, s) ? pos : 0;
}

uint64_t TailValueAt(const BAT* b, BUN i) {
  uint64_t v = 0;
  std::memcpy(&v, b->theap.base + i * b->twidth, b->twidth);
  return v;
}

// Rewrites every offset of the tail at the new width, moving in and out of the biased
// narrow widths as needed.
bool Widen(BAT* b, int width) {
  const int old = b->twidth;
  char* grown = static_cast<char*>(std::calloc(std::max<size_t>(b->batCapacity, 1), width));
  if (!grown) return false;
  for (BUN i = 0; i < b->batCount; i++) {
    uint64_t pos = cvd_str_heappos(static_cast<uint32_t>(TailValueAt(b, i)), old);
    uint64_t v = cvd_str_tailval(pos, width);
    std::memcpy(grown + i * width, &v, width);
  }
  ReleaseHeapMemory(&b->theap);
  b->theap.base = grown;
  b->theap.size = std::max<size_t>(b->batCapacity, 1) * width;
  b->theap.free = b->batCount * width;
  b->twidth = static_cast<uint16_t>(width);
  b->tshift = static_cast<uint16_t>(ATOMelmshift(width));
  return true;
}

}  // namespace

void InitStringHeap(Heap* h) {
  ReleaseHeapMemory(h);
  h->base = static_cast<char*>(std::calloc(CVD_STRHEAP_HASHAREA * 2, 1));
  h->size = h->base ? CVD_STRHEAP_HASHAREA * 2 : 0;
  h->free = CVD_STRHEAP_HASHAREA;
  h->baseoff = 0;
  h->flags = HEAP_STRPREFIX;
  h->dirty = 1;
}

char* AppendString(BAT* b, const char* s) {
  Heap* h = b->tvheap;
  if (!h || !h->base || h->baseoff != 0)
    return createException(MAL, "CVDbat_append", "string heap of BAT %d is not loaded",
                           b->batCacheid);
  if (!MakeHeapOwned(h) || !MakeHeapOwned(&b->theap))
    return createException(MAL, "CVDbat_append", "out of memory");
  const uint32_t len = cvd_str_len(s);
  const uint32_t hash = cvd_str_hash(s);
  const uint32_t bucket = cvd_str_bucket(hash);
  size_t pos = FindDuplicate(h, s, bucket);
  if (pos == 0) {
    const size_t old_free = h->free;
    pos = cvd_strheap_place(old_free, 1);
    if (pos + len > UINT32_MAX)
      return createException(OUTOFBNDS, "CVDbat_append", "string heap exceeds 4 GiB");
    if (!EnsureHeapRoom(h, pos + len))
      return createException(MAL, "CVDbat_append", "out of memory");
    char* base = h->base;
    if (old_free >= CVD_STRHEAP_ELIMLIMIT && (pos >> 16) != (old_free >> 16))
      std::memset(base, 0, CVD_STRHEAP_HASHAREA);  // entering a new 64 KiB block
    std::memset(base + old_free, 0, pos - old_free);
    std::memcpy(base + pos - CVD_STRHEAP_PREFIX, &len, 4);
    std::memcpy(base + pos - 4, &hash, 4);
    std::memcpy(base + pos, s, len);  // the nil string's two bytes are its length
    if (old_free < CVD_STRHEAP_ELIMLIMIT) {
      size_t link = pos - CVD_STRHEAP_PREFIX - CVD_STRHEAP_LINK;
      if (link <= 0xFFFF) {  // a link past 64 KiB cannot be named by a bucket
        Store16(base + link, Load16(base + 2 * bucket));
        Store16(base + 2 * bucket, static_cast<uint16_t>(link));
      }
    } else if ((pos & 0xFFFF) != 0) {
      Store16(base + 2 * bucket, static_cast<uint16_t>(pos & 0xFFFF));
    }
    h->free = pos + len;
    h->dirty = 1;
  }
  const int width = cvd_str_width(h->free);
  if (width > b->twidth && !Widen(b, width))
    return createException(MAL, "CVDbat_append", "out of memory");
  if (!EnsureHeapRoom(&b->theap, (b->batCount + 1) * b->twidth))
    return createException(MAL, "CVDbat_append", "out of memory");
  uint64_t v = cvd_str_tailval(pos, b->twidth);
  std::memcpy(b->theap.base + b->batCount * b->twidth, &v, b->twidth);
  b->theap.free = (b->batCount + 1) * b->twidth;
  return nullptr;
}

}  // namespace corvid
