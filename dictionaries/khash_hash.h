// KhashHash<K,V>: the dictionary of a fixed-width column, an open-addressing hash table
// from a numeric value to its code.
//
// Buckets are a power of two (at least 4 once anything is in the table); a key is found by
// double hashing from its start bucket. Each bucket has two flag bits (empty, deleted), kept
// apart from the keys and codes. The table grows to twice its buckets when the next insertion
// would take it past 77% full, rehashing in place without a second key array. Keys are
// compared by their bits, so the double keys 0.0 and -0.0 are distinct. Nothing is removed.
// Instances: <char,char>, <short,short>, <int,int>, <int64_t,unsigned>, <double,unsigned>.
// Threading: a table belongs to one chunker and is used by one thread at a time; no locks.
#ifndef QOPCI_DICTIONARIES_KHASH_HASH_H_
#define QOPCI_DICTIONARIES_KHASH_HASH_H_

#include <cstdint>

#include "dictionaries/hash_base.h"

namespace qopci {

template <typename K, typename V>
class KhashHash : public HashBase<K, V> {
 public:
  explicit KhashHash(bool hashes_nulls);
  ~KhashHash() override;

  uint64_t Size() override { return size_; }
  void EncodeChunk(const K* values, V first_new_code, V* codes, uint64_t count, K* new_values,
                   V* new_codes, uint64_t* new_count, V null_code, K null_value) override;
  bool Insert(K key, V code) override;
  // Leaves *code untouched when key is absent.
  bool Find(K key, V* code) override;

  // The hash of key: the key widened to 64 bits with its sign (a double's bit pattern),
  // folded to 32 bits.
  static uint32_t Hash(K key);

  // For tests and diagnostics.
  uint32_t BucketCount() const { return n_buckets_; }
  uint32_t UpperBound() const { return upper_bound_; }
  // The bucket holding key, or -1 when it is absent.
  int64_t BucketOf(K key) const;

 protected:
  const char* LogPrefix() const override;

 private:
  // Results of Put.
  enum PutResult { kPresent = 0, kWasEmpty = 1, kWasDeleted = 2 };

  // Finds or places key and returns its bucket, with how it was found in *result. A new key
  // is marked live but its code is left for the caller to store. Returns n_buckets_ when the
  // key can be neither found nor placed.
  uint32_t Put(K key, PutResult* result);
  // What every put does first: grows the table when the occupied buckets reached the bound.
  void GrowIfFull();
  // Grows (or rehashes at the same size) to hold at least requested buckets; does nothing
  // when the present keys would not fit under the new bound.
  void Resize(uint32_t requested);

  uint32_t n_buckets_ = 0;     // 0 or a power of two
  uint32_t size_ = 0;          // live keys
  uint32_t n_occupied_ = 0;    // live plus deleted buckets
  uint32_t upper_bound_ = 0;   // n_occupied_ at which the next insertion grows the table
  uint32_t* flags_ = nullptr;  // two bits per bucket: 2 empty, 1 deleted, 0 live
  K* keys_ = nullptr;          // n_buckets_ keys (malloc/realloc)
  V* vals_ = nullptr;          // n_buckets_ codes
};

extern template class KhashHash<char, char>;
extern template class KhashHash<short, short>;
extern template class KhashHash<int, int>;
extern template class KhashHash<int64_t, unsigned int>;
extern template class KhashHash<double, unsigned int>;

}  // namespace qopci

#endif  // QOPCI_DICTIONARIES_KHASH_HASH_H_
