/* corvid string heaps: the one definition of the string tail and heap format, used by the
 * kernel to read and append and by the copy-into library to write.
 *
 * Heap: bytes [0, 2048) are the hash area, 1024 buckets of little-endian uint16 positions
 * (0 = empty). Strings follow, each zero-terminated and starting at a multiple of 8. With
 * HEAP_STRPREFIX set, every string is preceded by an 8-byte prefix: its length including
 * the zero (uint32; the nil string counts 2) and its hash (uint32). While the string's
 * record starts below CVD_STRHEAP_ELIMLIMIT, the prefix is itself preceded by a uint16
 * chain link holding the link position of the previous string of the same bucket (0 ends
 * the chain) and the bucket holds the newest link's position. From the limit on there are
 * no links: a bucket holds the offset of its newest string within the current 64 KiB block
 * of the heap, and the hash area is cleared whenever appending enters a new block.
 *
 * Tail: one unsigned offset per row, W = 1, 2, 4 or 8 bytes, little-endian. The value is
 * the string's heap position / 8; for W of 1 and 2 it is further reduced by 256 (so 0 is
 * position 2048). Positions are computed in 32-bit unsigned arithmetic.
 *
 * Threading: pure functions. */
#ifndef CORVID_STRHEAP_H_
#define CORVID_STRHEAP_H_

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define CVD_STRHEAP_HASHAREA 2048   /* bytes of hash area at the start of a heap */
#define CVD_STRHEAP_BUCKETS 1024    /* uint16 buckets in the hash area */
#define CVD_STRHEAP_ELIMLIMIT 65536 /* chained duplicate elimination below this position */
#define CVD_STRHEAP_ALIGN 8         /* strings start at multiples of this */
#define CVD_STRHEAP_PREFIX 8        /* uint32 length + uint32 hash before each string */
#define CVD_STRHEAP_LINK 2          /* uint16 chain link before the prefix (below the limit) */
#define CVD_STRHEAP_BIAS 256        /* narrow tails store position / 8 - 256 */

static inline int cvd_str_isnil(const char* s) {
  return (unsigned char)s[0] == 0x80 && s[1] == 0;
}

/* Bytes of a string including its zero; the nil string counts 2. */
static inline uint32_t cvd_str_len(const char* s) {
  if (cvd_str_isnil(s)) return 2;
  uint32_t n = 0;
  while (s[n]) n++;
  return n + 1;
}

/* One-at-a-time hash over the string's bytes (without the zero), each taken as a signed
 * char. */
static inline uint32_t cvd_str_hash(const char* s) {
  uint32_t h = 0;
  for (const signed char* p = (const signed char*)s; *p; p++) {
    h += (uint32_t)(int32_t)*p;
    h += h << 10;
    h ^= h >> 6;
  }
  h += h << 3;
  h ^= h >> 11;
  h += h << 15;
  return h;
}

static inline uint32_t cvd_str_bucket(uint32_t hash) { return hash % CVD_STRHEAP_BUCKETS; }

/* Position at which a string appended to a heap whose free position is `free` starts:
 * the next multiple of 8 that leaves room for the link (below the limit) and the prefix. */
static inline size_t cvd_strheap_place(size_t free, int prefixed) {
  size_t room = prefixed ? CVD_STRHEAP_PREFIX : 0;
  if (free < CVD_STRHEAP_ELIMLIMIT) room += CVD_STRHEAP_LINK;
  return (free + room + CVD_STRHEAP_ALIGN - 1) & ~(size_t)(CVD_STRHEAP_ALIGN - 1);
}

/* Offset width for a heap of `size` bytes: the narrowest of 1, 2, 4 whose tail value for
 * the heap's end fits. An empty heap gives 1; 8 is never chosen here. */
static inline int cvd_str_width(uint64_t size) {
  int w = 1;
  while (w < 4) {
    uint64_t v = size / 8;
    if (w <= 2 && v >= CVD_STRHEAP_BIAS) v -= CVD_STRHEAP_BIAS;
    if (v < ((uint64_t)1 << (8 * w))) break;
    w *= 2;
  }
  return w;
}

/* Heap position designated by tail value v of width w. */
static inline uint32_t cvd_str_heappos(uint32_t v, int w) {
  return w <= 2 ? (v + CVD_STRHEAP_BIAS) * 8u : v * 8u;
}

/* Tail value of width w for a string at heap position pos. */
static inline uint64_t cvd_str_tailval(uint64_t pos, int w) {
  return w <= 2 ? pos / 8 - CVD_STRHEAP_BIAS : pos / 8;
}

#ifdef __cplusplus
}
#endif

#endif /* CORVID_STRHEAP_H_ */
