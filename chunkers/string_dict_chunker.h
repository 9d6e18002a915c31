// StringDictChunker: the dictionary chunker of string columns.
//
// Strings are coded with 32-bit codes through a KHash, which may consult and feed a
// persistent DictStore. Each new string is written once to the dictionary's key heap through
// an inner StringChunker; the codes of the new strings and the row codes go to two
// SimpleTypeChunker<unsigned>. Each chunk handed out is a KeyValueChunk<unsigned> of the
// inner chunker's StringChunk, the new-code chunk and the row-code chunk. Neither code
// stream claims to be sorted: the host checks string columns itself.
// Threading: one thread per chunker; the store belongs to it alone.
#ifndef QOPCI_CHUNKERS_STRING_DICT_CHUNKER_H_
#define QOPCI_CHUNKERS_STRING_DICT_CHUNKER_H_

#include <cstdint>
#include <string>

#include "chunkers/dict_chunker_base.h"
#include "chunkers/string_chunker.h"
#include "dictionaries/dict_store.h"
#include "dictionaries/khash.h"

namespace qopci {

class StringDictChunker : public DictChunker<char*, unsigned, unsigned>, public StringChunkerBase {
 public:
  // chunk_size, heap_parameter, heap_file and existing_heap_size make the key heap as for
  // StringChunker (heap_file the dictionary's existing key heap, existing_heap_size its
  // bytes; 0 for a new dictionary). initial_capacity sizes the in-memory table. store_dir
  // is kept for the caller (StoreDir); the store is opened by OpenStore only. Throws
  // "Chunk size must not be negative", or the heap's load failures.
  StringDictChunker(int32_t chunk_size, int32_t heap_parameter, const char* heap_file,
                    uint64_t existing_heap_size, int32_t initial_capacity, const char* store_dir,
                    bool nil_as_key);
  // Closes the store, then destroys the members as every dictionary chunker does.
  ~StringDictChunker() override;

  // Opens the store at dir: on success the dictionary counts pending_count entries that
  // are in the store but not yet in memory, and new strings are written to it; on failure
  // the store is closed again and false is returned (the dictionary works from memory).
  bool OpenStore(const char* dir, uint64_t pending_count);
  bool IsStoreOpen() const { return store_.IsOpen(); }
  const std::string& StoreDir() const { return store_dir_; }

  // Hands out a KeyValueChunk<unsigned> of the key heap's StringChunk, the new codes and the
  // row codes since the last hand-out; the caller owns it and its three members.
  BATChunk* TakeChunk() override;
  // The key heap's current tail width (1, 2, 4 or 8).
  int32_t GetCodeSize() override { return keys_->Heap().GetOffsetWidth(); }
  // A StringReader over the key tail and heap, at the key heap's width.
  BATReader<char*>* MakeKeyReader(const char* key_file, const char* heap_file,
                                  uint64_t entry_count) override;

  StringChunker& Keys() { return *keys_; }
  KHash& Table() { return *table_; }

 protected:
  void Encode(char* const* values, unsigned first_new_code, unsigned* codes, uint64_t count,
              char** new_keys, unsigned* new_codes, uint64_t* new_count, unsigned nil_code,
              char* nil_key) override;

 private:
  StringChunker* keys_;  // the key chunker, owned by the base
  KHash* table_;         // the dictionary, owned by the base
  DictStore store_;      // unopened until OpenStore succeeds
  std::string store_dir_;
};

}  // namespace qopci

#endif  // QOPCI_CHUNKERS_STRING_DICT_CHUNKER_H_
