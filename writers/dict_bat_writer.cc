#include "writers/dict_bat_writer.h"

#include <cerrno>

#include "writers/writer_chunk_pair.h"

namespace qopci {
namespace {

// The three member chunks of a key-value chunk of either code type.
bool Members(BATChunk* chunk, BATChunk* out[3]) {
  if (auto* kv = dynamic_cast<KeyValueChunk<int>*>(chunk)) {
    out[0] = kv->keys_, out[1] = kv->key_codes_, out[2] = kv->codes_;
    return true;
  }
  if (auto* kv = dynamic_cast<KeyValueChunk<unsigned int>*>(chunk)) {
    out[0] = kv->keys_, out[1] = kv->key_codes_, out[2] = kv->codes_;
    return true;
  }
  return false;
}

}  // namespace

DictBATWriter::DictBATWriter(const char* key_file_name, uint64_t dictionary_count,
                             uint64_t row_count, bool keep_existing, BATWriter* keys,
                             BATWriter* key_codes, BATWriter* codes)
    : BATWriter(key_file_name, dictionary_count, keep_existing),
      members_{std::unique_ptr<BATWriter>(keys), std::unique_ptr<BATWriter>(key_codes),
               std::unique_ptr<BATWriter>(codes)},
      row_count_(row_count) {}

DictBATWriter::~DictBATWriter() {
  for (int i = 2; i >= 0; --i) members_[i].reset();
}

void DictBATWriter::SetQueue(ConcurrentQueue* queue) {
  BATWriter::SetQueue(queue);
  for (auto& m : members_)
    if (m) m->SetQueue(queue);
}

void DictBATWriter::SetCompressed(bool compressed) {
  BATWriter::SetCompressed(compressed);
  for (auto& m : members_)
    if (m) m->SetCompressed(compressed);
}

void DictBATWriter::RegisterIn(std::list<BATWriter*>& list) {
  BATWriter::RegisterIn(list);
  for (auto& m : members_)
    if (m) m->RegisterIn(list);
}

uint64_t DictBATWriter::GetTailSize() { return members_[2] ? members_[2]->GetTailSize() : 0; }

uint64_t DictBATWriter::GetTailMappedSize() {
  return members_[2] ? members_[2]->GetTailMappedSize() : 0;
}

uint32_t DictBATWriter::GetValueWidth() { return members_[2] ? members_[2]->GetValueWidth() : 0; }

uint64_t DictBATWriter::GetHeapSize() { throw "Not implemented"; }

uint64_t DictBATWriter::GetHeapMappedSize() { throw "Not implemented"; }

bool DictBATWriter::Open() {
  for (auto& m : members_)
    if (m && !m->Open()) return false;
  return true;
}

bool DictBATWriter::Close() {
  bool ok = true;
  for (auto& m : members_)
    if (m) ok = m->Close();
  return ok;
}

bool DictBATWriter::WriteChunk(BATChunk* chunk) {
  BATChunk* parts[3];
  if (!chunk || !Members(chunk, parts)) {
    errno = EINVAL;
    return false;
  }
  for (int i = 0; i < 3; ++i) {
    if (!members_[i]) {
      delete parts[i];  // a column without a code file has no use for the row codes
      continue;
    }
    if (!SubmitChunk(members_[i].get(), parts[i], false)) {
      int err = errno;
      // A rejected item was released by the queue; a failed direct write left its chunk.
      if (!members_[i]->GetQueue()) delete parts[i];
      for (int j = i + 1; j < 3; ++j) delete parts[j];
      errno = err;
      return false;
    }
  }
  delete chunk;
  return true;
}

template class SimpleTypeDictWriter<char, char, char>;
template class SimpleTypeDictWriter<short, short, short>;
template class SimpleTypeDictWriter<int, int, int>;
template class SimpleTypeDictWriter<int64_t, unsigned, unsigned>;
template class SimpleTypeDictWriter<double, unsigned, unsigned>;

}  // namespace qopci
