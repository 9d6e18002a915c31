// The string table's fast hash: the X31 hash, length and first sixteen bytes of a string
// of up to fifteen bytes, found with one 16-byte load and no branch on the length.
//
// X31 is h = sum of c[i] * 31^(L-1-i) over the string's sign-extended bytes. Zeroing the
// bytes from the terminator on and weighting all sixteen gives h * 31^(16-L); 31 is odd, so
// multiplying by its inverse modulo 2^32 raised to 16-L recovers h exactly.
// The load may reach past the terminator, but never past the 4 KiB page the string starts
// in (the caller falls back to the byte loop near a page end), so it cannot fault. Builds
// with a sanitizer copy the string's bytes into a buffer first, so that they check every
// step but the over-reaching load.
// Threading: pure functions over constant tables.
#ifndef QOPCI_DICTIONARIES_KHASH_PROBE_H_
#define QOPCI_DICTIONARIES_KHASH_PROBE_H_

#include <cstdint>
#include <cstring>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace qopci {
namespace khash_probe {

struct Tables {
  alignas(16) uint8_t keep[17][16];  // keep[L]: 0xFF for the bytes before a terminator at L
  uint32_t unweight[17];             // (31^-1)^(16-L) modulo 2^32
  alignas(16) int16_t low[8];        // 961^(7-j) modulo 2^32 split into signed 16-bit halves,
  alignas(16) int16_t high[8];       // so that pmaddwd can weight the byte pairs
};

constexpr Tables MakeTables() {
  Tables t{};
  for (int l = 0; l <= 16; ++l) {
    for (int i = 0; i < 16; ++i) t.keep[l][i] = i < l ? 0xFF : 0;
  }
  uint32_t inverse = 31;  // Newton's iteration for 31^-1 modulo 2^32
  for (int i = 0; i < 5; ++i) inverse *= 2u - 31u * inverse;
  uint32_t power = 1;
  for (int k = 0; k <= 16; ++k) {
    t.unweight[16 - k] = power;
    power *= inverse;
  }
  uint32_t weight = 1;
  for (int j = 7; j >= 0; --j) {
    const auto low = static_cast<int16_t>(weight & 0xFFFF);
    t.low[j] = low;
    t.high[j] =
        static_cast<int16_t>((weight - static_cast<uint32_t>(static_cast<int32_t>(low))) >> 16);
    weight *= 961u;
  }
  return t;
}

inline constexpr Tables kTables = MakeTables();

#if defined(__SSE2__)
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define QOPCI_KHASH_EXACT_LOADS 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define QOPCI_KHASH_EXACT_LOADS 1
#endif
#endif

// Hash, length and head of s when it is shorter than sixteen bytes and the load stays in
// its page; false otherwise (the caller then walks the bytes).
inline bool ShortProbe(const char* s, uint32_t* hash, uint32_t* length, uint64_t head[2]) {
  if ((reinterpret_cast<uintptr_t>(s) & 4095) > 4096 - 16) return false;
#ifdef QOPCI_KHASH_EXACT_LOADS
  alignas(16) char copy[16] = {};
  for (int i = 0; i < 16 && (i == 0 || s[i - 1] != 0); ++i) copy[i] = s[i];
  __m128i v = _mm_load_si128(reinterpret_cast<const __m128i*>(copy));
#else
  __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(s));
#endif
  const unsigned zeros = _mm_movemask_epi8(_mm_cmpeq_epi8(v, _mm_setzero_si128()));
  if (zeros == 0) return false;
  const unsigned l = __builtin_ctz(zeros);
  v = _mm_and_si128(v, _mm_load_si128(reinterpret_cast<const __m128i*>(kTables.keep[l])));
  // Bytes sign-extended to 16 bits; pairs weighted (31, 1); then the eight pair sums (each
  // within 16 bits) weighted by 961^(7-j) in two 16-bit halves.
  const __m128i sign = _mm_cmpgt_epi8(_mm_setzero_si128(), v);
  const __m128i pair = _mm_set1_epi32(0x0001001F);
  const __m128i sums = _mm_packs_epi32(_mm_madd_epi16(_mm_unpacklo_epi8(v, sign), pair),
                                       _mm_madd_epi16(_mm_unpackhi_epi8(v, sign), pair));
  const __m128i low =
      _mm_madd_epi16(sums, _mm_load_si128(reinterpret_cast<const __m128i*>(kTables.low)));
  const __m128i high =
      _mm_madd_epi16(sums, _mm_load_si128(reinterpret_cast<const __m128i*>(kTables.high)));
  __m128i total = _mm_add_epi32(low, _mm_slli_epi32(high, 16));
  total = _mm_add_epi32(total, _mm_shuffle_epi32(total, 0x4E));
  total = _mm_add_epi32(total, _mm_shuffle_epi32(total, 0xB1));
  *hash = static_cast<uint32_t>(_mm_cvtsi128_si32(total)) * kTables.unweight[l];
  *length = l;
  _mm_storeu_si128(reinterpret_cast<__m128i*>(head), v);
  return true;
}
#else
inline bool ShortProbe(const char*, uint32_t*, uint32_t*, uint64_t*) { return false; }
#endif

}  // namespace khash_probe
}  // namespace qopci

#endif  // QOPCI_DICTIONARIES_KHASH_PROBE_H_
