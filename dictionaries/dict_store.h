// DictStore: the optional persistent store of a string dictionary, a LevelDB database that
// maps every string of the dictionary (its bytes and the terminating zero) to its code (four
// bytes, little-endian).
//
// The store lets a string dictionary code a chunk without first loading every dictionary
// string into memory (see KHash). The library opens existing stores only; the qopci tool
// creates, fills, counts and repairs them through the free functions below. Every store is
// ordered by the comparator "incaseSensitive": Latin letters folded first, bytes second, so
// that keys differing only in case sort next to each other.
// Threading: a store belongs to one chunker and is used by one thread at a time.
#ifndef QOPCI_DICTIONARIES_DICT_STORE_H_
#define QOPCI_DICTIONARIES_DICT_STORE_H_

#include <leveldb/c.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

namespace qopci {

struct DictStore {
  DictStore() = default;
  DictStore(const DictStore&) = delete;
  DictStore& operator=(const DictStore&) = delete;
  ~DictStore() { Close(); }

  // Creates every handle and opens the existing store at dir (it is never created here).
  // On failure the error text is released, the handles stay created and false is returned;
  // the caller then calls Close.
  bool Open(const char* dir);
  // Releases each handle that is not null, database first, and nulls it. Safe to repeat.
  void Close();
  bool IsOpen() const { return db != nullptr; }

  leveldb_options_t* options = nullptr;
  leveldb_comparator_t* comparator = nullptr;
  leveldb_t* db = nullptr;  // null while the store is not open
  leveldb_readoptions_t* read_options = nullptr;
  leveldb_cache_t* cache = nullptr;
  leveldb_writeoptions_t* write_options = nullptr;
};

// The store's key order: Latin case folded first, then bytes, over the first key's length
// (every key ends with its zero byte, so the order is decided by then). Negative when a
// sorts before b. Exposed for tests and tools.
int DictStoreCompare(const char* a, size_t a_length, const char* b, size_t b_length);

// The helpers below are for the qopci tool; each returns false with a reason in *error.

// Creates an empty store at dir (its parent must exist) with the options Open uses; fails
// when a store is already there.
bool CreateDictStore(const char* dir, std::string* error);
// Counts the entries of an open store into *count.
bool DictStoreCount(DictStore* store, uint64_t* count, std::string* error);
// Writes key (without its zero byte, which the entry adds) with code, replacing any entry.
bool DictStorePut(DictStore* store, std::string_view key, uint32_t code, std::string* error);
// Calls visit(key, code) for every entry in key order (key without its zero byte); stops
// early, returning true, when visit returns false; fails on an entry that is not a string
// with a four-byte code.
bool DictStoreForEach(DictStore* store,
                      const std::function<bool(std::string_view key, uint32_t code)>& visit,
                      std::string* error);
// Removes the entry of key (without its zero byte); removing an absent key succeeds.
bool DictStoreDelete(DictStore* store, std::string_view key, std::string* error);

}  // namespace qopci

#endif  // QOPCI_DICTIONARIES_DICT_STORE_H_
