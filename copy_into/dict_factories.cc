#include "copy_into/dict_factories.h"

#include <cstdint>
#include <cstdio>
#include <memory>

#include "chunkers/dict_chunker.h"
#include "chunkers/string_dict_chunker.h"
#include "copy_into/factories.h"
#include "writers/dict_bat_writer.h"
#include "writers/string_dict_writer.h"

namespace qopci {

// Kind 1: a dictionary of fixed-width keys, by the simple type code in attribute 3.
ChunkerBase* MakeSimpleTypeDictChunker(CIManager& m, CIManager::ColumnEntry& e) {
  int code, nil_as_key, chunk_size;
  const char *keys, *heap, *codes;
  int64_t entries;
  if (!m.GetAttrInt(e.second, 3, 687, &code) || !m.GetAttrInt(e.second, 35, 688, &nil_as_key) ||
      !m.GetAttrInt(e.second, 2, 689, &chunk_size) || !m.GetAttrStr(e.second, 30, 690, &keys) ||
      !m.GetAttrStr(e.second, 31, 691, &heap) || !m.GetAttrStr(e.second, 32, 692, &codes) ||
      !m.GetAttrLng(e.second, 37, 693, &entries))
    return nullptr;
  CheckChunkSize(chunk_size);
  const bool nil = nil_as_key != 0;
  switch (code) {
    case 0:
      return Reloaded(new SimpleTypeDictChunker<int, int, int>(chunk_size, nil), keys, heap,
                      codes, entries);
    case 2:
      return Reloaded(new SimpleTypeDictChunker<char, char, char>(chunk_size, nil), keys, heap,
                      codes, entries);
    case 4:
      return Reloaded(new SimpleTypeDictChunker<short, short, short>(chunk_size, nil), keys,
                      heap, codes, entries);
    case 6:
      return Reloaded(new SimpleTypeDictChunker<int64_t, unsigned, unsigned>(chunk_size, nil),
                      keys, heap, codes, entries);
    case 8:
      return Reloaded(new DoubleDictChunker(chunk_size, nil), keys, heap, codes, entries);
    default: throw "Simple Type Dict Chunker not supported";
  }
}

// Kind 3: a string dictionary. With a store that opens, the store answers for the strings
// the dictionary holds (its pending count is the dictionary's entry count) and nothing is
// loaded; otherwise the dictionary is loaded from its files.
ChunkerBase* MakeStringDictChunker(CIManager& m, CIManager::ColumnEntry& e) {
  int chunk_size, nil_as_key, heap_parameter, capacity;
  const char *heap, *store, *keys, *key_heap, *codes;
  int64_t heap_size, entries;
  if (!m.GetAttrInt(e.second, 2, 759, &chunk_size) ||
      !m.GetAttrInt(e.second, 35, 760, &nil_as_key) ||
      !m.GetAttrInt(e.second, 11, 761, &heap_parameter) ||
      !m.GetAttrStr(e.second, 12, 762, &heap) || !m.GetAttrStr(e.second, 13, 763, &store) ||
      !m.GetAttrInt(e.second, 14, 764, &capacity) || !m.GetAttrStr(e.second, 30, 765, &keys) ||
      !m.GetAttrStr(e.second, 31, 766, &key_heap) || !m.GetAttrStr(e.second, 32, 767, &codes) ||
      !m.GetAttrLng(e.second, 41, 768, &heap_size) || !m.GetAttrLng(e.second, 37, 769, &entries))
    return nullptr;
  CheckChunkSize(chunk_size);
  auto* c = new StringDictChunker(chunk_size, heap_parameter, heap,
                                  static_cast<uint64_t>(heap_size), capacity, store,
                                  nil_as_key != 0);
  if (*store != '\0' && c->OpenStore(store, static_cast<uint64_t>(entries))) return c;
  return Reloaded(c, keys, key_heap, codes, entries);
}

// A dictionary-coded column of fixed-width keys: the keys (20) and their codes (21) are
// appended to; the row codes (5) follow keep-existing (6). The key type is the simple type
// code (4) of the five dictionary chunkers: 0 int, 2 char, 4 short, 6 int64 and 8 double
// keys; the codes are of the key's width up to int, unsigned 32-bit for the wider keys.
// An empty row-code file name makes a writer of the dictionary only.
BATWriter* MakeSimpleTypeDictWriter(CIManager& m, CIManager::ColumnEntry& e) {
  const char *codes, *keys, *key_codes;
  int keep, code;
  int64_t entries, rows;
  if (!m.GetAttrStr(e.second, 5, 897, &codes) || !m.GetAttrStr(e.second, 20, 898, &keys) ||
      !m.GetAttrStr(e.second, 21, 899, &key_codes) || !m.GetAttrInt(e.second, 6, 900, &keep) ||
      !m.GetAttrInt(e.second, 4, 901, &code) || !m.GetAttrLng(e.second, 39, 902, &entries) ||
      !m.GetAttrLng(e.second, 40, 903, &rows))
    return nullptr;
  if (*codes == '\0') codes = nullptr;
  const bool k = keep != 0;
  const auto n = static_cast<uint64_t>(entries), r = static_cast<uint64_t>(rows);
  switch (code) {
    case 0: return new SimpleTypeDictWriter<int, int, int>(keys, key_codes, codes, k, n, r);
    case 2: return new SimpleTypeDictWriter<char, char, char>(keys, key_codes, codes, k, n, r);
    case 4: return new SimpleTypeDictWriter<short, short, short>(keys, key_codes, codes, k, n, r);
    case 6:
      return new SimpleTypeDictWriter<int64_t, unsigned, unsigned>(keys, key_codes, codes, k, n, r);
    case 8:
      return new SimpleTypeDictWriter<double, unsigned, unsigned>(keys, key_codes, codes, k, n, r);
    default: throw "Simple Type Writer not supported";
  }
}

// A dictionary-coded string column: the dictionary's strings go to its key heap (22) and
// key tail (20), their codes to 21, the row codes to 5.
BATWriter* MakeStringDictWriter(CIManager& m, CIManager::ColumnEntry& e) {
  const char *codes, *heap, *keys, *key_codes;
  int width, keep;
  int64_t entries, rows, heap_size;
  if (!m.GetAttrStr(e.second, 5, 1053, &codes) || !m.GetAttrStr(e.second, 22, 1054, &heap) ||
      !m.GetAttrStr(e.second, 20, 1055, &keys) || !m.GetAttrStr(e.second, 21, 1056, &key_codes) ||
      !m.GetAttrInt(e.second, 23, 1057, &width) || !m.GetAttrLng(e.second, 39, 1058, &entries) ||
      !m.GetAttrLng(e.second, 40, 1059, &rows) || !m.GetAttrLng(e.second, 42, 1060, &heap_size) ||
      !m.GetAttrInt(e.second, 6, 1061, &keep))
    return nullptr;
  if (*codes == '\0') codes = nullptr;
  auto* w = new StringDictWriter(heap, keys, key_codes, codes, keep != 0,
                                 static_cast<uint64_t>(entries), static_cast<uint64_t>(rows),
                                 static_cast<uint64_t>(heap_size));
  // As for a string column: the key tail is appended to at the width its heap gives.
  if (entries > 0 && static_cast<uint32_t>(width) != w->member(0)->GetValueWidth()) {
    static char text[4096 + 128];
    std::snprintf(text, sizeof text, "String tail width %d of %s differs from width %d of its heap",
                  width, keys, static_cast<int>(w->member(0)->GetValueWidth()));
    delete w;
    throw static_cast<const char*>(text);
  }
  return w;
}

}  // namespace qopci
