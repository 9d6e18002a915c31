#include "chunkers/chunker_base.h"

namespace qopci {

ChunkerBase::~ChunkerBase() = default;

}  // namespace qopci
