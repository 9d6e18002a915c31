#include "chunkers/string_dict_chunker.h"

#include <memory>

#include "readers/string_reader.h"
#include "writers/mmf/mmf.h"

namespace qopci {

StringDictChunker::StringDictChunker(int32_t chunk_size, int32_t heap_parameter,
                                     const char* heap_file, uint64_t existing_heap_size,
                                     int32_t initial_capacity, const char* store_dir,
                                     bool nil_as_key)
    : DictChunker<char*, unsigned, unsigned>(
          chunk_size, nil_as_key,
          std::make_unique<KHash>(static_cast<uint32_t>(initial_capacity), nil_as_key),
          std::make_unique<StringChunker>(chunk_size, heap_parameter, heap_file,
                                          existing_heap_size)),
      keys_(static_cast<StringChunker*>(key_chunker_.get())),
      table_(static_cast<KHash*>(dictionary_.get())),
      store_dir_(store_dir != nullptr ? store_dir : "") {
  new_codes_->ClearSorted();
  row_codes_->ClearSorted();
}

StringDictChunker::~StringDictChunker() { store_.Close(); }

bool StringDictChunker::OpenStore(const char* dir, uint64_t pending_count) {
  if (dir != nullptr && store_.Open(dir)) {
    table_->SetPendingCount(pending_count);
    return true;
  }
  store_.Close();
  return false;
}

BATChunk* StringDictChunker::TakeChunk() {
  std::unique_ptr<BATChunk> keys(keys_->TakeChunk());
  std::unique_ptr<BATChunk> key_codes(new_codes_->TakeChunk());
  std::unique_ptr<BATChunk> codes(row_codes_->TakeChunk());
  auto* chunk = new KeyValueChunk<unsigned>(keys.get(), key_codes.get(), codes.get());
  keys.release();
  key_codes.release();
  codes.release();
  return chunk;
}

BATReader<char*>* StringDictChunker::MakeKeyReader(const char* key_file, const char* heap_file,
                                                   uint64_t entry_count) {
  const uint32_t width = static_cast<uint32_t>(GetCodeSize());
  return new StringReader(heap_file != nullptr ? heap_file : "", key_file, width,
                          entry_count * width, MMF::kNoRequestedSize);
}

void StringDictChunker::Encode(char* const* values, unsigned first_new_code, unsigned* codes,
                               uint64_t count, char** new_keys, unsigned* new_codes,
                               uint64_t* new_count, unsigned nil_code, char* nil_key) {
  table_->EncodeChunk(values, first_new_code, codes, count, new_keys, new_codes, new_count,
                      nil_code, nil_key, &store_);
}

}  // namespace qopci
