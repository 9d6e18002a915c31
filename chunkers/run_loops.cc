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

template <typename T>
QOPCI_VECTOR_CLONES void CopyReplacingNil(const char* src, size_t k, const void* nil,
                                          T stored_nil, T* out) {
  Bits<T> nil_bits;
  std::memcpy(&nil_bits, nil, sizeof nil_bits);
  for (size_t i = 0; i < k; i++) {
    Bits<T> bits;
    std::memcpy(&bits, src + i * sizeof(T), sizeof bits);
    T v;
    std::memcpy(&v, src + i * sizeof(T), sizeof v);
    out[i] = bits == nil_bits ? stored_nil : v;
  }
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

}  // namespace qopci
