// The chunkers of a timestamp column stored with its time levels.
//
// Beside each timestamp (day number in the high 32 bits, milliseconds in the low 32) the
// column keeps five level streams, so that a query can group by calendar period without
// computing one per row:
//   level number  int     ((year * 100 + month) * 100 + day) * 100 + hour, in unsigned
//                         32-bit arithmetic (years above 2147 wrap; the hour of a nil time
//                         is 0x80000000)
//   year start    int64   midnight of 1 January of the row's year
//   quarter start int64   midnight of the first day of its quarter
//   month start   int64   midnight of the first day of its month
//   day           int64   midnight of its day
// A timestamp of 0, a nil one, or one whose day number has no calendar date is a nil row:
// every stream gets its nil.
// TesselTimeLevelsChunker fills the five streams; TesselTimestampChunker fills the
// timestamp stream and the five level streams; the dictionary form is in
// timestamp_dict_chunker.h.
// Threading: one thread per chunker.
#ifndef QOPCI_CHUNKERS_TIME_LEVELS_CHUNKER_H_
#define QOPCI_CHUNKERS_TIME_LEVELS_CHUNKER_H_

#include <cstddef>
#include <cstdint>
#include <list>
#include <memory>

#include "chunkers/bat_chunk.h"
#include "chunkers/simple_type_chunker.h"
#include "chunkers/timestamp_chunker.h"

namespace qopci {

// A TimestampChunker that also takes whole runs, for the level and timestamp streams.
class TimestampStream : public TimestampChunker {
 public:
  using TimestampChunker::TimestampChunker;
  // Stores k copies of v, v[0..k) respectively, exactly as k InsertVal calls would.
  // REQUIRES: the chunk has room for k more values.
  void AppendConstant(int64_t v, size_t k);
  void AppendRun(const int64_t* v, size_t k);
  // Stores v without touching the statistics. REQUIRES: room for one more value, v is not
  // 0, and InsertVal(v) would leave the statistics as they are.
  void AppendQuiet(int64_t v) {
    chunk_->buffer_[chunk_->count_++] = v;
    chunk_->size_ += sizeof(int64_t);
    ++value_count_;
  }
};

// Its own stream (chunk, statistics, IsChunkFull) is the level number; it owns the four
// start-of-period streams, which fill in step with it.
class TesselTimeLevelsChunker : public SimpleTypeChunker<int> {
 public:
  // Throws "Chunk size must not be negative" for chunk_size < 0.
  explicit TesselTimeLevelsChunker(int32_t chunk_size);

  // A TesselTimeLevelsChunk of the level, year-start, quarter-start, month-start and day
  // chunks; the caller owns it and its five members.
  BATChunk* TakeChunk() override;
  // Itself (the level numbers), then the year-start, quarter-start, month-start and day
  // streams: one description per file.
  void AddToList(std::list<ChunkerBase*>& list) override;
  // Clears the no-nil flag and stores nil in all five streams.
  bool InsertNil() override;

  // Stores the five levels of t. False, storing nothing, when the chunk is full.
  virtual bool InsertTimestamp(int64_t t);
  // The run form of InsertTimestamp: stores t[0..n) in order until the chunk is full and
  // returns how many it stored. The streams and flags end as n InsertTimestamp calls
  // would leave them.
  virtual size_t InsertTimestamps(const int64_t* t, size_t n);
  // The level number InsertTimestamp would store for t (the int nil for a nil row), with
  // nothing stored.
  virtual int32_t LevelNumberOf(int64_t t);

  // The member streams; the chunker keeps ownership.
  TimestampChunker& YearStarts() { return year_; }
  TimestampChunker& QuarterStarts() { return quarter_; }
  TimestampChunker& MonthStarts() { return month_; }
  TimestampChunker& Days() { return day_; }

 private:
  // The levels of the last day seen: a row of the same day needs only its hour. Once a
  // row of the day is stored and the four start streams are no longer strictly ascending,
  // storing the same starts again cannot change their statistics (this holds as long as
  // SetPreviousValue seeds the streams only before the first insert, as it is meant to).
  struct DayCache {
    int32_t days = 0;                  // the day number these levels are for
    bool valid = false;                // set once a day has been split
    bool nil = true;                   // the day number has no calendar date
    uint32_t base = 0;                 // the level number of the day at hour 0
    int64_t starts[4] = {0, 0, 0, 0};  // year, quarter, month and day starts
    bool quiet = false;                // the start streams' statistics are settled for this day
  };
  DayCache& Lookup(int32_t days);

  TimestampStream year_;
  TimestampStream quarter_;
  TimestampStream month_;
  TimestampStream day_;
  DayCache cache_;
};

// A timestamp column with its levels: the timestamp stream (a TimestampChunker, whose
// values are what the timestamp file holds, 0 turned to nil) and a TesselTimeLevelsChunker.
// Its own statistics (sorted, key, ascending steps, and the minimum and maximum timestamp
// that is neither nil nor 0) follow the timestamps as inserted.
class TesselTimestampChunker : public Chunker<int64_t> {
 public:
  // Throws "Chunk size must not be negative" for chunk_size < 0.
  explicit TesselTimestampChunker(int32_t chunk_size);

  // A TesselTimestampChunk(timestamp chunk, nullptr, levels chunk); the caller owns it and
  // its members. The second member is left for the dictionary form.
  BATChunk* TakeChunk() override;
  // The timestamp stream, then the five level streams: six descriptions, one per file.
  void AddToList(std::list<ChunkerBase*>& list) override;
  bool IsChunkFull() override { return stamps_.IsChunkFull(); }
  uint64_t GetValueCount() override { return stamps_.GetValueCount(); }
  const int64_t* GetNilValue() override { return stamps_.GetNilValue(); }

  // Stores t in the timestamp stream and its levels, then updates the statistics with t.
  // False, storing nothing, when the chunk is full.
  bool InsertVal(int64_t t) override;
  // "timestamp" and "lng" sources of stride 8 go through one tight loop; others value by
  // value. Ends exactly as the same InsertValue calls would.
  size_t InsertRun(const void* src, const char* type_name, size_t n, size_t stride,
                   const void* nil) override;
  // Builds the timestamp as TimestampChunker::InsertDateTime does, updates the statistics
  // with it, then InsertVal's it (a second update: the value meets itself, so the key flag
  // is cleared by any call).
  virtual bool InsertDateTime(int year, int month, int day, int hour, int minute, int second,
                              int millisecond);

  // Smallest and largest timestamp seen that is neither nil nor 0; meaningful only when
  // HasExtremes.
  int64_t Minimum() const { return min_; }
  int64_t Maximum() const { return max_; }
  bool HasExtremes() const { return !first_extreme_; }

  // The member streams; the chunker keeps ownership.
  TimestampChunker& Timestamps() { return stamps_; }
  TesselTimeLevelsChunker& Levels() { return levels_; }

 private:
  void UpdateExtremes(int64_t t);

  TimestampStream stamps_;
  TesselTimeLevelsChunker levels_;
  std::unique_ptr<int64_t[]> scratch_;  // chunk-size values read by InsertRun
  int64_t min_ = 0;
  int64_t max_ = 0;
  bool first_extreme_ = true;  // no minimum and maximum yet
};

}  // namespace qopci

#endif  // QOPCI_CHUNKERS_TIME_LEVELS_CHUNKER_H_
