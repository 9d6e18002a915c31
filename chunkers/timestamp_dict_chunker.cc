#include "chunkers/timestamp_dict_chunker.h"

#include <corvid/mtime.h>

#include <cstring>

#include "chunkers/calendar.h"
#include "readers/simple_type_bat_reader.h"

namespace qopci {
namespace {

constexpr uint32_t kReportCapacity = 1024;  // bytes of the load log kept by a chunker
constexpr int64_t kNotStored = -1;          // a timestamp counted as a row but not stored

}  // namespace

TesselTimestampDictChunker::TesselTimestampDictChunker(int32_t chunk_size, bool nil_as_key)
    : DictChunkerInterface<int64_t>(chunk_size),
      nil_as_key_(nil_as_key),
      dictionary_(nil_as_key),
      levels_(chunk_size),
      stamps_(chunk_size),
      ordinals_(chunk_size) {}

BATChunk* TesselTimestampDictChunker::TakeChunk() {
  BATChunk* stamps = stamps_.TakeChunk();
  BATChunk* ordinals = ordinals_.TakeChunk();
  return new TesselTimestampChunk(stamps, ordinals, levels_.TakeChunk());
}

void TesselTimestampDictChunker::AddToList(std::list<ChunkerBase*>& list) {
  levels_.AddToList(list);
  ordinals_.AddToList(list);
  stamps_.AddToList(list);
}

// A row takes one place in the timestamp stream, and a new hour one in the levels.
bool TesselTimestampDictChunker::IsChunkFull() {
  return stamps_.IsChunkFull() || levels_.IsChunkFull();
}

bool TesselTimestampDictChunker::InsertVal(int64_t t) {
  // A time of day within its range on a day that has a date rebuilds to t itself, and its
  // level number is the one the levels store: the split and rebuild can be skipped.
  const int32_t msecs = static_cast<int32_t>(static_cast<uint32_t>(t));
  if (msecs >= 0 && msecs < 86400000) [[likely]] {
    const int32_t level = levels_.LevelNumberOf(t);
    if (level != *levels_.GetNilValue()) return AddRow(level, t);
  }
  const CivilDate d = SplitDayNumber(static_cast<int32_t>(t >> 32));
  const int32_t ms = static_cast<int32_t>(static_cast<uint32_t>(t));
  if (ms == CVD_MSEC_NIL)
    return InsertDateTime(d.year, d.month, d.day, CVD_MSEC_NIL, CVD_MSEC_NIL, CVD_MSEC_NIL,
                          CVD_MSEC_NIL);
  return InsertDateTime(d.year, d.month, d.day, ms / 3600000, ms % 3600000 / 60000,
                        ms % 60000 / 1000, ms % 1000);
}

size_t TesselTimestampDictChunker::InsertRun(const void* src, const char* type_name, size_t n,
                                             size_t stride, const void* nil) {
  if (type_name != cast_name_) ResolveCast(type_name);
  if (stride != sizeof(int64_t) ||
      (std::strcmp(type_name, "timestamp") != 0 && std::strcmp(type_name, "lng") != 0))
    return ChunkerBase::InsertRun(src, type_name, n, stride, nil);
  int64_t nil_bits;
  std::memcpy(&nil_bits, nil, sizeof nil_bits);
  const int64_t stored_nil = *GetNilValue();
  const char* p = static_cast<const char*>(src);
  size_t i = 0;
  for (; i < n && !IsChunkFull(); i++, p += sizeof(int64_t)) {
    int64_t v;
    std::memcpy(&v, p, sizeof v);
    InsertVal(v == nil_bits ? stored_nil : v);
  }
  return i;
}

bool TesselTimestampDictChunker::InsertDateTime(int year, int month, int day, int hour, int minute,
                                                int second, int millisecond) {
  return InsertPair(LevelNumber(year, month, day, hour),
                    MakeTimestamp(year, month, day, hour, minute, second, millisecond));
}

bool TesselTimestampDictChunker::InsertPair(int32_t level, int64_t timestamp) {
  // An entry is found again after a reload by the level number its levels row holds. For
  // a row of valid date and time that is `level`; a row whose date or time is nil stores
  // other levels (those of the nil row, or of the day a nil time lowers it to), and keyed
  // by `level` it would enter the dictionary once more at every export.
  (void)level;
  return AddRow(levels_.LevelNumberOf(timestamp), timestamp);
}

// With nil not a key, a nil row stays out of the dictionary, as in every dictionary column.
bool TesselTimestampDictChunker::AddRow(int32_t level, int64_t timestamp) {
  int code;
  if (level == *levels_.GetNilValue() && !nil_as_key_) {
    // Not coded: only its timestamp row is stored.
  } else if (!dictionary_.Find(level, &code)) {
    dictionary_.Insert(level, level);
    if (!levels_.InsertTimestamp(timestamp)) return false;
    if (!ordinals_.InsertVal(static_cast<int>(dictionary_.Size()))) return false;
  }
  if (timestamp != kNotStored && !stamps_.InsertVal(timestamp)) return false;
  ++row_count_;
  return true;
}

bool TesselTimestampDictChunker::InsertPairs(const int32_t* levels, const int64_t* timestamps,
                                             int n) {
  for (int i = 0; i < n; i++)
    if (!InsertPair(levels[i], timestamps[i])) return false;
  return true;
}

bool TesselTimestampDictChunker::LoadDictionary(const char* key_file, const char* heap_file,
                                                const char* code_file, uint64_t entry_count,
                                                TextLog* report) {
  (void)heap_file;
  const uint32_t start = report != nullptr && report->buffer != nullptr ? report->length : 0;
  bool ok = true;
  if (entry_count == 0) {
    // A new column: nothing to load.
  } else if (key_file == nullptr || code_file == nullptr) {
    TextLogAppend(report, "DictChunker::LoadDictionary", "no key file or code file given.");
    ok = false;
  } else {
    const uint64_t bytes = entry_count * sizeof(int32_t);
    ok = LoadDictionaryFrom<int, int>(dictionary_, new SimpleTypeBATReader<int>(key_file, bytes),
                                      new SimpleTypeBATReader<int>(code_file, bytes), report);
  }
  if (report != nullptr && report->buffer != nullptr)
    last_report_.assign(report->buffer + start, report->length - start);
  else
    last_report_.clear();
  return ok;
}

bool TesselTimestampDictChunker::LoadDictionary(const char* key_file, const char* heap_file,
                                                const char* code_file, uint64_t entry_count) {
  std::unique_ptr<char[]> buffer(new char[kReportCapacity]);
  buffer[0] = '\0';
  TextLog report{buffer.get(), kReportCapacity, 0};
  return LoadDictionary(key_file, heap_file, code_file, entry_count, &report);
}

}  // namespace qopci
