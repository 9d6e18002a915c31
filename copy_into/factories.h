// Factories of the reader, chunker and writer of a column, chosen by the kind numbers in
// its attributes (0: chunker kind, 1: writer kind, 33: source kind) from process-wide
// tables of construction functions.
//
// A kind without a construction (out of range, or a class this build does not have) is
// reported as an error for the column. Constructions throw character-string exceptions
// for unsupported value types.
// Threading: the tables are filled once, by the first CIManager, before any export.
#ifndef QOPCI_COPY_INTO_FACTORIES_H_
#define QOPCI_COPY_INTO_FACTORIES_H_

#include "copy_into/ci_manager.h"

namespace qopci {

class InternalReader;

// Refuses a chunk size below 1 or above 16777216 (character-string exceptions).
void CheckChunkSize(int chunk_size);

// Fills the three tables. Called once per process.
void FillFactoryTables();

// Each returns a new object owned by the caller, or null after a recorded error.
ChunkerBase* CreateChunker(CIManager& m, CIManager::ColumnEntry& entry);
BATWriter* CreateWriter(CIManager& m, CIManager::ColumnEntry& entry);
// column and data are null for a generated column; order is null without an order BAT.
InternalReader* CreateReader(CIManager& m, CIManager::ColumnEntry& entry, res_col* column,
                             BAT* data, BAT* order);

}  // namespace qopci

#endif  // QOPCI_COPY_INTO_FACTORIES_H_
