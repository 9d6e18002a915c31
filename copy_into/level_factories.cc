#include "copy_into/level_factories.h"

#include <cstdint>

#include "chunkers/time_levels_chunker.h"
#include "chunkers/timestamp_dict_chunker.h"
#include "copy_into/dict_factories.h"
#include "copy_into/factories.h"
#include "writers/time_levels_writer.h"

namespace qopci {

namespace {

// The five level files of attributes first..first+4: the level numbers, then the year,
// quarter and month starts and the day. Read at sites site..site+4.
bool LevelFiles(CIManager& m, CIManager::ColumnEntry& e, int first, int site,
                const char* (&out)[5]) {
  for (int k = 0; k < 5; ++k)
    if (!m.GetAttrStr(e.second, first + k, site + k, &out[k])) return false;
  return true;
}

}  // namespace

// Kind 6: a timestamp column with its five level streams.
ChunkerBase* MakeTimestampLevelsChunker(CIManager& m, CIManager::ColumnEntry& e) {
  int chunk_size;
  if (!m.GetAttrInt(e.second, 2, 800, &chunk_size)) return nullptr;
  CheckChunkSize(chunk_size);
  return new TesselTimestampChunker(chunk_size);
}

// Kind 7: the dictionary of hours, reloaded from its level-number file (30) and key-code
// file (32) for the entries of 37; 31 is read but unused.
ChunkerBase* MakeTimestampDictChunker(CIManager& m, CIManager::ColumnEntry& e) {
  int chunk_size, nil_as_key;
  const char *keys, *heap, *codes;
  int64_t entries;
  if (!m.GetAttrInt(e.second, 2, 817, &chunk_size) ||
      !m.GetAttrInt(e.second, 35, 818, &nil_as_key) || !m.GetAttrStr(e.second, 30, 819, &keys) ||
      !m.GetAttrStr(e.second, 31, 820, &heap) || !m.GetAttrStr(e.second, 32, 821, &codes) ||
      !m.GetAttrLng(e.second, 37, 822, &entries))
    return nullptr;
  CheckChunkSize(chunk_size);
  return Reloaded(new TesselTimestampDictChunker(chunk_size, nil_as_key != 0), keys, heap, codes,
                  entries);
}

// Kind 2: the timestamp tail (5) and its level files (15-19), appended behind 38 values
// when 6 is not 0.
BATWriter* MakeTimestampLevelsWriter(CIManager& m, CIManager::ColumnEntry& e) {
  const char* tail;
  const char* levels[5];
  int keep;
  int64_t existing;
  if (!m.GetAttrStr(e.second, 5, 947, &tail) || !LevelFiles(m, e, 15, 948, levels) ||
      !m.GetAttrInt(e.second, 6, 953, &keep) || !m.GetAttrLng(e.second, 38, 954, &existing))
    return nullptr;
  return new TesselTimestampWriter(tail, levels, keep != 0, static_cast<uint64_t>(existing));
}

// Kind 4: the dictionary's level files (25-29) and key codes (24), appended behind 39
// entries, and the row part: the row timestamps (5; "" for a column of the dictionary
// only) and their level files (15-19), behind 40 rows when 6 is not 0.
BATWriter* MakeTimestampDictWriter(CIManager& m, CIManager::ColumnEntry& e) {
  const char *rows, *key_codes;
  const char *row_levels[5], *dict_levels[5];
  int keep;
  int64_t entries, row_count;
  if (!m.GetAttrStr(e.second, 5, 997, &rows) || !LevelFiles(m, e, 15, 998, row_levels) ||
      !m.GetAttrStr(e.second, 24, 1003, &key_codes) || !LevelFiles(m, e, 25, 1004, dict_levels) ||
      !m.GetAttrInt(e.second, 6, 1009, &keep) || !m.GetAttrLng(e.second, 39, 1010, &entries) ||
      !m.GetAttrLng(e.second, 40, 1011, &row_count))
    return nullptr;
  return new TesselTimestampDictWriter(*rows != '\0' ? rows : nullptr, row_levels, key_codes,
                                       dict_levels, keep != 0, static_cast<uint64_t>(entries),
                                       static_cast<uint64_t>(row_count));
}

}  // namespace qopci
