#include "chunkers/simple_type_chunker.h"

#include <cstring>
#include <type_traits>

#include "chunkers/run_loops.h"

namespace qopci {
namespace {

uint64_t CheckedCapacity(int32_t chunk_size) {
  if (chunk_size < 0) throw "Chunk size must not be negative";
  return static_cast<uint64_t>(chunk_size);
}

}  // namespace

template <typename T>
SimpleTypeChunker<T>::SimpleTypeChunker(int32_t chunk_size)
    : Chunker<T>(chunk_size),
      chunk_(new SimpleTypeChunk<T>(CheckedCapacity(chunk_size))),
      nil_(static_cast<T>(uint64_t{1} << (8 * sizeof(T) - 1))) {}

template <typename T>
SimpleTypeChunker<T>::~SimpleTypeChunker() {
  delete chunk_;
}

template <typename T>
BATChunk* SimpleTypeChunker<T>::TakeChunk() {
  SimpleTypeChunk<T>* next = new SimpleTypeChunk<T>(static_cast<uint64_t>(this->chunk_size_));
  SimpleTypeChunk<T>* full = chunk_;
  chunk_ = next;
  return full;
}

template <typename T>
bool SimpleTypeChunker<T>::InsertValueSlow(const void* src, const char* type_name, bool is_nil) {
  if (type_name != this->cast_name_) this->ResolveCast(type_name);
  if (is_nil) return this->InsertVal(*this->GetNilValue());
  T v;
  if (this->cast_direct_)
    std::memcpy(&v, src, sizeof v);
  else
    v = this->cast_(src, this);
  bool ok = Store(v);
  this->ReleaseTemporary();
  return ok;
}

template <typename T>
size_t SimpleTypeChunker<T>::InsertRun(const void* src, const char* type_name, size_t n,
                                       size_t stride, const void* nil) {
  if (type_name != this->cast_name_) this->ResolveCast(type_name);
  const bool direct = this->cast_direct_ && stride == sizeof(T);
  if (!direct && (this->cast_run_ == nullptr || stride != this->cast_width_))
    return ChunkerBase::InsertRun(src, type_name, n, stride, nil);
  const T stored_nil = *this->GetNilValue();
  SimpleTypeChunk<T>* c = chunk_;
  const uint64_t room = c->capacity_ - static_cast<uint64_t>(c->count_);
  const size_t k = n < room ? n : static_cast<size_t>(room);
  T* out = c->buffer_ + c->count_;
  // Nils are recognised by their bit pattern, so a double nil compares as bits too.
  if (direct)
    CopyReplacingNil(static_cast<const char*>(src), k, nil, stored_nil, out);
  else
    this->cast_run_(static_cast<const char*>(src), k, nil, stored_nil, out);
  this->UpdateRunStatistics(out, k);
  c->count_ += static_cast<int32_t>(k);
  c->size_ += k * sizeof(T);
  value_count_ += k;
  return k;
}

template <typename T>
bool SimpleTypeChunker<T>::InsertVals(T* values, int n) {
  if (static_cast<int64_t>(chunk_->count_) + n > static_cast<int64_t>(chunk_->capacity_))
    throw "SimpleTypeChunker::InsertVals() : chunk overflow";
  for (int i = 0; i < n; ++i)
    if (!this->InsertVal(values[i])) break;
  return true;
}

template class SimpleTypeChunker<char>;
template class SimpleTypeChunker<unsigned char>;
template class SimpleTypeChunker<short>;
template class SimpleTypeChunker<unsigned short>;
template class SimpleTypeChunker<int>;
template class SimpleTypeChunker<unsigned int>;
template class SimpleTypeChunker<int64_t>;
template class SimpleTypeChunker<uint64_t>;
template class SimpleTypeChunker<double>;

}  // namespace qopci
