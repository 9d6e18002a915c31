// SimpleTypeBATWriter<T>: appends fixed-width values of type T to one tail file.
//
// The tail is a plain array of T in machine byte order. Writing starts at byte
// existing_count x sizeof(T), whatever the file holds beyond, and Close cuts the file to
// the end of the last value written.
// Threading: as BATWriter.
#ifndef QOPCI_WRITERS_SIMPLE_TYPE_BAT_WRITER_H_
#define QOPCI_WRITERS_SIMPLE_TYPE_BAT_WRITER_H_

#include <cstdint>
#include <memory>

#include "writers/bat_writer.h"
#include "writers/mmf/mmf_byte_writer.h"

namespace qopci {

template <typename T>
class SimpleTypeBATWriter : public BATWriter {
 public:
  // keep_existing appends to the file; otherwise it is created anew.
  SimpleTypeBATWriter(const char* file_name, bool keep_existing, uint64_t existing_count);
  ~SimpleTypeBATWriter() override;

  void SetCompressed(bool compressed) override;
  uint32_t GetGranularity() override { return tail_->GetGranularity(); }
  bool GetTailKeepExisting() override { return tail_->GetKeepExisting(); }
  uint64_t GetTailSize() override { return tail_->Size(); }
  uint64_t GetTailMappedSize() override { return tail_->GetMappingSize(); }
  uint64_t GetHeapSize() override { return 0; }
  uint64_t GetHeapMappedSize() override { return 0; }
  uint32_t GetValueWidth() override { return sizeof(T); }
  bool Open() override { return tail_->Open(); }
  bool Close() override { return tail_->Close(); }
  // Appends the chunk's GetSize() bytes. REQUIRES: chunk is an elementary SimpleTypeChunk
  // (of T, or bytes laid out as T); anything else fails with EINVAL.
  bool WriteChunk(BATChunk* chunk) override;

  // The tail's byte writer, owned by this writer.
  MMFByteWriter* tail() const { return tail_.get(); }

 private:
  std::unique_ptr<MMFByteWriter> tail_;
};

extern template class SimpleTypeBATWriter<char>;
extern template class SimpleTypeBATWriter<unsigned char>;
extern template class SimpleTypeBATWriter<short>;
extern template class SimpleTypeBATWriter<unsigned short>;
extern template class SimpleTypeBATWriter<int>;
extern template class SimpleTypeBATWriter<unsigned int>;
extern template class SimpleTypeBATWriter<int64_t>;
extern template class SimpleTypeBATWriter<uint64_t>;
extern template class SimpleTypeBATWriter<double>;

}  // namespace qopci

#endif  // QOPCI_WRITERS_SIMPLE_TYPE_BAT_WRITER_H_
