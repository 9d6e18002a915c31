// SimpleTypeBATReader<T>: reads a fixed-width column file of T values front to back.
//
// The file is reached through an MMFByteReader that maps one span of it at a time (or the
// whole file after SetWholeFile); values are read in place from the mapping. Only whole
// elements that lie inside both the file and the requested size are read: a partial last
// element ends the walk like the end of the file. Failures of the logging forms are
// appended to the TextLog with the prefix "SimpleTypeBATReader<T>" (T spelled as in
// ReaderName below).
// Instances: char, unsigned char, short, unsigned short, int, unsigned int, int64_t,
// uint64_t and double.
// Threading: a reader belongs to one thread at a time.
#ifndef QOPCI_READERS_SIMPLE_TYPE_BAT_READER_H_
#define QOPCI_READERS_SIMPLE_TYPE_BAT_READER_H_

#include <cstdint>
#include <memory>

#include "readers/bat_reader.h"
#include "writers/mmf/mmf_byte_reader.h"

namespace qopci {

// The log prefix of the readers of T values.
template <typename T>
const char* ReaderName();

template <typename T>
class SimpleTypeBATReader : public BATReader<T> {
 public:
  // file: the column file (copied); requested_size as for BATReader.
  SimpleTypeBATReader(const char* file, uint64_t requested_size);
  ~SimpleTypeBATReader() override;

  void SetWholeFile() override { reader_->SetWholeFile(true); }
  bool Initialize(TextLog* log) override;
  bool Open() override { return reader_->Open(); }
  void Close() override { reader_->Close(); }
  bool IsEmpty() override { return reader_->IsEmpty(); }
  bool Read(TextLog* log) override { return Step(log); }
  bool Read() override { return Step(nullptr); }
  T GetValue() override;
  uint32_t ElementWidth() override { return sizeof(T); }
  // Writes the value into the file at the cursor; the shared mapping shows it at once.
  void SetValue(T value) override;

  // Puts the cursor on the element at byte position, making it addressable. False, with
  // the cursor unchanged, when no whole element lies there inside the file and the
  // requested size.
  bool MoveTo(uint64_t position);
  // The byte position of the cursor.
  uint64_t Position() const { return reader_->GetPosition(); }

 protected:
  // Read: the first call leaves the cursor on element 0, later calls move it one element
  // on. log may be null for the silent form.
  bool Step(TextLog* log);

  bool first_read_ = true;                 // no Read has been answered yet
  std::unique_ptr<MMFByteReader> reader_;  // over the column file (the values file of a
                                           // dictionary)
};

extern template class SimpleTypeBATReader<char>;
extern template class SimpleTypeBATReader<unsigned char>;
extern template class SimpleTypeBATReader<short>;
extern template class SimpleTypeBATReader<unsigned short>;
extern template class SimpleTypeBATReader<int>;
extern template class SimpleTypeBATReader<unsigned int>;
extern template class SimpleTypeBATReader<int64_t>;
extern template class SimpleTypeBATReader<uint64_t>;
extern template class SimpleTypeBATReader<double>;

}  // namespace qopci

#endif  // QOPCI_READERS_SIMPLE_TYPE_BAT_READER_H_
