#include "readers/simple_type_dict_reader.h"

#include <type_traits>

namespace qopci {

template <typename T, typename U>
DictBATReader<T, U>::DictBATReader(const char* values_file, uint64_t values_size,
                                   BATReader<U>* codes)
    : SimpleTypeBATReader<T>(values_file, values_size), codes_(codes) {}

template <typename T, typename U>
DictBATReader<T, U>::~DictBATReader() {
  codes_.reset();
  this->reader_.reset();
}

template <typename T, typename U>
bool DictBATReader<T, U>::Open() {
  return this->reader_->Open() && codes_->Open();
}

template <typename T, typename U>
void DictBATReader<T, U>::Close() {
  this->reader_->Close();
  codes_->Close();
}

template <typename T, typename U>
uint32_t DictBATReader<T, U>::ElementWidth() {
  return sizeof(U);
}

template <typename T, typename U>
bool SimpleTypeDictReader<T, U>::IsEmpty() {
  return this->codes_->IsEmpty();
}

template <typename T, typename U>
bool SimpleTypeDictReader<T, U>::Read() {
  return this->codes_->Read();
}

template <typename T, typename U>
T SimpleTypeDictReader<T, U>::GetValue() {
  // Codes are 1-based; a narrow code counts as the unsigned number of its bits.
  const uint64_t code = static_cast<std::make_unsigned_t<U>>(this->codes_->GetValue());
  if (code > 0) this->MoveTo((code - 1) * sizeof(T));
  return SimpleTypeBATReader<T>::GetValue();
}

template <typename T, typename U>
uint32_t SimpleTypeDictReader<T, U>::ElementWidth() {
  return sizeof(U);
}

#define QOPCI_DICT_READER_DEFINE(T, U) \
  template class DictBATReader<T, U>;  \
  template class SimpleTypeDictReader<T, U>;
QOPCI_DICT_READER_INSTANCES(QOPCI_DICT_READER_DEFINE)
#undef QOPCI_DICT_READER_DEFINE

}  // namespace qopci
