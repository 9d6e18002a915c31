// The dictionary rows of the factories: chunker kinds 1 (fixed-width keys) and 3 (strings)
// and writer kinds 1 and 6, each reading its attributes (docs/attributes.md) and building
// the dictionary chunker or writer of the column. A dictionary chunker starts from the
// column's dictionary: through its store when one opens, else reloaded from its files.
// Threading: called by the copy manager on the exporting thread.
#ifndef QOPCI_COPY_INTO_DICT_FACTORIES_H_
#define QOPCI_COPY_INTO_DICT_FACTORIES_H_

#include "copy_into/ci_manager.h"

namespace qopci {

// Each returns a new object owned by the caller, or null after a recorded error; they throw
// "Simple Type Dict Chunker not supported", "Simple Type Writer not supported" and
// "Dictionary of F cannot be loaded: ..." as character strings.
ChunkerBase* MakeSimpleTypeDictChunker(CIManager& m, CIManager::ColumnEntry& e);
ChunkerBase* MakeStringDictChunker(CIManager& m, CIManager::ColumnEntry& e);
BATWriter* MakeSimpleTypeDictWriter(CIManager& m, CIManager::ColumnEntry& e);
BATWriter* MakeStringDictWriter(CIManager& m, CIManager::ColumnEntry& e);

}  // namespace qopci

#endif  // QOPCI_COPY_INTO_DICT_FACTORIES_H_
