// TesselTimestampDictChunker: the dictionary form of a timestamp column with levels.
//
// The dictionary holds one entry per distinct hour: its key and code are the hour's level
// number (see time_levels_chunker.h). Each new hour adds its five levels to the levels
// stream and the dictionary's size after it to the ordinal stream; every row's timestamp
// goes to a TesselTimestampChunker (timestamp and row levels), except the all-ones
// timestamp -1, which is counted as a row but not stored.
//
// It derives from DictChunkerInterface<int64_t> rather than from DictChunkerBaseBase: that
// base makes its key, new-code and row-code chunkers from the key type and codes rows in
// batches through the dictionary, while here the dictionary's keys (level numbers, int)
// differ from the chunker's values (timestamps), the rows are not coded and the members
// are other chunkers. Taking that in would change the base of every dictionary chunker.
// Threading: one thread per chunker and its dictionary.
#ifndef QOPCI_CHUNKERS_TIMESTAMP_DICT_CHUNKER_H_
#define QOPCI_CHUNKERS_TIMESTAMP_DICT_CHUNKER_H_

#include <cstddef>
#include <cstdint>
#include <list>
#include <memory>
#include <string>

#include "chunkers/dict_chunker_base.h"
#include "chunkers/simple_type_chunker.h"
#include "chunkers/time_levels_chunker.h"
#include "dictionaries/khash_hash.h"
#include "readers/text_log.h"

namespace qopci {

class TesselTimestampDictChunker : public DictChunkerInterface<int64_t> {
 public:
  // An empty dictionary made with nil_as_key. Throws "Chunk size must not be negative".
  TesselTimestampDictChunker(int32_t chunk_size, bool nil_as_key);

  // A TesselTimestampChunk(the timestamp stream's TesselTimestampChunk, the ordinal chunk,
  // the levels chunk); the caller owns it and everything it holds.
  BATChunk* TakeChunk() override;
  // The dictionary's five level streams, the ordinal stream, then the timestamp stream's
  // six: twelve descriptions, one per file.
  void AddToList(std::list<ChunkerBase*>& list) override;
  // True when the timestamp stream or the dictionary's levels can take no more.
  bool IsChunkFull() override;
  uint64_t GetValueCount() override { return row_count_; }  // rows, -1 timestamps included
  const int64_t* GetNilValue() override { return stamps_.GetNilValue(); }
  // The column's order is that of its timestamps.
  bool IsSorted() override { return stamps_.IsSorted(); }
  void ClearSorted() override { stamps_.ClearSorted(); }
  bool IsKey() override { return stamps_.IsKey(); }
  void ClearKey() override { stamps_.ClearKey(); }
  void SetPreviousValueFrom(const void* stored) override { stamps_.SetPreviousValueFrom(stored); }

  // Splits t into date and time (all four time parts 0x80000000 for nil milliseconds) and
  // inserts them with InsertDateTime. REQUIRES: !IsChunkFull().
  bool InsertVal(int64_t t) override;
  // "timestamp" and "lng" sources of stride 8 in one loop; others value by value. Stops at
  // a full chunk; ends exactly as the same InsertValue calls would.
  size_t InsertRun(const void* src, const char* type_name, size_t n, size_t stride,
                   const void* nil) override;
  // The level number of the seven parts (unsigned 32-bit arithmetic) and the timestamp
  // built as TimestampChunker::InsertDateTime does, inserted as a pair.
  bool InsertDateTime(int year, int month, int day, int hour, int minute, int second,
                      int millisecond);
  // One row: a level number not yet in the dictionary enters it with itself as code, its
  // levels (those of timestamp) go to the levels stream and the dictionary's new size to
  // the ordinal stream; then timestamp, unless it is -1, goes to the timestamp stream. The
  // key is the level number the entry stores for timestamp, which is `level` for a valid
  // date and time, so that a reloaded dictionary finds every key again; a nil row (nil
  // level) enters the dictionary only when nil is a key.
  bool InsertPair(int32_t level, int64_t timestamp);
  // InsertPair for n pairs in order, stopping at the first failure; true for n < 1.
  bool InsertPairs(const int32_t* levels, const int64_t* timestamps, int n);

  uint64_t GetDictionarySize() override { return dictionary_.Size(); }
  // key_file is the dictionary's level-number file and code_file its key-code file, both
  // of int; heap_file is unused.
  bool LoadDictionary(const char* key_file, const char* heap_file, const char* code_file,
                      uint64_t entry_count, TextLog* report) override;
  bool LoadDictionary(const char* key_file, const char* heap_file, const char* code_file,
                      uint64_t entry_count) override;
  const char* LastLoadReport() override { return last_report_.c_str(); }
  int32_t GetCodeSize() { return 4; }
  bool NilAsKey() const { return nil_as_key_; }

  // The members; the chunker keeps ownership.
  KhashHash<int, int>& Dictionary() { return dictionary_; }
  TesselTimeLevelsChunker& Levels() { return levels_; }
  TesselTimestampChunker& Timestamps() { return stamps_; }
  SimpleTypeChunker<int>& Ordinals() { return ordinals_; }

 private:
  // InsertPair of a row whose key, the level number its entry stores, is known.
  bool AddRow(int32_t level, int64_t timestamp);

  uint64_t row_count_ = 0;           // rows over the chunker's life
  bool nil_as_key_;                  // given to the dictionary
  KhashHash<int, int> dictionary_;   // level number -> itself
  TesselTimeLevelsChunker levels_;   // the levels of each new hour
  TesselTimestampChunker stamps_;    // every row's timestamp but -1
  SimpleTypeChunker<int> ordinals_;  // the dictionary's size after each new hour
  std::string last_report_;          // log of the last load
};

}  // namespace qopci

#endif  // QOPCI_CHUNKERS_TIMESTAMP_DICT_CHUNKER_H_
