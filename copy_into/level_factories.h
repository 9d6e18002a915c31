// The time-level rows of the factories: chunker kinds 6 (timestamps with their levels) and
// 7 (the dictionary form) and writer kinds 2 and 4, each reading its attributes
// (docs/attributes.md) and building the chunker or writer of the column. The dictionary
// chunker starts from the column's dictionary of hours, reloaded from its files.
// Threading: called by the copy manager on the exporting thread.
#ifndef QOPCI_COPY_INTO_LEVEL_FACTORIES_H_
#define QOPCI_COPY_INTO_LEVEL_FACTORIES_H_

#include "copy_into/ci_manager.h"

namespace qopci {

// Each returns a new object owned by the caller, or null after a recorded error; the
// chunkers throw the chunk-size texts and "Dictionary of F cannot be loaded: ..." as
// character strings.
ChunkerBase* MakeTimestampLevelsChunker(CIManager& m, CIManager::ColumnEntry& e);
ChunkerBase* MakeTimestampDictChunker(CIManager& m, CIManager::ColumnEntry& e);
BATWriter* MakeTimestampLevelsWriter(CIManager& m, CIManager::ColumnEntry& e);
BATWriter* MakeTimestampDictWriter(CIManager& m, CIManager::ColumnEntry& e);

}  // namespace qopci

#endif  // QOPCI_COPY_INTO_LEVEL_FACTORIES_H_
