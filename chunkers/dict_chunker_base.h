// The dictionary chunker tree: a column coded through a dictionary, a hash table from each
// distinct value to a small code, is written as three streams: the dictionary's new keys,
// the codes given to them, and one code per row. The chunkers here fill the three streams
// through three member chunkers while the dictionary hands out codes batch by batch.
//
//   DictChunkerInterface<K>       what the factory needs: the dictionary's size and reload
//   DictChunkerBaseBase<K,C,RC>   the dictionary, the member chunkers, entries one by one
//   DictChunkerBase<K,C,RC>       batch coding: one dictionary call per batch of rows
//   DictChunker<K,C,RC>           fixes the key type K, the dictionary's code type C and the
//                                 row-code type RC (equal to C in every instance)
// The concrete chunkers are in dict_chunker.h (fixed-width keys) and string_dict_chunker.h.
// Threading: a chunker and its dictionary belong to one thread at a time; no locks.
#ifndef QOPCI_CHUNKERS_DICT_CHUNKER_BASE_H_
#define QOPCI_CHUNKERS_DICT_CHUNKER_BASE_H_

#include <cstdint>
#include <list>
#include <memory>
#include <string>
#include <type_traits>

#include "chunkers/chunker.h"
#include "chunkers/simple_type_chunker.h"
#include "dictionaries/hash_base.h"
#include "readers/bat_reader.h"
#include "readers/text_log.h"

namespace qopci {

// Fills dictionary from an existing column's key and code readers, logging to report.
// Takes ownership of both readers, whatever the load does with them.
template <typename K, typename C>
bool LoadDictionaryFrom(HashBase<K, C>& dictionary, BATReader<K>* keys, BATReader<C>* codes,
                        TextLog* report);

template <typename K>
class DictChunkerInterface : public Chunker<K> {
 public:
  using Chunker<K>::Chunker;

  // Entries of the dictionary (for a string dictionary with a store: those pending in it
  // too). The next new key gets this plus 1.
  virtual uint64_t GetDictionarySize() = 0;
  // Fills the dictionary from an existing column's key file (with its heap_file for string
  // keys) and code file, entry_count entries of each, appending to report what went wrong.
  // True with nothing loaded for entry_count 0.
  virtual bool LoadDictionary(const char* key_file, const char* heap_file, const char* code_file,
                              uint64_t entry_count, TextLog* report) = 0;
  // The same with a report buffer of the chunker's own; see LastLoadReport.
  virtual bool LoadDictionary(const char* key_file, const char* heap_file, const char* code_file,
                              uint64_t entry_count) = 0;
  // The log text of the last LoadDictionary ("" when it logged nothing); owned by the
  // chunker, valid until the next load.
  virtual const char* LastLoadReport() = 0;
};

template <typename K, typename C, typename RC>
class DictChunkerBaseBase : public DictChunkerInterface<K> {
  static_assert(std::is_same_v<C, RC>, "row codes are the dictionary's codes");

 public:
  using KeyType = K;
  using CodeType = C;

  // Takes ownership of dictionary and key_chunker (made by the concrete chunker) and makes
  // the new-code and row-code chunkers with chunk_size. The key chunker's sorted flag is
  // cleared; the new-code chunker is marked as a dictionary's codes. The element size is
  // that of the row codes, the column's own file. Throws "Chunk size must not be negative".
  DictChunkerBaseBase(int32_t chunk_size, bool nil_as_key,
                      std::unique_ptr<HashBase<K, C>> dictionary,
                      std::unique_ptr<Chunker<K>> key_chunker);
  // Destroys the new-code chunker, the key chunker, the row-code chunker, the dictionary.
  ~DictChunkerBaseBase() override;

  // The row-code chunk: a batch never holds more new keys than rows.
  bool IsChunkFull() override;
  // The key, new-code and row-code chunkers, one per file; never this chunker itself.
  void AddToList(std::list<ChunkerBase*>& list) override;
  uint64_t GetValueCount() override { return row_count_; }  // rows coded
  const K* GetNilValue() override { return key_chunker_->GetNilValue(); }
  // The column's order is that of its code stream.
  bool IsSorted() override { return row_codes_->IsSorted(); }
  void ClearSorted() override { row_codes_->ClearSorted(); }
  bool IsKey() override { return row_codes_->IsKey(); }
  void ClearKey() override { row_codes_->ClearKey(); }
  // stored is the last row code already in the column.
  void SetPreviousValueFrom(const void* stored) override;

  uint64_t GetDictionarySize() override { return dictionary_->Size(); }
  bool LoadDictionary(const char* key_file, const char* heap_file, const char* code_file,
                      uint64_t entry_count, TextLog* report) override;
  bool LoadDictionary(const char* key_file, const char* heap_file, const char* code_file,
                      uint64_t entry_count) override;
  const char* LastLoadReport() override { return last_report_.c_str(); }

  virtual int32_t GetCodeSize() { return sizeof(C); }
  bool HasRowCodes() const { return row_codes_flag_; }
  // Readers over an existing dictionary's files; the caller owns them.
  virtual BATReader<K>* MakeKeyReader(const char* key_file, const char* heap_file,
                                      uint64_t entry_count) = 0;
  virtual BATReader<C>* MakeCodeReader(const char* code_file, uint64_t entry_count);

  // One row with the nil code, outside the dictionary; false when the row-code insert
  // failed. The chunker's no-nil flag is left alone.
  bool InsertNilCode();
  // Enters (key, code) and stores it as a new key and as one row; false at the first
  // failure (a key already present included).
  bool AddEntry(K key, C code);
  // The code of key; false when it is not in the dictionary.
  bool LookupCode(K key, C* code) { return dictionary_->Find(key, code); }

  bool NilAsKey() const { return nil_as_key_; }
  HashBase<K, C>& Dictionary() { return *dictionary_; }
  Chunker<K>& KeyChunker() { return *key_chunker_; }
  SimpleTypeChunker<C>& NewCodeChunker() { return *new_codes_; }
  SimpleTypeChunker<RC>& RowCodeChunker() { return *row_codes_; }

 protected:
  uint64_t row_count_ = 0;  // rows coded over the chunker's life
  bool nil_as_key_;         // nil is a key like any value; else it gets the nil code
  std::unique_ptr<HashBase<K, C>> dictionary_;
  std::unique_ptr<Chunker<K>> key_chunker_;           // the new keys
  std::unique_ptr<SimpleTypeChunker<C>> new_codes_;   // their codes
  std::unique_ptr<SimpleTypeChunker<RC>> row_codes_;  // one code per row
  bool row_codes_flag_ = true;                        // the row-code stream is produced
  std::string last_report_;                           // log of the last load
};

template <typename K, typename C, typename RC>
class DictChunkerBase : public DictChunkerBaseBase<K, C, RC> {
 public:
  using DictChunkerBaseBase<K, C, RC>::DictChunkerBaseBase;

  // A nil source with nil as a key clears the no-nil flag, as InsertNil does.
  bool InsertValue(const void* src, const char* type_name, bool is_nil) override;
  bool InsertVal(K value) override { return InsertVals(&value, 1); }
  // Codes the n values through one dictionary call: known values get their codes, new
  // ones the next codes in first-seen order (GetDictionarySize + 1 on, cut to C: char and
  // short codes wrap, unchecked), nil the nil code unless nil is a key. The new keys, their
  // codes and the row codes then go to the member chunkers. Throws the members' "chunk
  // overflow" (REQUIRES: n within the row-code chunk's free room) and the dictionary's
  // failure; entries placed before a failure stay in the dictionary.
  bool InsertVals(K* values, int n) override;
  // Nil as a key: clears the no-nil flag and codes the nil key. Otherwise InsertNilCode.
  bool InsertNil() override;

 protected:
  // The dictionary's batch call; the string dictionary adds its store.
  virtual void Encode(const K* values, C first_new_code, C* codes, uint64_t count, K* new_keys,
                      C* new_codes, uint64_t* new_count, C nil_code, K nil_key);
};

template <typename K, typename C, typename RC>
class DictChunker : public DictChunkerBase<K, C, RC> {
 public:
  using DictChunkerBase<K, C, RC>::DictChunkerBase;
};

extern template class DictChunkerBaseBase<char, char, char>;
extern template class DictChunkerBaseBase<short, short, short>;
extern template class DictChunkerBaseBase<int, int, int>;
extern template class DictChunkerBaseBase<int64_t, unsigned, unsigned>;
extern template class DictChunkerBaseBase<double, unsigned, unsigned>;
extern template class DictChunkerBaseBase<char*, unsigned, unsigned>;
extern template class DictChunkerBase<char, char, char>;
extern template class DictChunkerBase<short, short, short>;
extern template class DictChunkerBase<int, int, int>;
extern template class DictChunkerBase<int64_t, unsigned, unsigned>;
extern template class DictChunkerBase<double, unsigned, unsigned>;
extern template class DictChunkerBase<char*, unsigned, unsigned>;

}  // namespace qopci

#endif  // QOPCI_CHUNKERS_DICT_CHUNKER_BASE_H_
