// DictBATWriter: writes a dictionary-coded column as three files at once: the new
// dictionary keys, the codes of those keys, and one code per row (the last may be absent).
//
// Each KeyValueChunk is split into its three member chunks, and each member is handed to
// its own member writer through SubmitChunk, so that with a queue the three files are
// written in parallel. The dictionary files are always appended to.
// Threading: as BATWriter; the member writers may run on three workers at once.
#ifndef QOPCI_WRITERS_DICT_BAT_WRITER_H_
#define QOPCI_WRITERS_DICT_BAT_WRITER_H_

#include <cstdint>
#include <list>
#include <memory>

#include "writers/bat_writer.h"
#include "writers/simple_type_bat_writer.h"

namespace qopci {

class DictBATWriter : public BATWriter {
 public:
  // Member writers: keys, key codes, and row codes (null when the column has no code file).
  // Takes ownership of all three.
  DictBATWriter(const char* key_file_name, uint64_t dictionary_count, uint64_t row_count,
                bool keep_existing, BATWriter* keys, BATWriter* key_codes, BATWriter* codes);
  // Destroys the members, the code writer first.
  ~DictBATWriter() override;

  // Each of these applies to this writer, then to every present member in order.
  void SetQueue(ConcurrentQueue* queue) override;
  void SetCompressed(bool compressed) override;
  void RegisterIn(std::list<BATWriter*>& list) override;

  uint32_t GetGranularity() override { return members_[0]->GetGranularity(); }
  bool GetTailKeepExisting() override { return members_[0]->GetTailKeepExisting(); }
  // The code column answers these; 0 when the column has no code file.
  uint64_t GetTailSize() override;
  uint64_t GetTailMappedSize() override;
  uint32_t GetValueWidth() override;
  // A dictionary column has no heap: both throw "Not implemented" (a const char*).
  uint64_t GetHeapSize() override;
  uint64_t GetHeapMappedSize() override;
  // Opens the members in order; the first failure leaves the later ones closed.
  bool Open() override;
  // Closes every present member; the result is the last one's.
  bool Close() override;
  // REQUIRES: chunk is a KeyValueChunk<int> or KeyValueChunk<unsigned int>. Its members
  // go to the member writers; the chunk object itself is destroyed on success. On failure
  // the members not handed over are destroyed here and the chunk object is left to the
  // caller.
  bool WriteChunk(BATChunk* chunk) override;

  BATWriter* member(int i) const { return members_[i].get(); }

 private:
  std::unique_ptr<BATWriter> members_[3];  // keys, key codes, row codes (may be null)
  uint64_t row_count_;                     // rows already in the code column
};

// A dictionary writer whose k-th member is a SimpleTypeBATWriter of the k-th type.
template <typename T, typename U, typename V>
class SimpleTypeDictWriter : public DictBATWriter {
 public:
  // The names are not copied and must outlive the writer. code_file_name may be null.
  // keep_existing applies to the code file; the dictionary files are always appended to.
  SimpleTypeDictWriter(const char* key_file_name, const char* key_code_file_name,
                       const char* code_file_name, bool keep_existing, uint64_t dictionary_count,
                       uint64_t row_count)
      : DictBATWriter(key_file_name, dictionary_count, row_count, keep_existing,
                      new SimpleTypeBATWriter<T>(key_file_name, true, dictionary_count),
                      new SimpleTypeBATWriter<U>(key_code_file_name, true, dictionary_count),
                      code_file_name
                          ? new SimpleTypeBATWriter<V>(code_file_name, keep_existing, row_count)
                          : nullptr) {}
};

extern template class SimpleTypeDictWriter<char, char, char>;
extern template class SimpleTypeDictWriter<short, short, short>;
extern template class SimpleTypeDictWriter<int, int, int>;
extern template class SimpleTypeDictWriter<int64_t, unsigned, unsigned>;
extern template class SimpleTypeDictWriter<double, unsigned, unsigned>;

}  // namespace qopci

#endif  // QOPCI_WRITERS_DICT_BAT_WRITER_H_
