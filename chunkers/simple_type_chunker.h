// SimpleTypeChunker<T>: packs fixed-width values into SimpleTypeChunk<T> chunks.
//
// Instances: char, unsigned char, short, unsigned short, int, unsigned int, int64_t,
// uint64_t and double. The nil value is 2 to the power (8 * sizeof(T) - 1) converted to T:
// the smallest value of a signed type, the top bit alone of an unsigned one, and
// 9223372036854775808.0 for double (DoubleChunker stores the host's double nil instead).
// Threading: one thread per chunker.
#ifndef QOPCI_CHUNKERS_SIMPLE_TYPE_CHUNKER_H_
#define QOPCI_CHUNKERS_SIMPLE_TYPE_CHUNKER_H_

#include <cstdint>
#include <cstring>

#include "chunkers/bat_chunk.h"
#include "chunkers/chunker.h"

namespace qopci {

template <typename T>
class SimpleTypeChunker : public Chunker<T> {
 public:
  // Makes the first chunk at once. Throws "Chunk size must not be negative" for
  // chunk_size < 0.
  explicit SimpleTypeChunker(int32_t chunk_size);
  ~SimpleTypeChunker() override;  // destroys the chunk still held

  // Hands out the current chunk (the caller owns it) and starts an empty one.
  BATChunk* TakeChunk() override;

  // The common case, a value already stored as T under the last type name, is a plain
  // load; everything else goes through InsertValueSlow.
  bool InsertValue(const void* src, const char* type_name, bool is_nil) override {
    if (type_name == this->cast_name_ && this->cast_direct_ && !is_nil) [[likely]] {
      T v;
      std::memcpy(&v, src, sizeof v);
      return Store(v);
    }
    return InsertValueSlow(src, type_name, is_nil);
  }

  // Values stored exactly as T are copied in a tight loop; everything else goes value by
  // value through InsertValue.
  size_t InsertRun(const void* src, const char* type_name, size_t n, size_t stride,
                   const void* nil) override;
  bool IsChunkFull() override { return static_cast<uint64_t>(chunk_->count_) >= chunk_->capacity_; }
  uint64_t GetValueCount() override { return value_count_; }
  const T* GetNilValue() override { return &nil_; }

  // Returns false, storing nothing and leaving the statistics alone, when the chunk is
  // full, so that a caller who skips IsChunkFull cannot write past the chunk.
  bool InsertVal(T value) override { return Store(value); }

  // Throws "SimpleTypeChunker::InsertVals() : chunk overflow", storing nothing, when the
  // n values do not fit in the current chunk.
  bool InsertVals(T* values, int n) override;

  // The chunk being filled; the chunker keeps ownership.
  const SimpleTypeChunk<T>* CurrentChunk() const { return chunk_; }

 protected:
  // Resolves the cast when the type name changed, then stores the nil or the cast value.
  bool InsertValueSlow(const void* src, const char* type_name, bool is_nil);

  bool Store(T v) {
    SimpleTypeChunk<T>* c = chunk_;
    if (static_cast<uint64_t>(c->count_) >= c->capacity_) [[unlikely]]
      return false;
    this->UpdateStatistics(v);
    c->buffer_[c->count_++] = v;
    c->size_ += sizeof(T);
    ++value_count_;
    return true;
  }

  SimpleTypeChunk<T>* chunk_;  // owned until handed out
  uint64_t value_count_ = 0;   // values over all chunks
  T nil_;
};

extern template class SimpleTypeChunker<char>;
extern template class SimpleTypeChunker<unsigned char>;
extern template class SimpleTypeChunker<short>;
extern template class SimpleTypeChunker<unsigned short>;
extern template class SimpleTypeChunker<int>;
extern template class SimpleTypeChunker<unsigned int>;
extern template class SimpleTypeChunker<int64_t>;
extern template class SimpleTypeChunker<uint64_t>;
extern template class SimpleTypeChunker<double>;

}  // namespace qopci

#endif  // QOPCI_CHUNKERS_SIMPLE_TYPE_CHUNKER_H_
