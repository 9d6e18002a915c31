// DictBATReader<T,U> and SimpleTypeDictReader<T,U>: readers of fixed-width dictionaries.
//
// A dictionary column is stored as a values file (each distinct T once) and a code file
// (one U per row, 1-based: code 1 is the first value). DictBATReader walks the values file
// in order, its code reader opened and closed beside it; it is what reloads a dictionary.
// SimpleTypeDictReader reads the column back row by row: its silent Read walks the code
// file and GetValue looks the code up in the values file. Its logging Read(log) is the
// inherited one and still walks the values file: the two forms walk different files.
// Log lines carry the prefix of SimpleTypeBATReader<T>. A code is taken as the unsigned
// number of U's bits.
// Threading: a reader belongs to one thread at a time.
#ifndef QOPCI_READERS_SIMPLE_TYPE_DICT_READER_H_
#define QOPCI_READERS_SIMPLE_TYPE_DICT_READER_H_

#include <cstdint>
#include <memory>

#include "readers/simple_type_bat_reader.h"

namespace qopci {

template <typename T, typename U>
class DictBATReader : public SimpleTypeBATReader<T> {
 public:
  // values_file: the dictionary's values (copied); values_size: its requested size (entry
  // count x sizeof(T)); codes: the reader of the code file, owned from here on.
  DictBATReader(const char* values_file, uint64_t values_size, BATReader<U>* codes);
  // Destroys the code reader, then the values file's reader.
  ~DictBATReader() override;

  // Opens the values file and, only if that succeeded, the code file (its result).
  bool Open() override;
  // Closes the values file, then the code file.
  void Close() override;
  uint32_t ElementWidth() override;

  BATReader<U>* codes() { return codes_.get(); }

 protected:
  std::unique_ptr<BATReader<U>> codes_;
};

template <typename T, typename U>
class SimpleTypeDictReader : public DictBATReader<T, U> {
 public:
  using DictBATReader<T, U>::DictBATReader;
  using SimpleTypeBATReader<T>::Read;  // Read(log): the values file

  // The code file has no bytes.
  bool IsEmpty() override;
  // Moves to the next row's code.
  bool Read() override;
  // The value of the current row's code. A code outside the dictionary leaves the values
  // cursor where it was and returns the value there.
  T GetValue() override;
  uint32_t ElementWidth() override;
};

#define QOPCI_DICT_READER_INSTANCES(X) \
  X(char, char)                        \
  X(unsigned char, char)               \
  X(short, short)                      \
  X(unsigned short, short)             \
  X(int, int)                          \
  X(unsigned int, int)                 \
  X(int64_t, unsigned int)             \
  X(uint64_t, unsigned int)            \
  X(double, unsigned int)

#define QOPCI_DICT_READER_EXTERN(T, U)       \
  extern template class DictBATReader<T, U>; \
  extern template class SimpleTypeDictReader<T, U>;
QOPCI_DICT_READER_INSTANCES(QOPCI_DICT_READER_EXTERN)
#undef QOPCI_DICT_READER_EXTERN

}  // namespace qopci

#endif  // QOPCI_READERS_SIMPLE_TYPE_DICT_READER_H_
