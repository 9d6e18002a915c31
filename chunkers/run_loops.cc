#include "chunkers/run_loops.h"

#include <cstdint>
#include <cstring>
#include <type_traits>

// ThreadSanitizer's runtime is not up yet when the loader picks a clone, and crashes.
#if defined(__GNUC__) && !defined(__clang__) && defined(__x86_64__) && !defined(__SANITIZE_THREAD__)
#define QOPCI_VECTOR_CLONES __attribute__((target_clones("avx2", "default")))
#else
#define QOPCI_VECTOR_CLONES
#endif

namespace qopci {
namespace {

// An unsigned integer as wide as T: nils are told by their bits, and a comparison of two
// values fills one vector lane.
template <typename T>
using Bits = std::conditional_t<sizeof(T) == 1, uint8_t,
             std::conditional_t<sizeof(T) == 2, uint16_t,
             std::conditional_t<sizeof(T) == 4, uint32_t, uint64_t>>>;

}  // namespace

template <typename T, typename S>
QOPCI_VECTOR_CLONES void ConvertReplacingNil(const char* src, size_t k, const void* nil,
                                             T stored_nil, T* out) {
  Bits<S> nil_bits;
  std::memcpy(&nil_bits, nil, sizeof nil_bits);
  for (size_t i = 0; i < k; i++) {
    Bits<S> bits;
    std::memcpy(&bits, src + i * sizeof(S), sizeof bits);
    S v;
    std::memcpy(&v, src + i * sizeof(S), sizeof v);
    out[i] = bits == nil_bits ? stored_nil : static_cast<T>(v);
  }
}

// A copy is the conversion of T to itself.
template <typename T>
void CopyReplacingNil(const char* src, size_t k, const void* nil, T stored_nil, T* out) {
  ConvertReplacingNil<T, T>(src, k, nil, stored_nil, out);
}

template <typename T>
QOPCI_VECTOR_CLONES bool RunAscends(const T* v, size_t k, bool strictly) {
  Bits<T> broken = 0;
  if (strictly) {
    for (size_t j = 1; j < k; j++) broken |= static_cast<Bits<T>>(!(v[j - 1] < v[j]));
  } else {
    for (size_t j = 1; j < k; j++) broken |= static_cast<Bits<T>>(!(v[j - 1] <= v[j]));
  }
  return broken == 0;
}

#define QOPCI_RUN_LOOPS(T)                                                             \
  template void CopyReplacingNil<T>(const char*, size_t, const void*, T, T*); \
  template bool RunAscends<T>(const T*, size_t, bool);
QOPCI_RUN_LOOPS(char)
QOPCI_RUN_LOOPS(unsigned char)
QOPCI_RUN_LOOPS(short)
QOPCI_RUN_LOOPS(unsigned short)
QOPCI_RUN_LOOPS(int)
QOPCI_RUN_LOOPS(unsigned int)
QOPCI_RUN_LOOPS(int64_t)
QOPCI_RUN_LOOPS(uint64_t)
QOPCI_RUN_LOOPS(double)
#undef QOPCI_RUN_LOOPS

// Every integer source width the cast tables read, into every integer column type.
#define QOPCI_CONVERT_FROM(S)                                                              \
  template void ConvertReplacingNil<char, S>(const char*, size_t, const void*, char, char*); \
  template void ConvertReplacingNil<unsigned char, S>(const char*, size_t, const void*,      \
                                                      unsigned char, unsigned char*);        \
  template void ConvertReplacingNil<short, S>(const char*, size_t, const void*, short,       \
                                              short*);                                       \
  template void ConvertReplacingNil<unsigned short, S>(const char*, size_t, const void*,     \
                                                       unsigned short, unsigned short*);     \
  template void ConvertReplacingNil<int, S>(const char*, size_t, const void*, int, int*);    \
  template void ConvertReplacingNil<unsigned int, S>(const char*, size_t, const void*,       \
                                                     unsigned int, unsigned int*);           \
  template void ConvertReplacingNil<int64_t, S>(const char*, size_t, const void*, int64_t,   \
                                                int64_t*);                                   \
  template void ConvertReplacingNil<uint64_t, S>(const char*, size_t, const void*, uint64_t, \
                                                 uint64_t*);
QOPCI_CONVERT_FROM(int8_t)
QOPCI_CONVERT_FROM(int16_t)
QOPCI_CONVERT_FROM(int32_t)
QOPCI_CONVERT_FROM(uint32_t)
QOPCI_CONVERT_FROM(int64_t)
#undef QOPCI_CONVERT_FROM

}  // namespace qopci
