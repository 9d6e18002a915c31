#include "dictionaries/khash_hash.h"

#include <cstdlib>
#include <cstring>
#include <type_traits>

namespace qopci {

namespace {

// Flag bits of bucket i: word i/16, bit pair 2*(i%16); 2 = empty, 1 = deleted, 0 = live.
inline uint32_t FlagPair(const uint32_t* flags, uint32_t i) {
  return (flags[i >> 4] >> ((i & 0xfU) << 1)) & 3U;
}
inline bool IsEmpty(const uint32_t* flags, uint32_t i) { return FlagPair(flags, i) & 2U; }
inline bool IsDeleted(const uint32_t* flags, uint32_t i) { return FlagPair(flags, i) & 1U; }
inline void SetDeleted(uint32_t* flags, uint32_t i) { flags[i >> 4] |= 1U << ((i & 0xfU) << 1); }
inline void ClearEmpty(uint32_t* flags, uint32_t i) {
  flags[i >> 4] &= ~(2U << ((i & 0xfU) << 1));
}
inline void ClearBoth(uint32_t* flags, uint32_t i) {
  flags[i >> 4] &= ~(3U << ((i & 0xfU) << 1));
}

// The key as the signed 64-bit word that is hashed and compared: sign-extended integers,
// the bit pattern of a double.
template <typename K>
inline int64_t KeyWord(K key) {
  if constexpr (std::is_same_v<K, double>) {
    int64_t bits;
    std::memcpy(&bits, &key, sizeof bits);
    return bits;
  } else {
    return static_cast<int64_t>(key);
  }
}

template <typename K>
inline bool SameKey(K a, K b) {
  return KeyWord(a) == KeyWord(b);
}

// The probe step of hash h in a table of mask m: odd, so the walk visits every bucket.
inline uint32_t Step(uint32_t h, uint32_t m) { return (((h >> 3) ^ (h << 3)) | 1U) & m; }

// A flag array of n buckets, every bucket empty; null when memory is short.
uint32_t* NewFlags(uint32_t n) {
  const size_t words = n < 16 ? 1 : n / 16;
  auto* flags = static_cast<uint32_t*>(std::malloc(words * sizeof(uint32_t)));
  if (flags != nullptr) std::memset(flags, 0xAA, words * sizeof(uint32_t));
  return flags;
}

// The log prefix of each instance (one instance per key type).
template <typename K>
const char* PrefixOf();
template <>
const char* PrefixOf<char>() {
  return "HashBase<char, char>";
}
template <>
const char* PrefixOf<short>() {
  return "HashBase<short, short>";
}
template <>
const char* PrefixOf<int>() {
  return "HashBase<int, int>";
}
template <>
const char* PrefixOf<int64_t>() {
  return "HashBase<__int64, var_t>";
}
template <>
const char* PrefixOf<double>() {
  return "HashBase<double, var_t>";
}

const char kNotInserted[] = "Value wasn't inserted into hash table";

}  // namespace

template <typename K, typename V>
KhashHash<K, V>::KhashHash(bool hashes_nulls) : HashBase<K, V>(hashes_nulls) {}

template <typename K, typename V>
KhashHash<K, V>::~KhashHash() {
  std::free(flags_);
  std::free(keys_);
  std::free(vals_);
}

template <typename K, typename V>
const char* KhashHash<K, V>::LogPrefix() const {
  return PrefixOf<K>();
}

template <typename K, typename V>
uint32_t KhashHash<K, V>::Hash(K key) {
  const int64_t k = KeyWord(key);
  const uint64_t u = static_cast<uint64_t>(k);
  return static_cast<uint32_t>(static_cast<uint64_t>(k >> 33) ^ u ^ (u << 11));
}

template <typename K, typename V>
int64_t KhashHash<K, V>::BucketOf(K key) const {
  if (n_buckets_ == 0) return -1;
  const uint32_t m = n_buckets_ - 1;
  const uint32_t h = Hash(key);
  const uint32_t step = Step(h, m);
  const uint32_t start = h & m;
  uint32_t i = start;
  while (!IsEmpty(flags_, i) && (IsDeleted(flags_, i) || !SameKey(keys_[i], key))) {
    i = (i + step) & m;
    if (i == start) return -1;
  }
  return IsEmpty(flags_, i) ? -1 : static_cast<int64_t>(i);
}

template <typename K, typename V>
bool KhashHash<K, V>::Find(K key, V* code) {
  const int64_t b = BucketOf(key);
  if (b < 0) return false;
  *code = vals_[b];
  return true;
}

template <typename K, typename V>
bool KhashHash<K, V>::Insert(K key, V code) {
  PutResult result;
  const uint32_t b = Put(key, &result);
  if (b == n_buckets_ || result == kPresent) return false;
  vals_[b] = code;
  return true;
}

template <typename K, typename V>
void KhashHash<K, V>::GrowIfFull() {
  if (n_occupied_ < upper_bound_) return;
  if (n_buckets_ > (static_cast<uint64_t>(size_) << 1)) {
    Resize(n_buckets_ - 1);  // same size: clears deleted buckets
  } else {
    Resize(n_buckets_ + 1);
  }
}

template <typename K, typename V>
uint32_t KhashHash<K, V>::Put(K key, PutResult* result) {
  GrowIfFull();
  if (n_buckets_ == 0) return n_buckets_;
  const uint32_t m = n_buckets_ - 1;
  const uint32_t h = Hash(key);
  uint32_t i = h & m;
  uint32_t x = n_buckets_;
  if (IsEmpty(flags_, i)) {
    x = i;
  } else {
    const uint32_t step = Step(h, m);
    const uint32_t start = i;
    uint32_t site = n_buckets_;  // first deleted bucket passed
    bool wrapped = false;
    while (!IsEmpty(flags_, i) && (IsDeleted(flags_, i) || !SameKey(keys_[i], key))) {
      if (IsDeleted(flags_, i) && site == n_buckets_) site = i;
      i = (i + step) & m;
      if (i == start) {
        wrapped = true;
        break;
      }
    }
    if (wrapped) {
      x = site;  // n_buckets_ when there is no deleted bucket: the key cannot be placed
    } else if (IsEmpty(flags_, i) && site != n_buckets_) {
      x = site;
    } else {
      x = i;
    }
  }
  if (x == n_buckets_) return x;
  const uint32_t pair = FlagPair(flags_, x);
  if (pair & 2U) {
    keys_[x] = key;
    ClearBoth(flags_, x);
    ++size_;
    ++n_occupied_;
    *result = kWasEmpty;
  } else if (pair & 1U) {
    keys_[x] = key;
    ClearBoth(flags_, x);
    ++size_;
    *result = kWasDeleted;
  } else {
    *result = kPresent;
  }
  return x;
}

template <typename K, typename V>
void KhashHash<K, V>::Resize(uint32_t requested) {
  uint64_t n = static_cast<uint32_t>(requested - 1);
  n |= n >> 1;
  n |= n >> 2;
  n |= n >> 4;
  n |= n >> 8;
  n |= n >> 16;
  n = static_cast<uint32_t>(n + 1);
  if (n < 4) n = 4;
  if (n > (1U << 31)) return;  // beyond any 32-bit code space
  const uint32_t bound = static_cast<uint32_t>(static_cast<double>(n) * 0.77 + 0.5);
  if (size_ >= bound) return;  // the keys would not fit under the new bound
  uint32_t* new_flags = NewFlags(static_cast<uint32_t>(n));
  if (new_flags == nullptr) return;
  if (n_buckets_ < n) {
    K* keys = static_cast<K*>(std::realloc(keys_, n * sizeof(K)));
    if (keys == nullptr) {
      std::free(new_flags);
      return;
    }
    keys_ = keys;
    V* vals = static_cast<V*>(std::realloc(vals_, n * sizeof(V)));
    if (vals == nullptr) {
      std::free(new_flags);
      return;
    }
    vals_ = vals;
    // The new buckets are read (and ignored) by the branch-light lookups: give them values.
    std::memset(static_cast<void*>(keys_ + n_buckets_), 0, (n - n_buckets_) * sizeof(K));
    std::memset(static_cast<void*>(vals_ + n_buckets_), 0, (n - n_buckets_) * sizeof(V));
  }
  const uint32_t new_mask = static_cast<uint32_t>(n - 1);
  for (uint32_t j = 0; j != n_buckets_; ++j) {
    if (FlagPair(flags_, j) != 0) continue;
    K key = keys_[j];
    V val = vals_[j];
    SetDeleted(flags_, j);
    for (;;) {  // place the carried pair; a live old pair it lands on is carried next
      const uint32_t h = Hash(key);
      const uint32_t step = Step(h, new_mask);
      uint32_t i = h & new_mask;
      while (!IsEmpty(new_flags, i)) i = (i + step) & new_mask;
      ClearEmpty(new_flags, i);
      if (i < n_buckets_ && FlagPair(flags_, i) == 0) {
        K k = keys_[i];
        keys_[i] = key;
        key = k;
        V v = vals_[i];
        vals_[i] = val;
        val = v;
        SetDeleted(flags_, i);
      } else {
        keys_[i] = key;
        vals_[i] = val;
        break;
      }
    }
  }
  if (n_buckets_ > n) {  // shrinking: only after the pairs have moved down
    keys_ = static_cast<K*>(std::realloc(keys_, n * sizeof(K)));
    vals_ = static_cast<V*>(std::realloc(vals_, n * sizeof(V)));
  }
  std::free(flags_);
  flags_ = new_flags;
  n_buckets_ = static_cast<uint32_t>(n);
  n_occupied_ = size_;
  upper_bound_ = bound;
}

namespace {

// The bucket of key by a full walk from its start bucket, as a put walks; m + 1 (an
// impossible bucket) when the key is absent.
template <typename K, typename V>
inline uint32_t Walk(const uint32_t* flags, const K* keys, uint32_t m, K key) {
  const uint32_t h = KhashHash<K, V>::Hash(key);
  const uint32_t step = Step(h, m);
  const uint32_t start = h & m;
  uint32_t b = start;
  for (;;) {
    const uint32_t pair = FlagPair(flags, b);
    if (pair & 2U) return m + 1;
    if (pair == 0 && SameKey(keys[b], key)) return b;
    b = (b + step) & m;
    if (b == start) return m + 1;
  }
}

// The first pass over a block values[i..end) of EncodeChunk, while the table is below its
// upper bound. It looks at each value's start bucket only and has no branch on what it finds
// there (whether a key sits at its start bucket is a coin toss that no branch predictor
// learns): it writes the code found there, or the null code, and lists in missed the offsets
// of the other values; returns how many. Without branches the loads of a whole block are in
// flight together; with kPrefetch, for tables beyond the first cache levels, the flag word,
// key and code at the start bucket of values further ahead are fetched early as well.
template <typename K, typename V, bool kSkipNulls, bool kPrefetch>
uint32_t FirstPass(const uint32_t* flags, const K* keys, const V* vals, uint32_t m,
                   const K* values, V* codes, uint64_t i, uint64_t end, uint64_t count,
                   V null_code, K null_value, uint8_t* missed) {
  constexpr uint64_t kAhead = 16;
  uint32_t n_missed = 0;
  for (uint64_t j = i; j < end; ++j) {
    if constexpr (kPrefetch) {
      if (j + kAhead < count) {
        const uint32_t a = KhashHash<K, V>::Hash(values[j + kAhead]) & m;
        __builtin_prefetch(&flags[a >> 4]);
        __builtin_prefetch(&keys[a]);
        __builtin_prefetch(&vals[a]);
      }
    }
    const K v = values[j];
    const uint32_t b = KhashHash<K, V>::Hash(v) & m;
    // 0 when the bucket is live and holds v's bits.
    uint64_t miss = FlagPair(flags, b) |
                    (static_cast<uint64_t>(KeyWord(keys[b])) ^ static_cast<uint64_t>(KeyWord(v)));
    V code = vals[b];
    if constexpr (kSkipNulls) {
      // A floating-point comparison for doubles: a NaN null never matches.
      const bool null = v == null_value;
      code = null ? null_code : code;
      miss = null ? 0 : miss;
    }
    codes[j] = code;
    missed[n_missed] = static_cast<uint8_t>(j - i);
    n_missed += miss != 0;
  }
  return n_missed;
}

// The same for the values listed in missed[0..n_missed) by FirstPass, at the second bucket
// of their walk (which counts only when the start bucket is not empty, as a walk would stop
// there). Keeps in missed, in order, the values still not found; returns how many.
template <typename K, typename V>
uint32_t SecondBucketPass(const uint32_t* flags, const K* keys, const V* vals, uint32_t m,
                          const K* values, V* codes, uint64_t i, uint8_t* missed,
                          uint32_t n_missed) {
  uint32_t n_left = 0;
  for (uint32_t k = 0; k < n_missed; ++k) {
    const uint64_t j = i + missed[k];
    const K v = values[j];
    const uint32_t h = KhashHash<K, V>::Hash(v);
    const uint32_t b0 = h & m;
    const uint32_t b = (b0 + Step(h, m)) & m;
    const uint64_t miss = (FlagPair(flags, b0) & 2U) | FlagPair(flags, b) |
                          (static_cast<uint64_t>(KeyWord(keys[b])) ^ static_cast<uint64_t>(KeyWord(v)));
    codes[j] = vals[b];
    missed[n_left] = missed[k];
    n_left += miss != 0;
  }
  return n_left;
}

// Tables at least this large no longer sit in the first cache levels: prefetch for them.
constexpr uint32_t kPrefetchBuckets = 1U << 15;
constexpr uint64_t kBlock = 64;

}  // namespace

// Values go in blocks of kBlock. A first pass codes the keys found at their start buckets;
// the second goes through the others in input order, walking for a present key and putting
// a new one. Lookups follow the walk of a put, so a present key gets the bucket a put would
// give it. The first pass does not resize, which a put does first once the table reached
// its bound; it runs only while the table is below the bound, and when an insertion reaches
// it, the table grows at once if a value needing a put follows in the chunk, as the put of
// that value would. So buckets, probe order, codes and resize points are those of one put
// per value in input order.
template <typename K, typename V>
void KhashHash<K, V>::EncodeChunk(const K* values, V first_new_code, V* codes, uint64_t count,
                                  K* new_values, V* new_codes, uint64_t* new_count, V null_code,
                                  K null_value) {
  const bool skip_nulls = !this->HashesNulls();
  V next = first_new_code;
  uint64_t added = *new_count;
  uint8_t missed[kBlock];
  for (uint64_t i = 0; i < count; i += kBlock) {
    const uint64_t end = count - i < kBlock ? count : i + kBlock;
    uint32_t n_missed = 0;
    if (n_buckets_ != 0 && n_occupied_ < upper_bound_) {
      const uint32_t m = n_buckets_ - 1;
      auto* pass = FirstPass<K, V, false, false>;
      if (n_buckets_ >= kPrefetchBuckets) {
        pass = skip_nulls ? FirstPass<K, V, true, true> : FirstPass<K, V, false, true>;
      } else if (skip_nulls) {
        pass = FirstPass<K, V, true, false>;
      }
      n_missed = pass(flags_, keys_, vals_, m, values, codes, i, end, count, null_code,
                      null_value, missed);
      n_missed = SecondBucketPass<K, V>(flags_, keys_, vals_, m, values, codes, i, missed,
                                        n_missed);
    } else {
      for (uint64_t j = i; j < end; ++j) missed[n_missed++] = static_cast<uint8_t>(j - i);
    }
    for (uint32_t k = 0; k < n_missed; ++k) {
      const uint64_t j = i + missed[k];
      const K v = values[j];
      if (skip_nulls && v == null_value) {
        codes[j] = null_code;
        continue;
      }
      if (n_buckets_ != 0 && n_occupied_ < upper_bound_) {
        const uint32_t b = Walk<K, V>(flags_, keys_, n_buckets_ - 1, v);
        if (b < n_buckets_) {
          codes[j] = vals_[b];
          continue;
        }
      }
      PutResult result;
      const uint32_t b = Put(v, &result);
      if (b == n_buckets_) {
        *new_count = added;
        throw kNotInserted;
      }
      if (result == kPresent) {
        codes[j] = vals_[b];
        continue;
      }
      vals_[b] = next;
      codes[j] = next;
      new_codes[added] = next;
      new_values[added] = v;
      ++added;
      ++next;
      if (n_occupied_ >= upper_bound_) {
        // The put of the next value would grow the table first: grow it now.
        uint64_t after = j + 1;
        while (after < count && skip_nulls && values[after] == null_value) ++after;
        if (after < count) GrowIfFull();
      }
    }
  }
  *new_count = added;
}

template class KhashHash<char, char>;
template class KhashHash<short, short>;
template class KhashHash<int, int>;
template class KhashHash<int64_t, unsigned int>;
template class KhashHash<double, unsigned int>;

}  // namespace qopci
