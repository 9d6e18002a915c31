#include "chunkers/chunker_base.h"

#include <cstring>

namespace qopci {

ChunkerBase::~ChunkerBase() = default;

size_t ChunkerBase::InsertRun(const void* src, const char* type_name, size_t n, size_t stride,
                              const void* nil) {
  const char* p = static_cast<const char*>(src);
  size_t i = 0;
  for (; i < n && !IsChunkFull(); i++, p += stride)
    InsertValue(p, type_name, std::memcmp(p, nil, stride) == 0);
  return i;
}

}  // namespace qopci
