#include "writers/simple_type_bat_writer.h"

#include <cerrno>

namespace qopci {
namespace {

template <typename U>
bool BufferOf(BATChunk* chunk, const void** buffer) {
  if (auto* c = dynamic_cast<SimpleTypeChunk<U>*>(chunk)) {
    *buffer = c->buffer_;
    return true;
  }
  return false;
}

// The value buffer of an elementary chunk of any fixed-width type: the decimal chunker
// fills byte chunks for tails of wider values, so the bytes count, not the element type.
const void* ChunkBytes(BATChunk* chunk) {
  const void* b = nullptr;
  (BufferOf<char>(chunk, &b) || BufferOf<unsigned char>(chunk, &b) || BufferOf<short>(chunk, &b) ||
   BufferOf<unsigned short>(chunk, &b) || BufferOf<int>(chunk, &b) ||
   BufferOf<unsigned int>(chunk, &b) || BufferOf<int64_t>(chunk, &b) ||
   BufferOf<uint64_t>(chunk, &b) || BufferOf<double>(chunk, &b));
  return b;
}

}  // namespace

template <typename T>
SimpleTypeBATWriter<T>::SimpleTypeBATWriter(const char* file_name, bool keep_existing,
                                            uint64_t existing_count)
    : BATWriter(file_name, existing_count, keep_existing),
      tail_(new MMFByteWriter(file_name ? file_name : "", keep_existing,
                              existing_count * sizeof(T))) {
  tail_->SetCompressed(compressed_);
}

template <typename T>
SimpleTypeBATWriter<T>::~SimpleTypeBATWriter() = default;

template <typename T>
void SimpleTypeBATWriter<T>::SetCompressed(bool compressed) {
  BATWriter::SetCompressed(compressed);
  tail_->SetCompressed(compressed);
}

template <typename T>
bool SimpleTypeBATWriter<T>::WriteChunk(BATChunk* chunk) {
  const void* bytes = chunk ? ChunkBytes(chunk) : nullptr;
  if (!bytes) {
    errno = EINVAL;
    return false;
  }
  if (!tail_->Write(bytes, chunk->GetSize())) return false;
  delete chunk;
  return true;
}

template class SimpleTypeBATWriter<char>;
template class SimpleTypeBATWriter<unsigned char>;
template class SimpleTypeBATWriter<short>;
template class SimpleTypeBATWriter<unsigned short>;
template class SimpleTypeBATWriter<int>;
template class SimpleTypeBATWriter<unsigned int>;
template class SimpleTypeBATWriter<int64_t>;
template class SimpleTypeBATWriter<uint64_t>;
template class SimpleTypeBATWriter<double>;

}  // namespace qopci
