// StringChunker: stores each row's string in the column's StringHeap and packs the tail
// values it gets back into StringChunks.
//
// The tail width follows the heap: it starts at 1 (or the existing heap's width) and
// doubles when a value no longer fits, never shrinking; 1- and 2-byte values are reduced by
// 256 (tail values 256-511 still fit width 1). Every value goes to the offset streams of its
// width and of every wider width, so a chunk can be written at whatever width the tail has
// reached. A handed-out chunk owns copies of the heap bytes it carries (see string_heap.h).
// The sorted and key flags are false from the start: the host checks string columns itself.
// Threading: one thread at a time; handed-out chunks may be written on another thread.
#ifndef QOPCI_CHUNKERS_STRING_CHUNKER_H_
#define QOPCI_CHUNKERS_STRING_CHUNKER_H_

#include <cstdint>
#include <memory>

#include "chunkers/bat_chunk.h"
#include "chunkers/chunker.h"
#include "chunkers/simple_type_chunker.h"
#include "writers/string_heap.h"

namespace qopci {

// A second base of the string chunkers; no behaviour of its own.
class StringChunkerBase {
 public:
  virtual ~StringChunkerBase() = default;
};

class StringChunker : public Chunker<char*>, public StringChunkerBase {
 public:
  // heap_parameter is the expected bytes per string: 501 and above count as 500, below 1 as
  // 20. heap_file and existing_heap_size name the column's heap as it is on disk (0 for a
  // new column). Throws "Chunk size must not be negative", or the heap's load failures.
  StringChunker(int32_t chunk_size, int32_t heap_parameter, const char* heap_file,
                uint64_t existing_heap_size);
  ~StringChunker() override;  // destroys the chunk and offset chunks still held

  // Hands out the current chunk (the caller owns it, with its members and heap bytes) with
  // the width the heap's current size needs, and starts an empty one.
  BATChunk* TakeChunk() override;
  // True when any offset stream's chunk is full.
  bool IsChunkFull() override;
  uint64_t GetValueCount() override { return string_count_; }
  char* const* GetNilValue() override { return &nil_; }
  // Strings are compared by the host, not here.
  void SetPreviousValue(char* value, bool is_nil) override;
  // InsertString with the offset discarded.
  bool InsertVal(char* value) override;
  // InsertStrings through a scratch array of n offsets.
  bool InsertVals(char** values, int n) override;
  // Clears HasNoNils and stores the host's nil string (0x80 0x00).
  bool InsertNil() override;

  // Stores s (the nil string clears HasNoNils whichever way it comes) and reports its tail
  // value in *offset. Throws "String heap would pass 4 GiB" or "StringHeap out of memory",
  // storing nothing; returns false, storing nothing, when the chunk is full.
  virtual bool InsertString(const char* s, uint32_t* offset);
  // InsertString for each of n strings, offsets to consecutive places; true for n < 1.
  virtual bool InsertStrings(char** strings, uint32_t* offsets, int n);

  int32_t HeapParameter() const { return heap_parameter_; }
  StringHeap& Heap() { return *heap_; }

 private:
  StringChunk* NewChunk() const { return new StringChunk(chunk_size_, nullptr); }

  StringChunk* chunk_;  // owned until handed out
  int32_t heap_parameter_;
  SimpleTypeChunker<unsigned char> offsets1_;   // values of width 1 (reduced by 256)
  SimpleTypeChunker<unsigned short> offsets2_;  // values of width 2 (reduced by 256)
  SimpleTypeChunker<unsigned int> offsets4_;    // values of width 4
  SimpleTypeChunker<unsigned int> offsets8_;    // all values, for a tail of width 8
  std::unique_ptr<StringHeap> heap_;
  uint64_t string_count_ = 0;  // strings over the chunker's life
  char* nil_;                  // the host's nil string
};

}  // namespace qopci

#endif  // QOPCI_CHUNKERS_STRING_CHUNKER_H_
