#include "chunkers/decimal_chunker.h"

#include <cstring>

namespace qopci {
namespace {

int32_t WidthForPrecision(int32_t precision) {
  if (precision < 3) return 1;
  if (precision <= 4) return 2;
  if (precision <= 9) return 4;
  return 8;
}

}  // namespace

DecimalChunker::DecimalChunker(int32_t chunk_size, int32_t precision)
    : Chunker<int64_t>(chunk_size, 8),
      width_(WidthForPrecision(precision)),
      chunk_(nullptr),
      nil1_(0),
      nil2_(0),
      nil4_(0),
      nil8_(0) {
  if (chunk_size < 0) throw "Chunk size must not be negative";
  switch (width_) {
    case 1:
      nil_ = *nil1_.GetNilValue();
      break;
    case 2:
      nil_ = *nil2_.GetNilValue();
      break;
    case 4:
      nil_ = *nil4_.GetNilValue();
      break;
    default:
      nil_ = *nil8_.GetNilValue();
      break;
  }
  chunk_ = NewChunk();
}

DecimalChunker::~DecimalChunker() { delete chunk_; }

SimpleTypeChunk<char>* DecimalChunker::NewChunk() const {
  const uint64_t slots = static_cast<uint64_t>(chunk_size_);
  return new SimpleTypeChunk<char>(slots, slots * static_cast<uint64_t>(width_));
}

BATChunk* DecimalChunker::TakeChunk() {
  SimpleTypeChunk<char>* next = NewChunk();
  SimpleTypeChunk<char>* full = chunk_;
  chunk_ = next;
  return full;
}

bool DecimalChunker::InsertVal(int64_t value) {
  if (chunk_->IsFull()) return false;
  // Only the lowest byte reaches the slot; the slot's higher bytes are left as they are.
  chunk_->buffer_[static_cast<uint64_t>(chunk_->count_) * width_] = static_cast<char>(value & 0xFF);
  ++chunk_->count_;
  chunk_->size_ += static_cast<uint64_t>(width_);
  ++value_count_;
  return true;
}

size_t DecimalChunker::InsertRun(const void* src, const char* type_name, size_t n,
                                 size_t stride, const void* nil) {
  if (type_name != cast_name_ || !cast_direct_ || stride != sizeof(int64_t))
    return ChunkerBase::InsertRun(src, type_name, n, stride, nil);
  uint64_t nil_bits;
  std::memcpy(&nil_bits, nil, sizeof nil_bits);
  const uint64_t room = chunk_->capacity_ - static_cast<uint64_t>(chunk_->count_);
  const size_t k = n < room ? n : static_cast<size_t>(room);
  const char* p = static_cast<const char*>(src);
  char* slot = chunk_->buffer_ + static_cast<uint64_t>(chunk_->count_) * width_;
  for (size_t i = 0; i < k; i++, p += sizeof(int64_t), slot += width_) {
    uint64_t bits;
    std::memcpy(&bits, p, sizeof bits);
    const int64_t v = bits == nil_bits ? nil_ : static_cast<int64_t>(bits);
    *slot = static_cast<char>(v & 0xFF);  // the lowest byte only, as InsertVal stores it
  }
  chunk_->count_ += static_cast<int32_t>(k);
  chunk_->size_ += k * static_cast<uint64_t>(width_);
  value_count_ += k;
  return k;
}

}  // namespace qopci
