#include "chunkers/dict_chunker.h"

#include <cstring>
#include <limits>
#include <memory>
#include <type_traits>

#include "chunkers/run_loops.h"
#include "dictionaries/khash_hash.h"
#include "readers/simple_type_bat_reader.h"

namespace qopci {

template <typename K, typename C, typename RC>
SimpleTypeDictChunker<K, C, RC>::SimpleTypeDictChunker(int32_t chunk_size, bool nil_as_key)
    : DictChunker<K, C, RC>(chunk_size, nil_as_key, std::make_unique<KhashHash<K, C>>(nil_as_key),
                            std::make_unique<SimpleTypeChunker<K>>(chunk_size)) {}

template <typename K, typename C, typename RC>
BATChunk* SimpleTypeDictChunker<K, C, RC>::TakeChunk() {
  std::unique_ptr<BATChunk> keys(this->key_chunker_->TakeChunk());
  std::unique_ptr<BATChunk> key_codes(this->new_codes_->TakeChunk());
  std::unique_ptr<BATChunk> codes(this->row_codes_->TakeChunk());
  auto* chunk = new KeyValueChunk<int>(keys.get(), key_codes.get(), codes.get());
  keys.release();
  key_codes.release();
  codes.release();
  return chunk;
}

template <typename K, typename C, typename RC>
size_t SimpleTypeDictChunker<K, C, RC>::InsertRun(const void* src, const char* type_name, size_t n,
                                                  size_t stride, const void* nil) {
  if (type_name != this->cast_name_) this->ResolveCast(type_name);
  const SimpleTypeChunk<RC>* rows = this->row_codes_->CurrentChunk();
  const uint64_t room = rows->capacity_ - static_cast<uint64_t>(rows->count_);
  const size_t k = n < room ? n : static_cast<size_t>(room);
  if (k == 0) return 0;
  const char* p = static_cast<const char*>(src);
  // A nil row with nil as a key clears the no-nil flag, as InsertValue does.
  auto note_nil = [&] {
    if (this->nil_as_key_) this->no_nil_ = false;
  };
  std::unique_ptr<K[]> keys(new K[k]);
  const K key_nil = *this->GetNilValue();
  const bool vector_run = this->cast_direct_ && stride == sizeof(K);
  if (vector_run || (this->cast_run_ != nullptr && stride == this->cast_width_)) {
    if (vector_run)
      CopyReplacingNil(p, k, nil, key_nil, keys.get());
    else
      this->cast_run_(p, k, nil, key_nil, keys.get());
    for (size_t i = 0; i < k && this->nil_as_key_ && this->no_nil_; i++)
      if (std::memcmp(p + i * stride, nil, stride) == 0) note_nil();
  } else {
    for (size_t i = 0; i < k; i++, p += stride) {
      if (std::memcmp(p, nil, stride) == 0) {
        note_nil();
        keys[i] = key_nil;
        continue;
      }
      try {
        keys[i] = this->cast_(p, this);
      } catch (const char*) {
        // The values before this one are stored, as one InsertValue each would have.
        this->InsertVals(keys.get(), static_cast<int>(i));
        throw;
      }
      this->ReleaseTemporary();
    }
  }
  this->InsertVals(keys.get(), static_cast<int>(k));
  return k;
}

template <typename K, typename C, typename RC>
void SimpleTypeDictChunker<K, C, RC>::SetPreviousValue(K value, bool is_nil) {
  RC code{};
  if constexpr (std::is_floating_point_v<K>) {
    if (value >= 0 && value <= static_cast<K>(std::numeric_limits<RC>::max()))
      code = static_cast<RC>(value);
  } else {
    code = static_cast<RC>(value);
  }
  this->row_codes_->SetPreviousValue(code, is_nil);
}

template <typename K, typename C, typename RC>
BATReader<K>* SimpleTypeDictChunker<K, C, RC>::MakeKeyReader(const char* key_file,
                                                             const char* heap_file,
                                                             uint64_t entry_count) {
  (void)heap_file;  // fixed-width keys have no heap
  return new SimpleTypeBATReader<K>(key_file, entry_count * sizeof(K));
}

DoubleDictChunker::DoubleDictChunker(int32_t chunk_size, bool nil_as_key)
    : SimpleTypeDictChunker<double, unsigned, unsigned>(chunk_size, nil_as_key), nil_chunker_(0) {}

template class SimpleTypeDictChunker<char, char, char>;
template class SimpleTypeDictChunker<short, short, short>;
template class SimpleTypeDictChunker<int, int, int>;
template class SimpleTypeDictChunker<int64_t, unsigned, unsigned>;
template class SimpleTypeDictChunker<double, unsigned, unsigned>;

}  // namespace qopci
