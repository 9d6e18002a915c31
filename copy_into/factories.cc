#include "copy_into/factories.h"

#include <sys/stat.h>

#include <cstdint>
#include <cstdio>

#include "chunkers/decimal_chunker.h"
#include "copy_into/dict_factories.h"
#include "copy_into/level_factories.h"
#include "chunkers/double_chunker.h"
#include "chunkers/simple_type_chunker.h"
#include "chunkers/string_chunker.h"
#include "readers/bat_internal_reader.h"
#include "readers/internal_reader.h"
#include "readers/simple_type_bat_reader.h"
#include "readers/simple_type_dict_reader.h"
#include "readers/string_reader.h"
#include "writers/simple_type_bat_writer.h"
#include "writers/string_writer.h"

namespace qopci {

namespace {

using Attrs = CIManager::AttrMap;
using ChunkerMaker = ChunkerBase* (*)(CIManager&, CIManager::ColumnEntry&);
using WriterMaker = BATWriter* (*)(CIManager&, CIManager::ColumnEntry&);
using ReaderMaker = InternalReader* (*)(CIManager&, CIManager::ColumnEntry&, res_col*, BAT*,
                                        BAT*);

constexpr int kChunkerKinds = 8;
constexpr int kWriterKinds = 8;
constexpr int kReaderKinds = 6;

ChunkerMaker g_chunkers[kChunkerKinds];
WriterMaker g_writers[kWriterKinds];
ReaderMaker g_readers[kReaderKinds];

// ---- Chunkers ------------------------------------------------------------------------


ChunkerBase* MakeSimpleTypeChunker(CIManager& m, CIManager::ColumnEntry& e) {
  int code, chunk_size;
  if (!m.GetAttrInt(e.second, 3, 632, &code) || !m.GetAttrInt(e.second, 2, 633, &chunk_size))
    return nullptr;
  CheckChunkSize(chunk_size);
  switch (static_cast<unsigned>(code)) {
    case 0: return new SimpleTypeChunker<int>(chunk_size);
    case 1: return new SimpleTypeChunker<unsigned int>(chunk_size);
    case 2: return new SimpleTypeChunker<char>(chunk_size);
    case 3: return new SimpleTypeChunker<unsigned char>(chunk_size);
    case 4: return new SimpleTypeChunker<short>(chunk_size);
    case 5: return new SimpleTypeChunker<unsigned short>(chunk_size);
    case 6: return new SimpleTypeChunker<int64_t>(chunk_size);
    case 7: return new SimpleTypeChunker<uint64_t>(chunk_size);
    case 8: return new DoubleChunker(chunk_size);
    default: throw "Simple Type Chunker not supported";
  }
}

ChunkerBase* MakeDecimalChunker(CIManager& m, CIManager::ColumnEntry& e) {
  int chunk_size, precision, scale;
  if (!m.GetAttrInt(e.second, 2, 786, &chunk_size) ||
      !m.GetAttrInt(e.second, 7, 787, &precision) || !m.GetAttrInt(e.second, 8, 788, &scale))
    return nullptr;
  CheckChunkSize(chunk_size);
  return new DecimalChunker(chunk_size, precision);
}

// Strings: the chunker places new strings behind the heap's bytes in use and, while the
// heap is small, loads it to point a string the column holds at its earlier copy.
ChunkerBase* MakeStringChunker(CIManager& m, CIManager::ColumnEntry& e) {
  int chunk_size, heap_parameter;
  const char* heap_file;
  int64_t heap_size;
  if (!m.GetAttrInt(e.second, 2, 731, &chunk_size) ||
      !m.GetAttrInt(e.second, 11, 732, &heap_parameter) ||
      !m.GetAttrStr(e.second, 12, 733, &heap_file) ||
      !m.GetAttrLng(e.second, 41, 734, &heap_size))
    return nullptr;
  CheckChunkSize(chunk_size);
  return new StringChunker(chunk_size, heap_parameter, heap_file,
                           static_cast<uint64_t>(heap_size));
}

// ---- Writers -------------------------------------------------------------------------

// The fixed-width writer of a simple type code, or the "Simple Type Writer not supported"
// exception for a code of 9 or more.
BATWriter* NewSimpleTypeWriter(int code, const char* file, bool keep, uint64_t existing) {
  switch (static_cast<unsigned>(code)) {
    case 0: return new SimpleTypeBATWriter<int>(file, keep, existing);
    case 1: return new SimpleTypeBATWriter<unsigned int>(file, keep, existing);
    case 2: return new SimpleTypeBATWriter<char>(file, keep, existing);
    case 3: return new SimpleTypeBATWriter<unsigned char>(file, keep, existing);
    case 4: return new SimpleTypeBATWriter<short>(file, keep, existing);
    case 5: return new SimpleTypeBATWriter<unsigned short>(file, keep, existing);
    case 6: return new SimpleTypeBATWriter<int64_t>(file, keep, existing);
    case 7: return new SimpleTypeBATWriter<uint64_t>(file, keep, existing);
    case 8: return new SimpleTypeBATWriter<double>(file, keep, existing);
    default: throw "Simple Type Writer not supported";
  }
}

BATWriter* MakeSimpleTypeWriter(CIManager& m, CIManager::ColumnEntry& e) {
  const char* file;
  int keep, code;
  int64_t existing;
  if (!m.GetAttrStr(e.second, 5, 844, &file) || !m.GetAttrInt(e.second, 6, 845, &keep) ||
      !m.GetAttrLng(e.second, 38, 846, &existing) || !m.GetAttrInt(e.second, 4, 847, &code))
    return nullptr;
  return NewSimpleTypeWriter(code, file, keep != 0, static_cast<uint64_t>(existing));
}

// Timestamps and other 64-bit columns.
BATWriter* MakeLngWriter(CIManager& m, CIManager::ColumnEntry& e) {
  const char* file;
  int keep;
  int64_t existing;
  if (!m.GetAttrStr(e.second, 5, 969, &file) || !m.GetAttrInt(e.second, 6, 970, &keep) ||
      !m.GetAttrLng(e.second, 38, 971, &existing))
    return nullptr;
  return NewSimpleTypeWriter(6, file, keep != 0, static_cast<uint64_t>(existing));
}

// Decimals are stored as integers of the narrowest width that holds the precision.
BATWriter* MakeDecimalWriter(CIManager& m, CIManager::ColumnEntry& e) {
  const char* file;
  int keep, precision, scale;
  int64_t existing;
  if (!m.GetAttrStr(e.second, 5, 1078, &file) || !m.GetAttrInt(e.second, 6, 1079, &keep) ||
      !m.GetAttrInt(e.second, 9, 1080, &precision) ||
      !m.GetAttrInt(e.second, 10, 1081, &scale) ||
      !m.GetAttrLng(e.second, 38, 1082, &existing))
    return nullptr;
  if (scale > precision) throw "Scale should be <= precision.";
  // The limit is tested on the scale: a larger precision with a small scale gets 8 bytes.
  if (scale > 18) throw "Precision over 18 not supported.";
  const int code = precision <= 2 ? 2 : precision <= 4 ? 4 : precision <= 9 ? 0 : 6;
  return NewSimpleTypeWriter(code, file, keep != 0, static_cast<uint64_t>(existing));
}

// The string writer takes its tail width from the heap file it appends to. A tail that
// holds rows was written at the width its BAT records; appending at another would leave
// old and new offsets at different widths in one tail, so the two must agree.
BATWriter* MakeStringWriter(CIManager& m, CIManager::ColumnEntry& e) {
  const char *tail, *heap;
  int width, keep;
  int64_t existing, heap_size;
  if (!m.GetAttrStr(e.second, 5, 1030, &tail) || !m.GetAttrStr(e.second, 22, 1031, &heap) ||
      !m.GetAttrInt(e.second, 23, 1032, &width) || !m.GetAttrInt(e.second, 6, 1033, &keep) ||
      !m.GetAttrLng(e.second, 38, 1034, &existing) ||
      !m.GetAttrLng(e.second, 42, 1035, &heap_size))
    return nullptr;
  StringWriter* w = new StringWriter(heap, tail, keep != 0, static_cast<uint64_t>(existing),
                                     static_cast<uint64_t>(heap_size));
  if (keep != 0 && existing > 0 && static_cast<uint32_t>(width) != w->GetValueWidth()) {
    static char text[4096 + 128];
    struct stat st;
    const unsigned long long bytes = ::stat(heap, &st) == 0
                                         ? static_cast<unsigned long long>(st.st_size)
                                         : static_cast<unsigned long long>(heap_size);
    std::snprintf(text, sizeof text,
                  "String tail width %d of %s differs from width %d of its %llu-byte heap", width,
                  tail, static_cast<int>(w->GetValueWidth()), bytes);
    delete w;
    throw static_cast<const char*>(text);
  }
  return w;
}

// ---- Readers -------------------------------------------------------------------------

InternalReader* MakeResultReader(CIManager& m, CIManager::ColumnEntry&, res_col*, BAT* data,
                                 BAT* order) {
  if (data == nullptr) {
    m.Report("ReaderFactory", "Result column missing for source kind 0");
    return nullptr;
  }
  if (order != nullptr) return new RegularInternalReader(data, order);
  return new SingleValInternalReader(data);
}

InternalReader* MakeRowIdReader(CIManager&, CIManager::ColumnEntry&, res_col*, BAT*,
                                BAT* order) {
  return new RowIdInternalReader(order != nullptr ? static_cast<uint32_t>(order->batCount) : 1);
}

// Generated columns (source kinds 2 to 5) read back existing column files. A file that
// is missing or too short for the rows it is said to hold is reported here, so that the
// column is refused rather than copied short.

// True when `file` holds at least count x width bytes; otherwise reports why.
bool CheckSourceFile(CIManager& m, const char* file, int64_t count, uint32_t width) {
  if (count < 0) {
    m.ReportDetail("ReaderFactory", "Row count %lld of %s is negative",
                   static_cast<long long>(count), file);
    return false;
  }
  struct stat st;
  if (stat(file, &st) != 0 || !S_ISREG(st.st_mode)) {
    m.ReportDetail("ReaderFactory", "Source file %s cannot be read", file);
    return false;
  }
  if (static_cast<uint64_t>(count) > static_cast<uint64_t>(st.st_size) / width) {
    m.ReportDetail(
        "ReaderFactory", "Source file %s holds %llu bytes, fewer than its %llu rows need", file,
        static_cast<unsigned long long>(st.st_size), static_cast<unsigned long long>(count));
    return false;
  }
  return true;
}

bool CheckTailWidth(CIManager& m, int width) {
  if (width == 1 || width == 2 || width == 4 || width == 8) return true;
  m.ReportDetail("ReaderFactory", "String tail width %d not supported", width);
  return false;
}

template <typename T>
InternalReader* NewPlainReader(CIManager& m, const char* file, int64_t count) {
  if (!CheckSourceFile(m, file, count, sizeof(T))) return nullptr;
  const uint64_t rows = static_cast<uint64_t>(count);
  return new BatInternalReader<T, unsigned int>(new SimpleTypeBATReader<T>(file, rows * sizeof(T)),
                                                nullptr, false, rows);
}

// Kind 2: a plain fixed-width column of the simple type code in attribute 45.
InternalReader* MakePlainColumnReader(CIManager& m, CIManager::ColumnEntry& e, res_col*, BAT*,
                                      BAT*) {
  const char* file;
  int64_t count;
  int code;
  if (!m.GetAttrStr(e.second, 43, 1163, &file) || !m.GetAttrLng(e.second, 44, 1164, &count) ||
      !m.GetAttrInt(e.second, 45, 1165, &code))
    return nullptr;
  switch (static_cast<unsigned>(code)) {
    case 0: return NewPlainReader<int>(m, file, count);
    case 1: return NewPlainReader<unsigned int>(m, file, count);
    case 2: return NewPlainReader<char>(m, file, count);
    case 3: return NewPlainReader<unsigned char>(m, file, count);
    case 4: return NewPlainReader<short>(m, file, count);
    case 5: return NewPlainReader<unsigned short>(m, file, count);
    case 6: return NewPlainReader<int64_t>(m, file, count);
    case 7: return NewPlainReader<uint64_t>(m, file, count);
    case 8: return NewPlainReader<double>(m, file, count);
    default: throw "Simple Type Writer not supported";
  }
}

template <typename T, typename U>
InternalReader* NewDictReader(CIManager& m, const char* codes, int64_t count, const char* values,
                              int64_t entries) {
  if (!CheckSourceFile(m, codes, count, sizeof(U)) ||
      !CheckSourceFile(m, values, entries, sizeof(T)))
    return nullptr;
  const uint64_t rows = static_cast<uint64_t>(count);
  return new BatInternalReader<T, U>(
      nullptr,
      new SimpleTypeDictReader<T, U>(values, static_cast<uint64_t>(entries) * sizeof(T),
                                     new SimpleTypeBATReader<U>(codes, rows * sizeof(U))),
      false, rows);
}

// Kind 3: a fixed-width dictionary column: codes (43) into a values file (46).
InternalReader* MakeDictColumnReader(CIManager& m, CIManager::ColumnEntry& e, res_col*, BAT*,
                                     BAT*) {
  const char *codes, *values;
  int64_t count, entries;
  int code;
  if (!m.GetAttrStr(e.second, 43, 1114, &codes) || !m.GetAttrLng(e.second, 44, 1115, &count) ||
      !m.GetAttrInt(e.second, 45, 1116, &code) || !m.GetAttrStr(e.second, 46, 1117, &values) ||
      !m.GetAttrLng(e.second, 47, 1118, &entries))
    return nullptr;
  switch (static_cast<unsigned>(code)) {
    case 0: return NewDictReader<int, int>(m, codes, count, values, entries);
    case 1: return NewDictReader<unsigned int, int>(m, codes, count, values, entries);
    case 2: return NewDictReader<char, char>(m, codes, count, values, entries);
    case 3: return NewDictReader<unsigned char, char>(m, codes, count, values, entries);
    case 4: return NewDictReader<short, short>(m, codes, count, values, entries);
    case 5: return NewDictReader<unsigned short, short>(m, codes, count, values, entries);
    case 6: return NewDictReader<int64_t, unsigned int>(m, codes, count, values, entries);
    case 7: return NewDictReader<uint64_t, unsigned int>(m, codes, count, values, entries);
    case 8: return NewDictReader<double, unsigned int>(m, codes, count, values, entries);
    default: throw "Simple Type Writer not supported";
  }
}

// Kind 4: a string column: tail (43) of width 49 into the whole heap (48).
InternalReader* MakeStringColumnReader(CIManager& m, CIManager::ColumnEntry& e, res_col*, BAT*,
                                       BAT*) {
  const char *tail, *heap;
  int64_t count;
  int width;
  if (!m.GetAttrStr(e.second, 43, 1216, &tail) || !m.GetAttrLng(e.second, 44, 1217, &count) ||
      !m.GetAttrStr(e.second, 48, 1218, &heap) || !m.GetAttrInt(e.second, 49, 1219, &width))
    return nullptr;
  if (!CheckTailWidth(m, width) || !CheckSourceFile(m, tail, count, width) ||
      !CheckSourceFile(m, heap, 0, 1))
    return nullptr;
  const uint64_t rows = static_cast<uint64_t>(count);
  return new BatInternalReader<char*, unsigned int>(
      new StringReader(heap, tail, width, rows * width, MMF::kNoRequestedSize), nullptr, false,
      rows);
}

// Kind 5: a string dictionary column: 32-bit codes (43) into a dictionary whose key tail
// (46, width 49) holds one offset per entry into its heap (48).
InternalReader* MakeStringDictColumnReader(CIManager& m, CIManager::ColumnEntry& e, res_col*, BAT*,
                                           BAT*) {
  const char *codes, *keys, *heap;
  int64_t count, entries;
  int width;
  if (!m.GetAttrStr(e.second, 43, 1235, &codes) || !m.GetAttrLng(e.second, 44, 1236, &count) ||
      !m.GetAttrStr(e.second, 46, 1237, &keys) || !m.GetAttrLng(e.second, 47, 1238, &entries) ||
      !m.GetAttrStr(e.second, 48, 1239, &heap) || !m.GetAttrInt(e.second, 49, 1240, &width))
    return nullptr;
  if (!CheckTailWidth(m, width) || !CheckSourceFile(m, codes, count, 4) ||
      !CheckSourceFile(m, keys, entries, width) || !CheckSourceFile(m, heap, 0, 1))
    return nullptr;
  const uint64_t rows = static_cast<uint64_t>(count);
  return new BatInternalReader<char*, unsigned int>(
      nullptr,
      new StringDictReader(
          new SimpleTypeBATReader<unsigned int>(codes, rows * 4),
          new StringReader(heap, keys, width, static_cast<uint64_t>(entries) * width,
                           MMF::kNoRequestedSize)),
      false, rows);
}

// The construction of `kind` in a table, or null after reporting "<what> kind N not
// supported" (out of range, or no class in this version).
template <typename Maker, int N>
Maker FindMaker(CIManager& m, Maker (&table)[N], int kind, const char* place,
                const char* what) {
  if (kind >= 0 && kind < N && table[kind] != nullptr) return table[kind];
  m.ReportDetail(place, "%s kind %d not supported", what, kind);
  return nullptr;
}

}  // namespace

// A chunk of no values would drop every value of the column. A chunk is allocated whole
// for every column before its first value arrives, so an unbounded size is an unbounded
// allocation: 16777216 values is 128 MiB for 8-byte values (docs/attributes.md).
void CheckChunkSize(int chunk_size) {
  if (chunk_size < 1) throw "Chunk size must be at least 1";
  if (chunk_size > 16777216) throw "Chunk size must be at most 16777216";
}

void FillFactoryTables() {
  g_chunkers[0] = MakeSimpleTypeChunker;
  g_chunkers[1] = MakeSimpleTypeDictChunker;
  g_chunkers[2] = MakeStringChunker;
  g_chunkers[3] = MakeStringDictChunker;
  g_chunkers[4] = MakeDecimalChunker;
  g_chunkers[6] = MakeTimestampLevelsChunker;
  g_chunkers[7] = MakeTimestampDictChunker;
  g_writers[0] = MakeSimpleTypeWriter;
  g_writers[1] = MakeSimpleTypeDictWriter;
  g_writers[2] = MakeTimestampLevelsWriter;
  g_writers[3] = MakeLngWriter;
  g_writers[4] = MakeTimestampDictWriter;
  g_writers[5] = MakeStringWriter;
  g_writers[6] = MakeStringDictWriter;
  g_writers[7] = MakeDecimalWriter;
  g_readers[0] = MakeResultReader;
  g_readers[1] = MakeRowIdReader;
  g_readers[2] = MakePlainColumnReader;
  g_readers[3] = MakeDictColumnReader;
  g_readers[4] = MakeStringColumnReader;
  g_readers[5] = MakeStringDictColumnReader;
}

ChunkerBase* CreateChunker(CIManager& m, CIManager::ColumnEntry& e) {
  int kind, source, to_timestamp;
  if (!m.GetAttrInt(e.second, 0, 532, &kind) || !m.GetAttrInt(e.second, 33, 533, &source) ||
      !m.GetAttrInt(e.second, 50, 534, &to_timestamp))
    return nullptr;
  ChunkerMaker make = FindMaker(m, g_chunkers, kind, "ChunkerFactory", "Chunker");
  if (make == nullptr) return nullptr;
  ChunkerBase* c = make(m, e);
  if (c != nullptr)
    c->InitCastTable(ATOMindex, ATOMformat,
                     to_timestamp != 0 ? ATOMstrConvertToTimeStamp : ATOMstrConvert, GDKfree);
  return c;
}

BATWriter* CreateWriter(CIManager& m, CIManager::ColumnEntry& e) {
  int kind, queued, option;
  if (!m.GetAttrInt(e.second, 1, 552, &kind) || !m.GetAttrInt(e.second, 34, 553, &queued) ||
      !m.GetAttrInt(e.second, 36, 554, &option))
    return nullptr;
  WriterMaker make = FindMaker(m, g_writers, kind, "WriterFactory", "Writer");
  if (make == nullptr) return nullptr;
  BATWriter* w = make(m, e);
  if (w == nullptr) return nullptr;
  w->SetCompressed(option != 0);
  if (queued != 0) w->SetQueue(m.queue());
  return w;
}

InternalReader* CreateReader(CIManager& m, CIManager::ColumnEntry& e, res_col* column,
                             BAT* data, BAT* order) {
  int kind;
  if (!m.GetAttrInt(e.second, 33, 568, &kind)) return nullptr;
  ReaderMaker make = FindMaker(m, g_readers, kind, "ReaderFactory", "Reader");
  return make != nullptr ? make(m, e, column, data, order) : nullptr;
}

}  // namespace qopci
