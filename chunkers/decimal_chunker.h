// DecimalChunker: packs decimal values, given as scaled 64-bit integers, into a byte chunk
// whose slot width (1, 2, 4 or 8 bytes) follows the decimal's precision.
//
// Storing writes only the lowest byte of each value into its slot; the slot's other bytes
// keep what they held (zero, as every chunk starts zeroed). The element size it reports is
// 8 whatever the slot width. It keeps no sorted or key statistics: IsSorted and IsKey stay
// as they started unless cleared. Threading: one thread per chunker.
#ifndef QOPCI_CHUNKERS_DECIMAL_CHUNKER_H_
#define QOPCI_CHUNKERS_DECIMAL_CHUNKER_H_

#include <cstdint>

#include "chunkers/bat_chunk.h"
#include "chunkers/chunker.h"
#include "chunkers/simple_type_chunker.h"

namespace qopci {

class DecimalChunker : public Chunker<int64_t> {
 public:
  // Slot width by precision: below 3 one byte, 3-4 two, 5-9 four, 10 and more eight.
  // Throws "Chunk size must not be negative" for chunk_size < 0.
  DecimalChunker(int32_t chunk_size, int32_t precision);
  ~DecimalChunker() override;  // destroys the chunk still held

  // Hands out the current chunk (the caller owns it): a SimpleTypeChunk<char> whose
  // capacity counts slots, count_ values and size_ bytes (count_ * width).
  BATChunk* TakeChunk() override;
  bool IsChunkFull() override { return chunk_->IsFull(); }
  uint64_t GetValueCount() override { return value_count_; }

  // The nil of a signed integer of the slot width, widened to 64 bits.
  const int64_t* GetNilValue() override { return &nil_; }

  // Returns false and stores nothing when the chunk is full.
  bool InsertVal(int64_t value) override;
  // 64-bit sources are stored in a tight loop; others go value by value.
  size_t InsertRun(const void* src, const char* type_name, size_t n, size_t stride,
                   const void* nil) override;

  int32_t StorageWidth() const { return width_; }

 private:
  SimpleTypeChunk<char>* NewChunk() const;

  int32_t width_;                 // bytes per stored value: 1, 2, 4 or 8
  SimpleTypeChunk<char>* chunk_;  // owned until handed out
  uint64_t value_count_ = 0;      // values over all chunks
  SimpleTypeChunker<char> nil1_;  // empty chunkers of each width, for their nil values
  SimpleTypeChunker<short> nil2_;
  SimpleTypeChunker<int> nil4_;
  SimpleTypeChunker<int64_t> nil8_;
  int64_t nil_;
};

}  // namespace qopci

#endif  // QOPCI_CHUNKERS_DECIMAL_CHUNKER_H_
