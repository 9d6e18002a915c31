// SimpleTypeDictChunker and DoubleDictChunker: the dictionary chunkers of fixed-width
// columns (the tree they complete is in dict_chunker_base.h).
//
// Keys are K values kept in a KhashHash<K,C>; the three member chunkers are
// SimpleTypeChunker<K> (new keys), SimpleTypeChunker<C> (their codes) and
// SimpleTypeChunker<C> (one code per row). Each chunk handed out is a KeyValueChunk<int>
// of the three members' chunks. Instances:
//   <char, char, char>, <short, short, short>, <int, int, int>: codes of the key's width,
//     which wrap past the largest value (the 128th char key gets -128, the nil code);
//   <int64_t, unsigned, unsigned>, and DoubleDictChunker (<double, unsigned, unsigned>,
//     whose nil is the host's double nil -DBL_MAX): 32-bit codes.
// Threading: one thread per chunker.
#ifndef QOPCI_CHUNKERS_DICT_CHUNKER_H_
#define QOPCI_CHUNKERS_DICT_CHUNKER_H_

#include <cstddef>
#include <cstdint>

#include "chunkers/dict_chunker_base.h"
#include "chunkers/double_chunker.h"

namespace qopci {

template <typename K, typename C, typename RC>
class SimpleTypeDictChunker : public DictChunker<K, C, RC> {
 public:
  // An empty dictionary; nil_as_key codes nil through it like any value. Throws "Chunk
  // size must not be negative".
  SimpleTypeDictChunker(int32_t chunk_size, bool nil_as_key);

  // Hands out a KeyValueChunk<int> of the new keys, their codes and the row codes since the
  // last hand-out; the caller owns it and its three members.
  BATChunk* TakeChunk() override;
  // Converts up to n source values (a source nil becomes the key nil) and codes them with
  // one InsertVals, as many as the row-code chunk has room for; returns how many. Chunks and
  // flags end as the same InsertValue calls would leave them.
  size_t InsertRun(const void* src, const char* type_name, size_t n, size_t stride,
                   const void* nil) override;
  // value is a row code as the column stores it.
  void SetPreviousValue(K value, bool is_nil) override;

  BATReader<K>* MakeKeyReader(const char* key_file, const char* heap_file,
                              uint64_t entry_count) override;
};

class DoubleDictChunker : public SimpleTypeDictChunker<double, unsigned, unsigned> {
 public:
  DoubleDictChunker(int32_t chunk_size, bool nil_as_key);

  const double* GetNilValue() override { return nil_chunker_.GetNilValue(); }

 private:
  DoubleChunker nil_chunker_;  // holds the host's double nil; never fed
};

extern template class SimpleTypeDictChunker<char, char, char>;
extern template class SimpleTypeDictChunker<short, short, short>;
extern template class SimpleTypeDictChunker<int, int, int>;
extern template class SimpleTypeDictChunker<int64_t, unsigned, unsigned>;
extern template class SimpleTypeDictChunker<double, unsigned, unsigned>;

}  // namespace qopci

#endif  // QOPCI_CHUNKERS_DICT_CHUNKER_H_
