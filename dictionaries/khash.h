// KHash: the string dictionary's hash table, from a zero-terminated string to its code, with
// an optional persistent store (DictStore) behind it.
//
// An open-addressing table with prime bucket counts, the X31 string hash, double hashing
// and two flag bits per bucket; it grows in place at a load of 0.77 and never removes a key.
// Keys are private copies made at insertion and freed with the table. When a store is open
// and entries are pending (strings the store holds that memory has not met yet), a string
// missing from memory is looked up in the store before it is given a new code; every new
// string of a chunk is written to an open store in one batch.
// Threading: a table belongs to one chunker and is used by one thread at a time.
#ifndef QOPCI_DICTIONARIES_KHASH_H_
#define QOPCI_DICTIONARIES_KHASH_H_

#include <cstddef>
#include <cstdint>

#include "dictionaries/dict_store.h"
#include "dictionaries/hash_base.h"

namespace qopci {

class KHash : public HashBase<char*, unsigned int> {
 public:
  // Internal layout (public only for the implementation's helpers). What a lookup needs of a
  // string, computed once: its hash, length and first sixteen bytes (zero-padded), which buckets
  // are compared by before their strings.
  struct Probe {
    uint32_t hash;
    uint32_t length;
    uint64_t head[2];
  };
  // A bucket's code with its key's first sixteen bytes, kept together so that most
  // comparisons never touch the key copy. Equal heads holding a zero byte are equal keys.
  struct Slot {
    uint64_t head[2];
    unsigned val;
  };

  // Sizes the table at once for initial_capacity keys; the pending count starts at 0.
  KHash(uint32_t initial_capacity, bool hashes_nulls);
  ~KHash() override;

  // Keys in memory plus the store entries still pending.
  uint64_t Size() override;

  // The store form with no store: everything is coded in memory.
  void EncodeChunk(char* const* values, unsigned first_new_code, unsigned* codes, uint64_t count,
                   char** new_values, unsigned* new_codes, uint64_t* new_count, unsigned null_code,
                   char* null_value) override;
  // As above, consulting store (which may be unopened) for strings missing from memory
  // while entries are pending; a string found there keeps its stored code and is not a new
  // value. Then, when *new_count is not 0, the new lists from index 0 go to an open store in
  // one batch (a failed write is ignored: the codes stand). A null test compares only the
  // first two bytes with null_value's. new_values[i] point at the callers' strings (not
  // copies). Throws "Value wasn't inserted into hash table" when a string can be neither
  // found nor placed.
  void EncodeChunk(char* const* values, unsigned first_new_code, unsigned* codes, uint64_t count,
                   char** new_values, unsigned* new_codes, uint64_t* new_count, unsigned null_code,
                   char* null_value, DictStore* store);

  // Copies key into the table with code; false (code unchanged) when key is present.
  bool Insert(char* key, unsigned code) override;
  // Looks in memory only (never in the store); false when absent, and then *code holds an
  // unspecified value.
  bool Find(char* key, unsigned* code) override;

  // Store entries not yet met in memory; set once the store is open.
  void SetPendingCount(uint64_t pending) { pending_ = pending; }
  uint64_t PendingCount() const { return pending_; }

  // For tests.
  uint32_t BucketCount() const { return n_buckets_; }
  uint32_t UpperBound() const { return upper_bound_; }
  // The bucket holding key, or UINT32_MAX.
  uint32_t BucketOf(const char* key) const;

 protected:
  const char* LogPrefix() const override { return "HashBase<char *, var_t>"; }

 private:
  static constexpr uint32_t kAbsent = UINT32_MAX;  // no bucket

  static Probe MakeProbe(const char* key);

  // Bucket of key, or kAbsent.
  uint32_t Get(const char* key, const Probe& probe) const;
  // Puts key; *result 0 present, 1 placed in an empty bucket, 2 in a deleted one; returns
  // the bucket or kAbsent (neither found nor placed). Does not store the key itself.
  uint32_t Put(const char* key, const Probe& probe, int* result);
  // Grows or rehashes to the smallest prime bucket count above requested.
  void Resize(uint32_t requested);
  // Codes a string missing from memory: from the store when it holds it, else anew.
  unsigned CodeAbsent(char* value, const Probe& probe, unsigned* next_code, char** new_values,
                      unsigned* new_codes, uint64_t* new_count, DictStore* store);

  uint32_t n_buckets_ = 0;
  uint32_t size_ = 0;          // live keys
  uint32_t n_occupied_ = 0;    // live plus deleted buckets
  uint32_t upper_bound_ = 0;   // n_occupied_ at which the next put grows the table
  uint32_t* flags_ = nullptr;  // two bits per bucket: 2 empty, 1 deleted, 0 live
  char** keys_ = nullptr;      // owned copies
  Slot* slots_ = nullptr;      // codes, with each key's length and head
  uint64_t mod_n_ = 0;         // reciprocals for h mod n and h mod (n - 1)
  uint64_t mod_n1_ = 0;
  uint64_t pending_ = 0;
};

}  // namespace qopci

#endif  // QOPCI_DICTIONARIES_KHASH_H_
