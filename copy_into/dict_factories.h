// The dictionary rows of the factories: chunker kinds 1 (fixed-width keys) and 3 (strings)
// and writer kinds 1 and 6, each reading its attributes (docs/attributes.md) and building
// the dictionary chunker or writer of the column. A dictionary chunker starts from the
// column's dictionary: through its store when one opens, else reloaded from its files.
// Threading: called by the copy manager on the exporting thread.
#ifndef QOPCI_COPY_INTO_DICT_FACTORIES_H_
#define QOPCI_COPY_INTO_DICT_FACTORIES_H_

#include <cstdint>
#include <cstdio>
#include <memory>

#include "copy_into/ci_manager.h"

namespace qopci {

// Dictionaries continue where the column's dictionary stopped: its entries are loaded from
// the key, heap and key-code files, so that a value it holds keeps its code and new values
// get the codes behind it. A load that fails is an error for the column: restarting from
// code 1 would give other values codes the dictionary has handed out already. Takes
// ownership of chunker: returns it loaded, or destroys it and throws "Dictionary of F
// cannot be loaded: L".
template <typename C>
ChunkerBase* Reloaded(C* chunker, const char* keys, const char* heap, const char* codes,
                      int64_t entries) {
  std::unique_ptr<C> owned(chunker);
  if (entries > 0 && !chunker->LoadDictionary(keys, heap, codes, static_cast<uint64_t>(entries))) {
    static char text[4096];
    std::snprintf(text, sizeof text, "Dictionary of %s cannot be loaded: %s", keys,
                  chunker->LastLoadReport());
    throw static_cast<const char*>(text);
  }
  return owned.release();
}

// Each returns a new object owned by the caller, or null after a recorded error; they throw
// "Simple Type Dict Chunker not supported", "Simple Type Writer not supported" and
// "Dictionary of F cannot be loaded: ..." as character strings.
ChunkerBase* MakeSimpleTypeDictChunker(CIManager& m, CIManager::ColumnEntry& e);
ChunkerBase* MakeStringDictChunker(CIManager& m, CIManager::ColumnEntry& e);
BATWriter* MakeSimpleTypeDictWriter(CIManager& m, CIManager::ColumnEntry& e);
BATWriter* MakeStringDictWriter(CIManager& m, CIManager::ColumnEntry& e);

}  // namespace qopci

#endif  // QOPCI_COPY_INTO_DICT_FACTORIES_H_
