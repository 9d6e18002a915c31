// The property scan of plain tails: one pass that tells whether the values ascend, descend,
// differ from their neighbours and hold no nil. Every reload of a rewritten BAT runs it over
// the whole column, so its loop is written for the vectoriser: no branch per value, flags
// gathered as integers as wide as the values, and the loop built twice, for AVX2 and for the
// baseline, with the processor choosing at load time.
#include <algorithm>
#include <cstdint>
#include <cstring>
#include <limits>
#include <thread>
#include <type_traits>

#include "internal.h"

// ThreadSanitizer's runtime is not up yet when the loader picks a clone, and crashes.
#if defined(__GNUC__) && !defined(__clang__) && defined(__x86_64__) && !defined(__SANITIZE_THREAD__)
#define CORVID_VECTOR_CLONES __attribute__((target_clones("avx2", "default")))
#else
#define CORVID_VECTOR_CLONES
#endif

namespace corvid {
namespace {

struct Scan {
  bool up = true, down = true, apart = true, none = true;
  bool plain = true;  // false: a value whose host order differs from the plain order
};

// An integer as wide as T, so that a comparison of two values fills one vector lane.
template <typename T>
using Lane = std::conditional_t<sizeof(T) == 1, int8_t,
             std::conditional_t<sizeof(T) == 2, int16_t,
             std::conditional_t<sizeof(T) == 4, int32_t, int64_t>>>;

// Rows [from, to) of v, from < to. Each flag is gathered as "some pair broke it", block by
// block, so that a column whose flags all fail early stops at the next block.
// Signed integers: nil is the smallest value, so the host's order is the plain order.
// Doubles: the same holds unless a NaN or a value below nil (-inf) is present; `plain`
// reports those, and the caller then falls back to the host's own comparison.
template <typename T>
CORVID_VECTOR_CLONES Scan ScanRange(const T* v, BUN from, BUN to, T nil) {
  using M = Lane<T>;
  constexpr bool kFloat = std::is_floating_point_v<T>;
  constexpr BUN kBlock = 4096;
  M descends = 0, ascends = 0, equal = 0, nils = v[from] == nil, odd = 0;
  if constexpr (kFloat) odd = !(v[from] >= nil);
  for (BUN i = from + 1; i < to;) {
    const BUN end = std::min(to, i + kBlock);
    for (BUN j = i; j < end; j++) {
      descends |= static_cast<M>(v[j - 1] > v[j]);
      ascends |= static_cast<M>(v[j - 1] < v[j]);
      equal |= static_cast<M>(v[j - 1] == v[j]);
      nils |= static_cast<M>(v[j] == nil);
      if constexpr (kFloat) odd |= static_cast<M>(!(v[j] >= nil));
    }
    i = end;
    if (odd || (descends && ascends && equal && nils)) break;  // nothing left to learn
  }
  Scan r;
  r.plain = !odd;
  r.up = !descends;
  r.down = !ascends;
  r.apart = !equal;
  r.none = !nils;
  return r;
}

// Columns this long are scanned in two halves at once; the halves are joined at the seam.
constexpr BUN kParallelScanRows = BUN{1} << 20;

// Scans the tail as T; false when the plain order does not hold for it.
template <typename T>
bool ScanTyped(const BAT* b, BUN from, BUN to, T nil, bool* sorted, bool* revsorted,
               bool* distinct, bool* nonil) {
  if (from >= to) {
    *sorted = *revsorted = *distinct = *nonil = true;
    return true;
  }
  const T* v = reinterpret_cast<const T*>(b->theap.base);
  Scan r;
  if (to - from < kParallelScanRows) {
    r = ScanRange(v, from, to, nil);
  } else {
    const BUN mid = from + (to - from) / 2;
    Scan high;
    std::thread helper([&] { high = ScanRange(v, mid, to, nil); });
    Scan low = ScanRange(v, from, mid, nil);
    helper.join();
    r.plain = low.plain && high.plain;
    r.up = low.up && high.up && v[mid - 1] <= v[mid];
    r.down = low.down && high.down && v[mid - 1] >= v[mid];
    r.apart = low.apart && high.apart && v[mid - 1] != v[mid];
    r.none = low.none && high.none;
  }
  if (!r.plain) return false;
  *sorted = r.up;
  *revsorted = r.down;
  *distinct = r.apart;
  *nonil = r.none;
  return true;
}

// The type's nil when it is the smallest value of T, so that plain order is host order.
template <typename T>
bool NilIsMin(int type) {
  T nil;
  std::memcpy(&nil, ATOMnil(type), sizeof nil);
  return nil == std::numeric_limits<T>::min();
}

template <typename T>
bool ScanSigned(const BAT* b, BUN from, BUN to, bool* sorted, bool* revsorted, bool* distinct,
                bool* nonil) {
  if (!NilIsMin<T>(b->ttype)) return false;
  return ScanTyped<T>(b, from, to, std::numeric_limits<T>::min(), sorted, revsorted, distinct,
                      nonil);
}

}  // namespace

bool ScanPlainTail(const BAT* b, BUN from, BUN to, bool* sorted, bool* revsorted,
                   bool* distinct, bool* nonil) {
  const int t = b->ttype;
  if (!b->theap.base) return false;
  if (t == TYPE_dbl && b->twidth == sizeof(double))
    return ScanTyped<double>(b, from, to, dbl_nil, sorted, revsorted, distinct, nonil);
  if (IsNarrowInteger(b)) {
    // Narrow values widen by sign extension and never reach the wide type's nil: whatever
    // the scan finds, such a tail holds no nil.
    switch (b->twidth) {
      case 1:
        ScanTyped<int8_t>(b, from, to, INT8_MIN, sorted, revsorted, distinct, nonil);
        break;
      case 2:
        ScanTyped<int16_t>(b, from, to, INT16_MIN, sorted, revsorted, distinct, nonil);
        break;
      default:
        ScanTyped<int32_t>(b, from, to, INT32_MIN, sorted, revsorted, distinct, nonil);
        break;
    }
    *nonil = true;
    return true;
  }
  if (t == TYPE_void || t == TYPE_str || t == TYPE_oid || t == TYPE_ptr || t == TYPE_flt ||
      t == TYPE_dbl || b->twidth != ATOMsize(t))
    return false;
  switch (b->twidth) {
    case 1: return ScanSigned<int8_t>(b, from, to, sorted, revsorted, distinct, nonil);
    case 2: return ScanSigned<int16_t>(b, from, to, sorted, revsorted, distinct, nonil);
    case 4: return ScanSigned<int32_t>(b, from, to, sorted, revsorted, distinct, nonil);
    case 8: return ScanSigned<int64_t>(b, from, to, sorted, revsorted, distinct, nonil);
  }
  return false;
}

}  // namespace corvid
