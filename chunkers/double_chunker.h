// DoubleChunker: the chunker of double columns, storing the host's double nil.
//
// It is SimpleTypeChunker<double> with one difference: a nil is stored as -DBL_MAX (bit
// pattern 0xFFEFFFFFFFFFFFFF), the host's nil for doubles, where SimpleTypeChunker<double>
// stores 9223372036854775808.0. Threading: one thread per chunker.
#ifndef QOPCI_CHUNKERS_DOUBLE_CHUNKER_H_
#define QOPCI_CHUNKERS_DOUBLE_CHUNKER_H_

#include <cstdint>

#include "chunkers/simple_type_chunker.h"

namespace qopci {

class DoubleChunker : public SimpleTypeChunker<double> {
 public:
  // Throws "Chunk size must not be negative" for chunk_size < 0.
  explicit DoubleChunker(int32_t chunk_size);

  const double* GetNilValue() override { return &double_nil_; }

 private:
  double double_nil_;  // -DBL_MAX
};

}  // namespace qopci

#endif  // QOPCI_CHUNKERS_DOUBLE_CHUNKER_H_
