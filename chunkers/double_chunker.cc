#include "chunkers/double_chunker.h"

#include <limits>

namespace qopci {

DoubleChunker::DoubleChunker(int32_t chunk_size)
    : SimpleTypeChunker<double>(chunk_size), double_nil_(-std::numeric_limits<double>::max()) {}

}  // namespace qopci
