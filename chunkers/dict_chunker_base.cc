#include "chunkers/dict_chunker_base.h"

#include <utility>

#include "readers/simple_type_bat_reader.h"

namespace qopci {
namespace {

constexpr uint32_t kReportCapacity = 1024;  // bytes of the load log kept by a chunker

// Hands a reader to the dictionary's load, which deletes it on some paths and leaves it to
// the caller on others: the wrapper tells which by setting *gone when it is destroyed.
template <typename T>
class TrackedReader : public BATReader<T> {
 public:
  TrackedReader(BATReader<T>* inner, bool* gone) : BATReader<T>(0), inner_(inner), gone_(gone) {}
  ~TrackedReader() override { *gone_ = true; }

  void SetWholeFile() override { inner_->SetWholeFile(); }
  bool Initialize(TextLog* log) override { return inner_->Initialize(log); }
  bool Open() override { return inner_->Open(); }
  void Close() override { inner_->Close(); }
  bool IsEmpty() override { return inner_->IsEmpty(); }
  bool Read(TextLog* log) override { return inner_->Read(log); }
  bool Read() override { return inner_->Read(); }
  T GetValue() override { return inner_->GetValue(); }
  uint32_t ElementWidth() override { return inner_->ElementWidth(); }
  void SetValue(T value) override { inner_->SetValue(value); }

 private:
  std::unique_ptr<BATReader<T>> inner_;
  bool* gone_;
};

template <typename T>
void Release(TrackedReader<T>* reader, bool gone) {
  if (gone) return;
  reader->Close();
  delete reader;
}

}  // namespace

template <typename K, typename C>
bool LoadDictionaryFrom(HashBase<K, C>& dictionary, BATReader<K>* keys, BATReader<C>* codes,
                        TextLog* report) {
  bool key_gone = false, code_gone = false;
  auto* tracked_keys = new TrackedReader<K>(keys, &key_gone);
  auto* tracked_codes = new TrackedReader<C>(codes, &code_gone);
  const bool ok = dictionary.LoadFromReaders(tracked_keys, tracked_codes, report);
  Release(tracked_keys, key_gone);
  Release(tracked_codes, code_gone);
  return ok;
}

template <typename K, typename C, typename RC>
DictChunkerBaseBase<K, C, RC>::DictChunkerBaseBase(int32_t chunk_size, bool nil_as_key,
                                                   std::unique_ptr<HashBase<K, C>> dictionary,
                                                   std::unique_ptr<Chunker<K>> key_chunker)
    : DictChunkerInterface<K>(chunk_size, sizeof(RC)),
      nil_as_key_(nil_as_key),
      dictionary_(std::move(dictionary)),
      key_chunker_(std::move(key_chunker)),
      new_codes_(new SimpleTypeChunker<C>(chunk_size)),
      row_codes_(new SimpleTypeChunker<RC>(chunk_size)) {
  key_chunker_->ClearSorted();  // keys come in first-seen order
  new_codes_->dict_codes_ = true;
}

template <typename K, typename C, typename RC>
DictChunkerBaseBase<K, C, RC>::~DictChunkerBaseBase() {
  new_codes_.reset();
  key_chunker_.reset();
  row_codes_.reset();
  dictionary_.reset();
}

template <typename K, typename C, typename RC>
bool DictChunkerBaseBase<K, C, RC>::IsChunkFull() {
  return row_codes_flag_ ? row_codes_->IsChunkFull() : key_chunker_->IsChunkFull();
}

template <typename K, typename C, typename RC>
void DictChunkerBaseBase<K, C, RC>::AddToList(std::list<ChunkerBase*>& list) {
  key_chunker_->AddToList(list);
  new_codes_->AddToList(list);
  if (row_codes_flag_) row_codes_->AddToList(list);
}

template <typename K, typename C, typename RC>
void DictChunkerBaseBase<K, C, RC>::SetPreviousValueFrom(const void* stored) {
  row_codes_->SetPreviousValueFrom(stored);
}

template <typename K, typename C, typename RC>
BATReader<C>* DictChunkerBaseBase<K, C, RC>::MakeCodeReader(const char* code_file,
                                                            uint64_t entry_count) {
  return new SimpleTypeBATReader<C>(code_file, entry_count * sizeof(C));
}

template <typename K, typename C, typename RC>
bool DictChunkerBaseBase<K, C, RC>::LoadDictionary(const char* key_file, const char* heap_file,
                                                   const char* code_file, uint64_t entry_count,
                                                   TextLog* report) {
  const uint32_t start = report != nullptr && report->buffer != nullptr ? report->length : 0;
  bool ok = true;
  if (entry_count == 0) {
    // A new column: nothing to load.
  } else if (key_file == nullptr || code_file == nullptr) {
    TextLogAppend(report, "DictChunker::LoadDictionary", "no key file or code file given.");
    ok = false;
  } else {
    ok = LoadDictionaryFrom(*dictionary_, MakeKeyReader(key_file, heap_file, entry_count),
                            MakeCodeReader(code_file, entry_count), report);
  }
  if (report != nullptr && report->buffer != nullptr)
    last_report_.assign(report->buffer + start, report->length - start);
  else
    last_report_.clear();
  return ok;
}

template <typename K, typename C, typename RC>
bool DictChunkerBaseBase<K, C, RC>::LoadDictionary(const char* key_file, const char* heap_file,
                                                   const char* code_file, uint64_t entry_count) {
  std::unique_ptr<char[]> buffer(new char[kReportCapacity]);
  buffer[0] = '\0';
  TextLog report{buffer.get(), kReportCapacity, 0};
  return LoadDictionary(key_file, heap_file, code_file, entry_count, &report);
}

template <typename K, typename C, typename RC>
bool DictChunkerBaseBase<K, C, RC>::InsertNilCode() {
  if (row_codes_flag_ && !row_codes_->InsertNil()) return false;
  ++row_count_;
  return true;
}

template <typename K, typename C, typename RC>
bool DictChunkerBaseBase<K, C, RC>::AddEntry(K key, C code) {
  if (!dictionary_->Insert(key, code) || !key_chunker_->InsertVal(key) ||
      !new_codes_->InsertVal(code) || (row_codes_flag_ && !row_codes_->InsertVal(code)))
    return false;
  ++row_count_;
  return true;
}

template <typename K, typename C, typename RC>
bool DictChunkerBase<K, C, RC>::InsertValue(const void* src, const char* type_name, bool is_nil) {
  if (is_nil && this->nil_as_key_) this->no_nil_ = false;
  return Chunker<K>::InsertValue(src, type_name, is_nil);
}

template <typename K, typename C, typename RC>
void DictChunkerBase<K, C, RC>::Encode(const K* values, C first_new_code, C* codes, uint64_t count,
                                       K* new_keys, C* new_codes, uint64_t* new_count, C nil_code,
                                       K nil_key) {
  this->dictionary_->EncodeChunk(values, first_new_code, codes, count, new_keys, new_codes,
                                 new_count, nil_code, nil_key);
}

template <typename K, typename C, typename RC>
bool DictChunkerBase<K, C, RC>::InsertVals(K* values, int n) {
  if (n < 1) return true;
  std::unique_ptr<RC[]> row_codes(new RC[n]);
  std::unique_ptr<K[]> new_keys(new K[n]);
  std::unique_ptr<C[]> new_codes(new C[n]);
  const C next_code = static_cast<C>(this->GetDictionarySize() + 1);
  uint64_t new_count = 0;
  Encode(values, next_code, row_codes.get(), static_cast<uint64_t>(n), new_keys.get(),
         new_codes.get(), &new_count, *this->row_codes_->GetNilValue(), *this->GetNilValue());
  const int fresh = static_cast<int>(new_count);
  const bool ok = this->key_chunker_->InsertVals(new_keys.get(), fresh) &&
                  this->new_codes_->InsertVals(new_codes.get(), fresh) &&
                  (!this->row_codes_flag_ || this->row_codes_->InsertVals(row_codes.get(), n));
  if (ok) this->row_count_ += static_cast<uint64_t>(n);
  return ok;
}

template <typename K, typename C, typename RC>
bool DictChunkerBase<K, C, RC>::InsertNil() {
  if (!this->nil_as_key_) return this->InsertNilCode();
  this->no_nil_ = false;
  return InsertVal(*this->GetNilValue());
}

template bool LoadDictionaryFrom(HashBase<int, int>&, BATReader<int>*, BATReader<int>*, TextLog*);
template class DictChunkerBaseBase<char, char, char>;
template class DictChunkerBaseBase<short, short, short>;
template class DictChunkerBaseBase<int, int, int>;
template class DictChunkerBaseBase<int64_t, unsigned, unsigned>;
template class DictChunkerBaseBase<double, unsigned, unsigned>;
template class DictChunkerBaseBase<char*, unsigned, unsigned>;
template class DictChunkerBase<char, char, char>;
template class DictChunkerBase<short, short, short>;
template class DictChunkerBase<int, int, int>;
template class DictChunkerBase<int64_t, unsigned, unsigned>;
template class DictChunkerBase<double, unsigned, unsigned>;
template class DictChunkerBase<char*, unsigned, unsigned>;

}  // namespace qopci
