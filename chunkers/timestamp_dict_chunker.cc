#include "chunkers/timestamp_dict_chunker.h"

namespace qopci {

// Bodies follow in the next commit; the interface is fixed first.
TesselTimestampDictChunker::TesselTimestampDictChunker(int32_t chunk_size, bool nil_as_key)
    : DictChunkerInterface<int64_t>(chunk_size),
      nil_as_key_(nil_as_key),
      dictionary_(nil_as_key),
      levels_(chunk_size),
      stamps_(chunk_size),
      ordinals_(chunk_size) {}
BATChunk* TesselTimestampDictChunker::TakeChunk() { throw "not implemented"; }
void TesselTimestampDictChunker::AddToList(std::list<ChunkerBase*>&) { throw "not implemented"; }
bool TesselTimestampDictChunker::IsChunkFull() { throw "not implemented"; }
bool TesselTimestampDictChunker::InsertVal(int64_t) { throw "not implemented"; }
size_t TesselTimestampDictChunker::InsertRun(const void*, const char*, size_t, size_t,
                                             const void*) {
  throw "not implemented";
}
bool TesselTimestampDictChunker::InsertDateTime(int, int, int, int, int, int, int) {
  throw "not implemented";
}
bool TesselTimestampDictChunker::InsertPair(int32_t, int64_t) { throw "not implemented"; }
bool TesselTimestampDictChunker::InsertPairs(const int32_t*, const int64_t*, int) {
  throw "not implemented";
}
bool TesselTimestampDictChunker::LoadDictionary(const char*, const char*, const char*, uint64_t,
                                                TextLog*) {
  throw "not implemented";
}
bool TesselTimestampDictChunker::LoadDictionary(const char*, const char*, const char*, uint64_t) {
  throw "not implemented";
}

}  // namespace qopci
