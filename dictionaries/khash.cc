#include "dictionaries/khash.h"

#include <cstdlib>
#include <cstring>

namespace qopci {

namespace {

// Bucket counts: each growth steps to the next prime, so that the probe step (1 + h mod
// (n - 1)) is always coprime with n and a probe visits every bucket.
constexpr uint32_t kPrimes[32] = {
    0u,         3u,          11u,         23u,        53u,        97u,        193u,
    389u,       769u,        1543u,       3079u,      6151u,      12289u,     24593u,
    49157u,     98317u,      196613u,     393241u,    786433u,    1572869u,   3145739u,
    6291469u,   12582917u,   25165843u,   50331653u,  100663319u, 201326611u, 402653189u,
    805306457u, 1610612741u, 3221225473u, 4294967291u};

constexpr double kLoad = 0.77;

// h mod d without a division: reciprocal() once per bucket count, then two multiplications
// (exact for every 32-bit h and d).
inline uint64_t Reciprocal(uint32_t d) { return d == 0 ? 0 : UINT64_MAX / d + 1; }
inline uint32_t Mod(uint32_t h, uint64_t reciprocal, uint32_t d) {
  const uint64_t low = reciprocal * h;
  return static_cast<uint32_t>((static_cast<unsigned __int128>(low) * d) >> 64);
}

// Flag pairs: bucket i in word i/16 at bit pair 2(i mod 16); 2 = empty, 1 = deleted.
inline bool IsEmpty(const uint32_t* flags, uint32_t i) {
  return (flags[i >> 4] >> ((i & 15u) << 1)) & 2u;
}
inline bool IsDeleted(const uint32_t* flags, uint32_t i) {
  return (flags[i >> 4] >> ((i & 15u) << 1)) & 1u;
}
inline bool IsEither(const uint32_t* flags, uint32_t i) {
  return (flags[i >> 4] >> ((i & 15u) << 1)) & 3u;
}
inline void SetDeleted(uint32_t* flags, uint32_t i) { flags[i >> 4] |= 1u << ((i & 15u) << 1); }
inline void ClearEmpty(uint32_t* flags, uint32_t i) { flags[i >> 4] &= ~(2u << ((i & 15u) << 1)); }
inline void ClearBoth(uint32_t* flags, uint32_t i) { flags[i >> 4] &= ~(3u << ((i & 15u) << 1)); }

inline uint32_t Next(uint32_t i, uint32_t step, uint32_t n) {
  const uint64_t t = static_cast<uint64_t>(i) + step;
  return static_cast<uint32_t>(t >= n ? t - n : t);
}

// X31 over the bytes, each sign-extended as a char.
inline uint32_t Extend(char c) {
  return static_cast<uint32_t>(static_cast<int32_t>(static_cast<signed char>(c)));
}

// Equal prefix words either hold the whole strings (their zero byte is inside) or both
// strings go on past eight bytes; short tails are compared inline, long ones by strcmp.
inline bool SameKey(const char* key, uint64_t key_prefix, const char* s, size_t length,
                    uint64_t prefix) {
  if (key_prefix != prefix) return false;
  if (length < 8) return true;
  if (length >= 24) return std::strcmp(key + 8, s + 8) == 0;
  for (size_t i = 8;; ++i) {
    if (key[i] != s[i]) return false;
    if (s[i] == 0) return true;
  }
}

// The table's fields a lookup reads, copied into locals once per chunk so that writing the
// codes does not force them to be read again.
struct View {
  const uint32_t* flags;
  char* const* keys;
  const unsigned* vals;
  const uint64_t* prefixes;
  uint32_t n;
  uint64_t mod_n, mod_n1;
};

__attribute__((always_inline)) inline uint32_t Lookup(const View& v, const char* s, uint32_t hash, size_t length,
                       uint64_t prefix) {
  constexpr uint32_t kNone = UINT32_MAX;
  if (v.n == 0) return kNone;
  uint32_t i = Mod(hash, v.mod_n, v.n);
  if (IsEmpty(v.flags, i)) return kNone;
  if (!IsDeleted(v.flags, i) && SameKey(v.keys[i], v.prefixes[i], s, length, prefix)) return i;
  const uint32_t last = i;
  const uint32_t step = 1 + Mod(hash, v.mod_n1, v.n - 1);
  for (;;) {
    i = Next(i, step, v.n);
    if (i == last || IsEmpty(v.flags, i)) return kNone;
    if (!IsDeleted(v.flags, i) && SameKey(v.keys[i], v.prefixes[i], s, length, prefix)) return i;
  }
}

inline uint32_t UpperBoundFor(uint32_t n) { return static_cast<uint32_t>(n * kLoad + 0.5); }

}  // namespace

KHash::KHash(uint32_t initial_capacity, bool hashes_nulls) : HashBase(hashes_nulls) {
  Resize(initial_capacity);
}

KHash::~KHash() {
  for (uint32_t i = 0; i < n_buckets_; ++i) {
    if (!IsEither(flags_, i)) std::free(keys_[i]);
  }
  std::free(flags_);
  std::free(keys_);
  std::free(vals_);
  std::free(prefixes_);
}

uint64_t KHash::Size() { return size_ + pending_; }

__attribute__((always_inline)) inline KHash::Probe KHash::MakeProbe(const char* s) {
  Probe p{Extend(s[0]), 0, 0};
  if (p.hash != 0) {
    size_t n = 1;
    for (; s[n] != 0; ++n) p.hash = p.hash * 31u + Extend(s[n]);
    p.length = n;
  }
  if (p.length >= 7) {
    std::memcpy(&p.prefix, s, 8);
  } else {
    for (size_t i = 0; i < p.length; ++i) {
      p.prefix |= static_cast<uint64_t>(static_cast<unsigned char>(s[i])) << (8 * i);
    }
  }
  return p;
}

uint32_t KHash::Get(const char* key, const Probe& probe) const {
  const View v{flags_, keys_, vals_, prefixes_, n_buckets_, mod_n_, mod_n1_};
  return Lookup(v, key, probe.hash, probe.length, probe.prefix);
}

uint32_t KHash::Put(const char* key, const Probe& probe, int* result) {
  if (n_occupied_ >= upper_bound_) {
    Resize(n_buckets_ > (size_ << 1) ? n_buckets_ - 1 : n_buckets_ + 1);
  }
  if (n_buckets_ == 0) return kAbsent;
  const uint32_t hash = probe.hash;
  uint32_t x = kAbsent, site = kAbsent;
  uint32_t i = Mod(hash, mod_n_, n_buckets_);
  if (IsEmpty(flags_, i)) {
    x = i;
  } else {
    const uint32_t step = 1 + Mod(hash, mod_n1_, n_buckets_ - 1);
    const uint32_t last = i;
    while (!IsEmpty(flags_, i) && (IsDeleted(flags_, i) || !SameKey(keys_[i], prefixes_[i], key,
                                                                    probe.length, probe.prefix))) {
      if (IsDeleted(flags_, i) && site == kAbsent) site = i;
      i = Next(i, step, n_buckets_);
      if (i == last) {
        x = site;
        break;
      }
    }
    if (x == kAbsent && i != last) x = (IsEmpty(flags_, i) && site != kAbsent) ? site : i;
  }
  if (x == kAbsent) return kAbsent;
  if (IsEmpty(flags_, x)) {
    ClearBoth(flags_, x);
    ++size_;
    ++n_occupied_;
    *result = 1;
  } else if (IsDeleted(flags_, x)) {
    ClearBoth(flags_, x);
    ++size_;
    *result = 2;
  } else {
    *result = 0;
  }
  return x;
}

void KHash::Resize(uint32_t requested) {
  uint32_t t = 0;
  while (t < 31 && kPrimes[t] <= requested) ++t;
  const uint32_t n = kPrimes[t];
  const uint32_t bound = UpperBoundFor(n);
  if (size_ >= bound) return;
  const size_t words = n / 16 + 1;
  auto* flags = static_cast<uint32_t*>(std::malloc(words * sizeof(uint32_t)));
  std::memset(flags, 0xAA, words * sizeof(uint32_t));
  if (n_buckets_ < n) {
    keys_ = static_cast<char**>(std::realloc(keys_, n * sizeof(char*)));
    vals_ = static_cast<unsigned*>(std::realloc(vals_, n * sizeof(unsigned)));
    prefixes_ = static_cast<uint64_t*>(std::realloc(prefixes_, n * sizeof(uint64_t)));
  }
  const uint64_t mod_n = Reciprocal(n), mod_n1 = Reciprocal(n - 1);
  for (uint32_t j = 0; j != n_buckets_; ++j) {
    if (IsEither(flags_, j)) continue;
    char* key = keys_[j];
    unsigned val = vals_[j];
    uint64_t prefix = prefixes_[j];
    SetDeleted(flags_, j);
    for (;;) {
      const uint32_t h = MakeProbe(key).hash;
      uint32_t i = Mod(h, mod_n, n);
      const uint32_t step = 1 + Mod(h, mod_n1, n - 1);
      while (!IsEmpty(flags, i)) i = Next(i, step, n);
      ClearEmpty(flags, i);
      if (i < n_buckets_ && !IsEither(flags_, i)) {
        std::swap(key, keys_[i]);
        std::swap(val, vals_[i]);
        std::swap(prefix, prefixes_[i]);
        SetDeleted(flags_, i);
      } else {
        keys_[i] = key;
        vals_[i] = val;
        prefixes_[i] = prefix;
        break;
      }
    }
  }
  if (n_buckets_ > n) {
    keys_ = static_cast<char**>(std::realloc(keys_, n * sizeof(char*)));
    vals_ = static_cast<unsigned*>(std::realloc(vals_, n * sizeof(unsigned)));
    prefixes_ = static_cast<uint64_t*>(std::realloc(prefixes_, n * sizeof(uint64_t)));
  }
  std::free(flags_);
  flags_ = flags;
  n_buckets_ = n;
  mod_n_ = mod_n;
  mod_n1_ = mod_n1;
  n_occupied_ = size_;
  upper_bound_ = bound;
}

bool KHash::Insert(char* key, unsigned code) {
  const Probe probe = MakeProbe(key);
  int result = 0;
  const uint32_t b = Put(key, probe, &result);
  if (b == kAbsent || result == 0) return false;
  keys_[b] = strdup(key);
  vals_[b] = code;
  prefixes_[b] = probe.prefix;
  return true;
}

uint32_t KHash::BucketOf(const char* key) const { return Get(key, MakeProbe(key)); }

bool KHash::Find(char* key, unsigned* code) {
  const uint32_t b = Get(key, MakeProbe(key));
  // The code is written before absence is known; an absent key leaves 0 there.
  *code = b == kAbsent ? 0 : vals_[b];
  return b != kAbsent;
}

void KHash::EncodeChunk(char* const* values, unsigned first_new_code, unsigned* codes,
                        uint64_t count, char** new_values, unsigned* new_codes, uint64_t* new_count,
                        unsigned null_code, char* null_value) {
  EncodeChunk(values, first_new_code, codes, count, new_values, new_codes, new_count, null_code,
              null_value, nullptr);
}

void KHash::EncodeChunk(char* const* values, unsigned first_new_code, unsigned* codes,
                        uint64_t count, char** new_values, unsigned* new_codes, uint64_t* new_count,
                        unsigned null_code, char* null_value, DictStore* store) {
  // The null test looks at two bytes only; a one-byte null (the empty string) matches the
  // empty string alone, as no byte past a terminator is read.
  const bool test_nulls = !HashesNulls() && null_value != nullptr;
  const unsigned char null0 = test_nulls ? static_cast<unsigned char>(null_value[0]) : 0;
  const unsigned char null1 = null0 != 0 ? static_cast<unsigned char>(null_value[1]) : 0;
  unsigned next_code = first_new_code;
  View v{flags_, keys_, vals_, prefixes_, n_buckets_, mod_n_, mod_n1_};
  for (uint64_t i = 0; i < count; ++i) {
    char* s = values[i];
    const auto* u = reinterpret_cast<const unsigned char*>(s);
    if (test_nulls && u[0] == null0 && (null0 == 0 || u[1] == null1)) {
      codes[i] = null_code;
      continue;
    }
    const Probe probe = MakeProbe(s);
    const uint32_t b = Lookup(v, s, probe.hash, probe.length, probe.prefix);
    if (b != kAbsent) {
      codes[i] = v.vals[b];
      continue;
    }
    codes[i] = CodeAbsent(s, probe, &next_code, new_values, new_codes, new_count, store);
    v = View{flags_, keys_, vals_, prefixes_, n_buckets_, mod_n_, mod_n1_};
  }
  if (*new_count == 0 || store == nullptr || !store->IsOpen()) return;
  // Every entry of the new lists goes to the store in one batch; the codes stand whether
  // or not the store takes them.
  leveldb_writebatch_t* batch = leveldb_writebatch_create();
  for (uint64_t j = 0; j < *new_count; ++j) {
    const unsigned code = new_codes[j];
    const char value[4] = {static_cast<char>(code), static_cast<char>(code >> 8),
                           static_cast<char>(code >> 16), static_cast<char>(code >> 24)};
    leveldb_writebatch_put(batch, new_values[j], std::strlen(new_values[j]) + 1, value, 4);
  }
  char* error = nullptr;
  leveldb_write(store->db, store->write_options, batch, &error);
  if (error != nullptr) leveldb_free(error);
  leveldb_writebatch_destroy(batch);
}

unsigned KHash::CodeAbsent(char* value, const Probe& probe, unsigned* next_code, char** new_values,
                           unsigned* new_codes, uint64_t* new_count, DictStore* store) {
  if (pending_ != 0 && store != nullptr && store->IsOpen()) {
    size_t length = 0;
    char* error = nullptr;
    char* found =
        leveldb_get(store->db, store->read_options, value, probe.length + 1, &length, &error);
    if (error != nullptr) leveldb_free(error);  // a failed read counts as absent
    if (found != nullptr) {
      // The stored value's length is not checked; its first four bytes are the code.
      unsigned char bytes[4] = {0, 0, 0, 0};
      std::memcpy(bytes, found, length < 4 ? length : 4);
      const unsigned code =
          bytes[0] | bytes[1] << 8 | bytes[2] << 16 | static_cast<unsigned>(bytes[3]) << 24;
      leveldb_free(found);
      --pending_;
      Insert(value, code);
      return code;
    }
  }
  int result = 0;
  const uint32_t b = Put(value, probe, &result);
  if (b == kAbsent || result == 0) throw "Value wasn't inserted into hash table";
  keys_[b] = strdup(value);
  vals_[b] = *next_code;
  prefixes_[b] = probe.prefix;
  new_values[*new_count] = value;
  new_codes[*new_count] = *next_code;
  ++*new_count;
  return (*next_code)++;
}

}  // namespace qopci
