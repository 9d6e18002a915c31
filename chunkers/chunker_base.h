// ChunkerBase: the type-free face of every chunker.
//
// A chunker turns the values of one result column into chunks (bat_chunk.h) while it keeps
// the column's statistics (sorted, strictly ascending, free of nils). The copy manager
// drives any chunker through this interface; typed inserts live in Chunker<T> (chunker.h).
// Threading: a chunker belongs to one thread at a time and carries no lock.
#ifndef QOPCI_CHUNKERS_CHUNKER_BASE_H_
#define QOPCI_CHUNKERS_CHUNKER_BASE_H_

#include <cstddef>
#include <cstdint>
#include <list>

#include "chunkers/bat_chunk.h"

namespace qopci {

// The host's value services, handed to every chunker once it is made.
using TypeIndexFn = int (*)(const char*);                     // type number of a type name
using FormatFn = int (*)(int, const void*, char**, size_t*);  // value to text (kept, unused)
using FromStringFn = void* (*)(const char*, const char*);     // (type name, text) -> new value
using ReleaseFn = void (*)(void*);                            // frees what FromStringFn made

class ChunkerBase {
 public:
  explicit ChunkerBase(int32_t element_size) : element_size_(element_size) {}
  ChunkerBase(const ChunkerBase&) = delete;
  ChunkerBase& operator=(const ChunkerBase&) = delete;
  virtual ~ChunkerBase();

  // Stores the host's value services and, on the first call for the chunker's value type,
  // fills the type's cast table. REQUIRES: called before the first InsertValue, and before
  // chunkers of this value type are used from more than one thread.
  virtual void InitCastTable(TypeIndexFn type_index, FormatFn format, FromStringFn from_string,
                             ReleaseFn release) = 0;

  // Hands out the current chunk and starts an empty one; the caller owns the result.
  virtual BATChunk* TakeChunk() = 0;

  // Converts the value at src, of the host type named type_name, and stores it; stores
  // the nil value instead when is_nil. Throws const char* when the type cannot be cast.
  // REQUIRES: !IsChunkFull(); type_name stays valid while it is the last name passed in.
  virtual bool InsertValue(const void* src, const char* type_name, bool is_nil) = 0;

  // Stores up to n consecutive source values of the host type named type_name, stride
  // bytes apart, exactly as that many InsertValue calls would, each with the nil flag "its
  // stride bytes equal those at nil". Stops once the chunk is full; returns how many it
  // stored. REQUIRES: !IsChunkFull(), or nothing is stored.
  virtual size_t InsertRun(const void* src, const char* type_name, size_t n, size_t stride,
                           const void* nil);
  virtual bool IsChunkFull() = 0;
  virtual bool HasNoNils() = 0;

  // Appends the chunkers whose chunks go to a column file, one per file; the list does not
  // own them. Throws "list<T> too long" when the list is at its maximum size.
  virtual void AddToList(std::list<ChunkerBase*>& list) = 0;

  virtual uint64_t GetValueCount() = 0;  // values stored over the chunker's life
  virtual bool IsSorted() = 0;
  virtual void ClearSorted() = 0;
  virtual bool IsKey() = 0;  // strictly ascending so far
  virtual void ClearKey() = 0;

  // Clears the no-nil flag and stores the nil value.
  virtual bool InsertNil() = 0;

  // Seeds the statistics with the last value the target column already holds, given as
  // the element_size bytes of its tail, so that the flags of an appended column cover the
  // join of old and new values. Chunkers that keep no statistics ignore it.
  virtual void SetPreviousValueFrom(const void* stored) { (void)stored; }

  int32_t ElementSize() const { return element_size_; }
  bool IsDictCodes() const { return dict_codes_; }

  int32_t element_size_;     // bytes of one value in the column file
  bool dict_codes_ = false;  // set on the new-codes chunker of a dictionary chunker
};

}  // namespace qopci

#endif  // QOPCI_CHUNKERS_CHUNKER_BASE_H_
