#include "dictionaries/khash.h"

#include <cstdlib>
#include <cstring>

#include "dictionaries/khash_probe.h"

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

// Same head: the whole key for up to fifteen bytes (the head holds its zero byte), else
// strcmp settles it on the bytes after the head.
inline bool SameKey(const KHash::Slot& slot, const char* key, const char* s,
                    const KHash::Probe& p) {
  const bool head = ((slot.head[0] ^ p.head[0]) | (slot.head[1] ^ p.head[1])) == 0;
  return head && (p.length < 16 || std::strcmp(key + 16, s + 16) == 0);
}

// The table's fields a lookup reads, copied into locals once per chunk so that writing the
// codes does not force them to be read again.
struct View {
  const uint32_t* flags;
  char* const* keys;
  const KHash::Slot* slots;
  uint32_t n;
  uint64_t mod_n, mod_n1;
};

__attribute__((always_inline)) inline uint32_t Lookup(const View& v, const char* s,
                                                      const KHash::Probe& p) {
  constexpr uint32_t kNone = UINT32_MAX;
  if (v.n == 0) return kNone;
  uint32_t i = Mod(p.hash, v.mod_n, v.n);
  if (IsEmpty(v.flags, i)) return kNone;
  if (!IsDeleted(v.flags, i) && SameKey(v.slots[i], v.keys[i], s, p)) return i;
  const uint32_t last = i;
  const uint32_t step = 1 + Mod(p.hash, v.mod_n1, v.n - 1);
  for (;;) {
    i = Next(i, step, v.n);
    if (i == last || IsEmpty(v.flags, i)) return kNone;
    if (!IsDeleted(v.flags, i) && SameKey(v.slots[i], v.keys[i], s, p)) return i;
  }
}

inline uint64_t Load64(const char* s) {
  uint64_t w;
  std::memcpy(&w, s, 8);
  return w;
}

inline uint32_t Load32(const char* s) {
  uint32_t w;
  std::memcpy(&w, s, 4);
  return w;
}

// Bytes [from, from + count) of s (count 1 to 8, all inside the string or its zero) as a
// zero-padded little-endian word, read with at most two overlapping loads.
inline uint64_t Bytes(const char* s, uint32_t from, uint32_t count) {
  if (count >= 8) return Load64(s + from);
  if (count >= 4) {
    const uint64_t low = Load32(s + from), high = Load32(s + from + count - 4);
    return low | high << (8 * (count - 4));
  }
  uint64_t w = static_cast<unsigned char>(s[from]);
  if (count >= 2) w |= static_cast<uint64_t>(static_cast<unsigned char>(s[from + 1])) << 8;
  if (count >= 3) w |= static_cast<uint64_t>(static_cast<unsigned char>(s[from + 2])) << 16;
  return w;
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
  std::free(slots_);
}

uint64_t KHash::Size() { return size_ + pending_; }

__attribute__((always_inline)) inline KHash::Probe KHash::MakeProbe(const char* s) {
  Probe p{0, 0, {0, 0}};
  if (khash_probe::ShortProbe(s, &p.hash, &p.length, p.head)) return p;
  // Long strings and strings at a page end: byte by byte.
  p.hash = Extend(s[0]);
  if (p.hash != 0) {
    uint32_t n = 1;
    for (; s[n] != 0; ++n) p.hash = p.hash * 31u + Extend(s[n]);
    p.length = n;
  }
  // The head: bytes 0-15 with the zero byte and zeros after it; read from the string's
  // length + 1 bytes only.
  const uint32_t bytes = p.length + 1;
  if (bytes >= 16) {
    p.head[0] = Load64(s);
    p.head[1] = Load64(s + 8);
  } else if (bytes > 8) {
    p.head[0] = Load64(s);
    p.head[1] = Bytes(s, 8, bytes - 8);
  } else {
    p.head[0] = Bytes(s, 0, bytes);
  }
  return p;
}

uint32_t KHash::Get(const char* key, const Probe& probe) const {
  const View v{flags_, keys_, slots_, n_buckets_, mod_n_, mod_n1_};
  return Lookup(v, key, probe);
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
    while (!IsEmpty(flags_, i) &&
           (IsDeleted(flags_, i) || !SameKey(slots_[i], keys_[i], key, probe))) {
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
    slots_ = static_cast<Slot*>(std::realloc(slots_, n * sizeof(Slot)));
  }
  const uint64_t mod_n = Reciprocal(n), mod_n1 = Reciprocal(n - 1);
  for (uint32_t j = 0; j != n_buckets_; ++j) {
    if (IsEither(flags_, j)) continue;
    char* key = keys_[j];
    Slot slot = slots_[j];
    SetDeleted(flags_, j);
    for (;;) {
      const uint32_t h = MakeProbe(key).hash;
      uint32_t i = Mod(h, mod_n, n);
      const uint32_t step = 1 + Mod(h, mod_n1, n - 1);
      while (!IsEmpty(flags, i)) i = Next(i, step, n);
      ClearEmpty(flags, i);
      if (i < n_buckets_ && !IsEither(flags_, i)) {
        std::swap(key, keys_[i]);
        std::swap(slot, slots_[i]);
        SetDeleted(flags_, i);
      } else {
        keys_[i] = key;
        slots_[i] = slot;
        break;
      }
    }
  }
  if (n_buckets_ > n) {
    keys_ = static_cast<char**>(std::realloc(keys_, n * sizeof(char*)));
    slots_ = static_cast<Slot*>(std::realloc(slots_, n * sizeof(Slot)));
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
  slots_[b] = Slot{{probe.head[0], probe.head[1]}, code};
  return true;
}

uint32_t KHash::BucketOf(const char* key) const { return Get(key, MakeProbe(key)); }

bool KHash::Find(char* key, unsigned* code) {
  const uint32_t b = Get(key, MakeProbe(key));
  // The code is written before absence is known; an absent key leaves 0 there.
  *code = b == kAbsent ? 0 : slots_[b].val;
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
  View v{flags_, keys_, slots_, n_buckets_, mod_n_, mod_n1_};
  // Strings are hashed a block ahead of their lookups: hashing has no hard-to-predict
  // branch, so a block's hashes overlap, and a mispredicted lookup no longer throws away
  // the next string's hash.
  constexpr uint64_t kBlock = 8;
  Probe probes[kBlock];
  for (uint64_t at = 0; at < count; at += kBlock) {
    const uint64_t n = count - at < kBlock ? count - at : kBlock;
    for (uint64_t k = 0; k < n; ++k) probes[k] = MakeProbe(values[at + k]);
    for (uint64_t k = 0; k < n; ++k) {
      const uint64_t i = at + k;
      char* s = values[i];
      const auto* u = reinterpret_cast<const unsigned char*>(s);
      if (test_nulls && u[0] == null0 && (null0 == 0 || u[1] == null1)) {
        codes[i] = null_code;
        continue;
      }
      const uint32_t b = Lookup(v, s, probes[k]);
      if (b != kAbsent) {
        codes[i] = v.slots[b].val;
        continue;
      }
      codes[i] = CodeAbsent(s, probes[k], &next_code, new_values, new_codes, new_count, store);
      v = View{flags_, keys_, slots_, n_buckets_, mod_n_, mod_n1_};
    }
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
  slots_[b] = Slot{{probe.head[0], probe.head[1]}, *next_code};
  new_values[*new_count] = value;
  new_codes[*new_count] = *next_code;
  ++*new_count;
  return (*next_code)++;
}

}  // namespace qopci
