// HashBase<K,V>: the interface of a column's dictionary, a hash table from a value to its
// code.
//
// A dictionary chunker hands its table a whole batch of values at a time (EncodeChunk) and
// gets back one code per value plus the values seen for the first time with the codes they
// were given. When a column is appended to, the table is first filled from the column's
// dictionary files through two readers (LoadFromReaders). Nothing is ever removed.
// Threading: a table belongs to one chunker and is used by one thread at a time; no locks.
#ifndef QOPCI_DICTIONARIES_HASH_BASE_H_
#define QOPCI_DICTIONARIES_HASH_BASE_H_

#include <cstdint>

#include "readers/bat_reader.h"
#include "readers/text_log.h"

namespace qopci {

template <typename K, typename V>
class HashBase {
 public:
  // hashes_nulls: when false, the column's null value never enters the table and every null
  // input gets the null code its caller passes; when true, null is coded like any value.
  explicit HashBase(bool hashes_nulls) : hashes_nulls_(hashes_nulls) {}
  HashBase(const HashBase&) = delete;
  HashBase& operator=(const HashBase&) = delete;
  virtual ~HashBase() = default;

  // Keys of the table (for the string table: in memory plus those pending in its store).
  virtual uint64_t Size() = 0;
  bool HashesNulls() const { return hashes_nulls_; }

  // Codes values[0..count): codes[i] receives the code of values[i]. A value seen for the
  // first time gets the next code, counting up from first_new_code in input order, and is
  // appended with its code to new_values/new_codes at index *new_count, which advances.
  // REQUIRES: codes has count places; new_values and new_codes have room for count more
  // entries from *new_count on. Throws "Value wasn't inserted into hash table" (a const
  // char*) when a value can be neither found nor placed.
  virtual void EncodeChunk(const K* values, V first_new_code, V* codes, uint64_t count,
                           K* new_values, V* new_codes, uint64_t* new_count, V null_code,
                           K null_value) = 0;

  // Puts key with code; false (code unchanged) when key is already present.
  virtual bool Insert(K key, V code) = 0;
  // The code of key; false when absent.
  virtual bool Find(K key, V* code) = 0;

  // Fills the table from a dictionary's key reader and code reader, pair by pair, logging
  // its progress and any failure under the instance's prefix. Takes ownership of both
  // readers (closing and deleting them) in every path past their initialisation and the
  // empty checks, as documented in the implementation.
  bool LoadFromReaders(BATReader<K>* key_reader, BATReader<V>* value_reader, TextLog* log);

 protected:
  // The prefix of this instance's log lines, e.g. "HashBase<int, int>".
  virtual const char* LogPrefix() const = 0;

 private:
  const bool hashes_nulls_;
};

}  // namespace qopci

#endif  // QOPCI_DICTIONARIES_HASH_BASE_H_
