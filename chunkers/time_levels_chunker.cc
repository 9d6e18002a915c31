#include "chunkers/time_levels_chunker.h"

namespace qopci {

// Bodies follow in the next commit; the interface is fixed first.
TesselTimeLevelsChunker::TesselTimeLevelsChunker(int32_t chunk_size)
    : SimpleTypeChunker<int>(chunk_size),
      year_(chunk_size),
      quarter_(chunk_size),
      month_(chunk_size),
      day_(chunk_size) {}
BATChunk* TesselTimeLevelsChunker::TakeChunk() { throw "not implemented"; }
void TesselTimeLevelsChunker::AddToList(std::list<ChunkerBase*>&) { throw "not implemented"; }
bool TesselTimeLevelsChunker::InsertNil() { throw "not implemented"; }
bool TesselTimeLevelsChunker::InsertTimestamp(int64_t) { throw "not implemented"; }
size_t TesselTimeLevelsChunker::InsertTimestamps(const int64_t*, size_t) {
  throw "not implemented";
}
int32_t TesselTimeLevelsChunker::LevelNumberOf(int64_t) { throw "not implemented"; }

TesselTimestampChunker::TesselTimestampChunker(int32_t chunk_size)
    : Chunker<int64_t>(chunk_size), stamps_(chunk_size), levels_(chunk_size) {}
BATChunk* TesselTimestampChunker::TakeChunk() { throw "not implemented"; }
void TesselTimestampChunker::AddToList(std::list<ChunkerBase*>&) { throw "not implemented"; }
bool TesselTimestampChunker::InsertVal(int64_t) { throw "not implemented"; }
size_t TesselTimestampChunker::InsertRun(const void*, const char*, size_t, size_t, const void*) {
  throw "not implemented";
}
bool TesselTimestampChunker::InsertDateTime(int, int, int, int, int, int, int) {
  throw "not implemented";
}

}  // namespace qopci
