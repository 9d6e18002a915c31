#include "chunkers/time_levels_chunker.h"

#include <corvid/mtime.h>

#include <algorithm>
#include <cstring>

#include "chunkers/calendar.h"

namespace qopci {
namespace {

constexpr int32_t kMsecsPerHour = 3600000;
constexpr size_t kRunBlock = 1024;  // values InsertRun converts at a time

int32_t HourOf(int64_t t) {
  const int32_t ms = static_cast<int32_t>(static_cast<uint32_t>(t));
  return ms == CVD_MSEC_NIL ? CVD_MSEC_NIL : ms / kMsecsPerHour;
}

int32_t DaysOf(int64_t t) { return static_cast<int32_t>(t >> 32); }

// The integer sources a timestamp column is read from without conversion.
bool IsWideSource(const char* type_name, size_t stride) {
  return stride == sizeof(int64_t) &&
         (std::strcmp(type_name, "timestamp") == 0 || std::strcmp(type_name, "lng") == 0);
}

}  // namespace

void TimestampStream::AppendConstant(int64_t v, size_t k) {
  if (k == 0) return;
  if (v == 0) {
    no_nil_ = false;
    v = nil_;
  }
  std::fill_n(chunk_->buffer_ + chunk_->count_, k, v);
  // Two equal values bring the statistics to a fixed point, unless the column is only
  // strictly ascending after a ClearSorted: then each value may count as a step.
  const size_t settled = !sorted_ && key_ ? k : std::min<size_t>(k, 2);
  for (size_t i = 0; i < settled; i++) UpdateStatistics(v);
  chunk_->count_ += static_cast<int32_t>(k);
  chunk_->size_ += k * sizeof(int64_t);
  value_count_ += k;
}

void TimestampStream::AppendRun(const int64_t* v, size_t k) {
  int64_t* out = chunk_->buffer_ + chunk_->count_;
  bool zero = false;
  for (size_t i = 0; i < k; i++) {
    zero |= v[i] == 0;
    out[i] = v[i] == 0 ? nil_ : v[i];
  }
  if (zero) no_nil_ = false;
  UpdateRunStatistics(out, k);
  chunk_->count_ += static_cast<int32_t>(k);
  chunk_->size_ += k * sizeof(int64_t);
  value_count_ += k;
}

TesselTimeLevelsChunker::TesselTimeLevelsChunker(int32_t chunk_size)
    : SimpleTypeChunker<int>(chunk_size),
      year_(chunk_size),
      quarter_(chunk_size),
      month_(chunk_size),
      day_(chunk_size) {}

BATChunk* TesselTimeLevelsChunker::TakeChunk() {
  BATChunk* const members[5] = {SimpleTypeChunker<int>::TakeChunk(), year_.TakeChunk(),
                                quarter_.TakeChunk(), month_.TakeChunk(), day_.TakeChunk()};
  return new TesselTimeLevelsChunk(members);
}

void TesselTimeLevelsChunker::AddToList(std::list<ChunkerBase*>& list) {
  SimpleTypeChunker<int>::AddToList(list);
  year_.AddToList(list);
  quarter_.AddToList(list);
  month_.AddToList(list);
  day_.AddToList(list);
}

bool TesselTimeLevelsChunker::InsertNil() {
  no_nil_ = false;
  const bool own = Store(nil_);
  const bool year = year_.InsertNil();
  const bool quarter = quarter_.InsertNil();
  const bool month = month_.InsertNil();
  const bool day = day_.InsertNil();
  return own && year && quarter && month && day;
}

TesselTimeLevelsChunker::DayCache& TesselTimeLevelsChunker::Lookup(int32_t days) {
  if (cache_.valid && cache_.days == days) [[likely]]
    return cache_;
  // Days before the month in a common year.
  static constexpr int32_t kBefore[13] = {0, 0, 31, 59, 90, 120, 151, 181, 212, 243, 273, 304, 334};
  const CivilDate d = SplitDayNumber(days);
  cache_.days = days;
  cache_.valid = true;
  cache_.quiet = false;
  cache_.nil = d.year == 0 && d.month == 0 && d.day == 0;
  if (cache_.nil) return cache_;
  // Day numbers run without a gap within a year, so the starts follow from the date.
  const int first_month = (d.month - 1) / 3 * 3 + 1;
  const bool leap = cvd_leapyear(d.year < 0 ? d.year + 1 : d.year);
  const int32_t month_start = days - (d.day - 1);
  const int32_t year_start = month_start - kBefore[d.month] - (leap && d.month > 2 ? 1 : 0);
  const int32_t quarter_start =
      year_start + kBefore[first_month] + (leap && first_month > 2 ? 1 : 0);
  cache_.base = static_cast<uint32_t>(LevelNumber(d.year, d.month, d.day, 0));
  cache_.starts[0] = Midnight(year_start);
  cache_.starts[1] = Midnight(quarter_start);
  cache_.starts[2] = Midnight(month_start);
  cache_.starts[3] = Midnight(days);
  return cache_;
}

bool TesselTimeLevelsChunker::InsertTimestamp(int64_t t) {
  if (IsChunkFull()) return false;
  // A timestamp of 0 has day number 0, which no date has: a nil row like the nil.
  DayCache& c = Lookup(DaysOf(t));
  if (c.nil) return InsertNil();
  Store(static_cast<int32_t>(c.base + static_cast<uint32_t>(HourOf(t))));
  if (c.quiet) {
    year_.AppendQuiet(c.starts[0]);
    quarter_.AppendQuiet(c.starts[1]);
    month_.AppendQuiet(c.starts[2]);
    day_.AppendQuiet(c.starts[3]);
    return true;
  }
  const bool year = year_.InsertVal(c.starts[0]);
  const bool quarter = quarter_.InsertVal(c.starts[1]);
  const bool month = month_.InsertVal(c.starts[2]);
  const bool day = day_.InsertVal(c.starts[3]);
  c.quiet = !year_.IsKey() && !quarter_.IsKey() && !month_.IsKey() && !day_.IsKey();
  return year && quarter && month && day;
}

size_t TesselTimeLevelsChunker::InsertTimestamps(const int64_t* t, size_t n) {
  const uint64_t room = chunk_->capacity_ - static_cast<uint64_t>(chunk_->count_);
  const size_t k = n < room ? n : static_cast<size_t>(room);
  size_t i = 0;
  while (i < k) {
    const int32_t days = DaysOf(t[i]);
    size_t j = i + 1;
    while (j < k && DaysOf(t[j]) == days) j++;
    const DayCache& c = Lookup(days);
    const size_t m = j - i;
    if (c.nil) {
      for (size_t r = 0; r < m; r++) InsertNil();
    } else {
      int32_t* out = chunk_->buffer_ + chunk_->count_;
      for (size_t r = 0; r < m; r++)
        out[r] = static_cast<int32_t>(c.base + static_cast<uint32_t>(HourOf(t[i + r])));
      UpdateRunStatistics(out, m);
      chunk_->count_ += static_cast<int32_t>(m);
      chunk_->size_ += m * sizeof(int32_t);
      value_count_ += m;
      year_.AppendConstant(c.starts[0], m);
      quarter_.AppendConstant(c.starts[1], m);
      month_.AppendConstant(c.starts[2], m);
      day_.AppendConstant(c.starts[3], m);
    }
    i = j;
  }
  return k;
}

int32_t TesselTimeLevelsChunker::LevelNumberOf(int64_t t) {
  const DayCache& c = Lookup(DaysOf(t));
  if (c.nil) return nil_;
  return static_cast<int32_t>(c.base + static_cast<uint32_t>(HourOf(t)));
}

TesselTimestampChunker::TesselTimestampChunker(int32_t chunk_size)
    : Chunker<int64_t>(chunk_size),
      stamps_(chunk_size),
      levels_(chunk_size),
      scratch_(new int64_t[kRunBlock]) {}

BATChunk* TesselTimestampChunker::TakeChunk() {
  BATChunk* stamps = stamps_.TakeChunk();
  return new TesselTimestampChunk(stamps, nullptr, levels_.TakeChunk());
}

void TesselTimestampChunker::AddToList(std::list<ChunkerBase*>& list) {
  stamps_.AddToList(list);
  levels_.AddToList(list);
}

void TesselTimestampChunker::UpdateExtremes(int64_t t) {
  if (t == *stamps_.GetNilValue() || t == 0) return;
  if (first_extreme_) {
    min_ = max_ = t;
    first_extreme_ = false;
    return;
  }
  min_ = std::min(min_, t);
  max_ = std::max(max_, t);
}

bool TesselTimestampChunker::InsertVal(int64_t t) {
  if (IsChunkFull()) return false;
  const bool stamp = stamps_.InsertVal(t);
  const bool levels = levels_.InsertTimestamp(t);
  UpdateStatistics(t);
  UpdateExtremes(t);
  return stamp && levels;
}

size_t TesselTimestampChunker::InsertRun(const void* src, const char* type_name, size_t n,
                                         size_t stride, const void* nil) {
  if (type_name != cast_name_) ResolveCast(type_name);
  if (!IsWideSource(type_name, stride))
    return ChunkerBase::InsertRun(src, type_name, n, stride, nil);
  int64_t nil_bits;
  std::memcpy(&nil_bits, nil, sizeof nil_bits);
  const int64_t stored_nil = *GetNilValue();
  const char* p = static_cast<const char*>(src);
  size_t done = 0;
  while (done < n && !IsChunkFull()) {
    const SimpleTypeChunk<int64_t>* c = stamps_.CurrentChunk();
    const uint64_t room = c->capacity_ - static_cast<uint64_t>(c->count_);
    size_t k = std::min<size_t>(n - done, kRunBlock);
    if (k > room) k = static_cast<size_t>(room);
    int64_t* v = scratch_.get();
    std::memcpy(v, p + done * sizeof(int64_t), k * sizeof(int64_t));
    for (size_t i = 0; i < k; i++)
      if (v[i] == nil_bits) v[i] = stored_nil;
    stamps_.AppendRun(v, k);
    levels_.InsertTimestamps(v, k);
    UpdateRunStatistics(v, k);
    for (size_t i = 0; i < k; i++) UpdateExtremes(v[i]);
    done += k;
  }
  return done;
}

bool TesselTimestampChunker::InsertDateTime(int year, int month, int day, int hour, int minute,
                                            int second, int millisecond) {
  if (IsChunkFull()) return false;
  const int64_t t = MakeTimestamp(year, month, day, hour, minute, second, millisecond);
  UpdateStatistics(t);
  return InsertVal(t);
}

}  // namespace qopci
