#include "readers/simple_type_bat_reader.h"

#include <algorithm>
#include <cstring>

#include "writers/mmf/mmf_os.h"

namespace qopci {

template <>
const char* ReaderName<char>() {
  return "SimpleTypeBATReader<char>";
}
template <>
const char* ReaderName<unsigned char>() {
  return "SimpleTypeBATReader<unsigned char>";
}
template <>
const char* ReaderName<short>() {
  return "SimpleTypeBATReader<short>";
}
template <>
const char* ReaderName<unsigned short>() {
  return "SimpleTypeBATReader<unsigned short>";
}
template <>
const char* ReaderName<int>() {
  return "SimpleTypeBATReader<int>";
}
template <>
const char* ReaderName<unsigned int>() {
  return "SimpleTypeBATReader<unsigned int>";
}
template <>
const char* ReaderName<int64_t>() {
  return "SimpleTypeBATReader<__int64>";
}
template <>
const char* ReaderName<uint64_t>() {
  return "SimpleTypeBATReader<unsigned __int64>";
}
template <>
const char* ReaderName<double>() {
  return "SimpleTypeBATReader<double>";
}

template <typename T>
SimpleTypeBATReader<T>::SimpleTypeBATReader(const char* file, uint64_t requested_size)
    : BATReader<T>(requested_size), reader_(new MMFByteReader(file, requested_size)) {}

template <typename T>
SimpleTypeBATReader<T>::~SimpleTypeBATReader() = default;

template <typename T>
bool SimpleTypeBATReader<T>::Initialize(TextLog* log) {
  // Open as the class has it: a dictionary reader opens its code file too.
  bool ok = Open();
  if (!ok) TextLogAppend(log, ReaderName<T>(), "Initialize failed to initialize reader.");
  return ok;
}

template <typename T>
bool SimpleTypeBATReader<T>::MoveTo(uint64_t position) {
  const MMF* mmf = reader_->GetMMF();
  if (mmf == nullptr || reader_->IsEmpty()) return false;
  const uint64_t limit = std::min(mmf->GetSizeAtOpen(), mmf->GetRequestedSizeCopy());
  if (position > limit || limit - position < sizeof(T)) return false;
  // A span placed anew starts on a granule boundary, so that lookups walking backwards or
  // jumping about move it once per granule rather than once per element.
  const uint64_t span_start = reader_->SpanStart();
  if (reader_->Span() == nullptr || position < span_start ||
      position - span_start >= reader_->SpanLength()) {
    const uint64_t aligned = position - position % MMF::kGranularity;
    if (aligned != position && !reader_->Seek(aligned)) return false;
  }
  return reader_->Seek(position);
}

template <typename T>
bool SimpleTypeBATReader<T>::Step(TextLog* log) {
  if (reader_->GetMappingSize() == 0) {
    TextLogAppend(log, ReaderName<T>(), "Read() failed, capacity == 0.");
    return false;
  }
  bool moved;
  if (first_read_) {
    // The cursor stays on element 0, which must be there to be read: a requested size
    // below one element holds none.
    first_read_ = false;
    moved = MoveTo(0);
  } else {
    moved = MoveTo(reader_->GetPosition() + sizeof(T));
  }
  if (!moved) {
    TextLogAppend(log, ReaderName<T>(), "Read() failed to forward cursor.");
    return false;
  }
  return true;
}

template <typename T>
T SimpleTypeBATReader<T>::GetValue() {
  T value{};
  const uint64_t at = reader_->GetPosition();
  // Before a successful Read, or after the span was lost, there is nothing to read.
  if (reader_->Span() == nullptr || at < reader_->SpanStart() ||
      at + sizeof(T) > reader_->SpanStart() + reader_->SpanLength())
    return value;
  std::memcpy(&value, reader_->Span() + (at - reader_->SpanStart()), sizeof(T));
  return value;
}

template <typename T>
void SimpleTypeBATReader<T>::SetValue(T value) {
  const MMF* mmf = reader_->GetMMF();
  if (mmf == nullptr || !mmf->IsOpen() || reader_->Span() == nullptr) return;
  // Readers map their files read-only; the file is written and the shared mapping shows
  // the new bytes.
  mmf_os::Pwrite(mmf->GetFd(), &value, sizeof(T), static_cast<off_t>(reader_->GetPosition()));
}

template class SimpleTypeBATReader<char>;
template class SimpleTypeBATReader<unsigned char>;
template class SimpleTypeBATReader<short>;
template class SimpleTypeBATReader<unsigned short>;
template class SimpleTypeBATReader<int>;
template class SimpleTypeBATReader<unsigned int>;
template class SimpleTypeBATReader<int64_t>;
template class SimpleTypeBATReader<uint64_t>;
template class SimpleTypeBATReader<double>;

}  // namespace qopci
