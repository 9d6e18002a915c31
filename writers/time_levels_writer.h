// Writers of timestamp columns stored with their time levels: one 32-bit level number per
// row (year, month, day and hour packed in decimal digits) and four timestamps at midnight
// (the start of the row's year, quarter and month, and its day).
//
// TesselTimeLevelsWriter appends the five level files; TesselTimestampWriter appends the
// timestamp file and hands the levels to a levels writer of its own;
// TesselTimestampDictWriter appends a dictionary of hours (its levels and key codes) and,
// when the column has one, the row part through a timestamp writer.
// Two rules are kept on purpose, and the copy manager makes up for them: a levels writer's
// Close closes only its own tail (the four member files close when the members are
// destroyed, so the manager closes every file writer it pairs with a BAT), and the
// dictionary writer does not destroy the chunk it is handed (it keeps the emptied chunk
// until it is itself destroyed).
// Threading: as BATWriter. The writes inside a timestamp or levels writer run one after
// another on the thread of their work item; the dictionary writer's members are separate
// work items and may run on three workers at once.
#ifndef QOPCI_WRITERS_TIME_LEVELS_WRITER_H_
#define QOPCI_WRITERS_TIME_LEVELS_WRITER_H_

#include <cstdint>
#include <list>
#include <memory>
#include <vector>

#include "writers/dict_bat_writer.h"
#include "writers/simple_type_bat_writer.h"

namespace qopci {

class TesselTimeLevelsWriter : public SimpleTypeBATWriter<int> {
 public:
  // tail receives the level numbers; members[0..3] the year, quarter and month starts and
  // the day. All five append at existing_count values when keep_existing. The names are
  // not copied and must outlive the writer.
  TesselTimeLevelsWriter(const char* tail, const char* const (&members)[4], bool keep_existing,
                         uint64_t existing_count);
  ~TesselTimeLevelsWriter() override;

  // Each applies to this writer, then to the four members in order.
  void SetQueue(ConcurrentQueue* queue) override;
  void SetCompressed(bool compressed) override;
  void RegisterIn(std::list<BATWriter*>& list) override;
  // Opens all five files; true when the four members opened, whatever the own tail gave.
  bool Open() override;
  // Close is the base's: it closes only the level-number tail. The members stay open until
  // they are destroyed, or closed one by one (member(k)->Close()).

  // REQUIRES: chunk is a TesselTimeLevelsChunk. Appends its first member to the own tail,
  // then writes the other four through the member writers on this thread, all four always.
  // True when the four member writes succeeded (the own tail's result does not count);
  // the chunk and its members are then destroyed. On failure every member not written is
  // destroyed and the emptied chunk object is left to the caller.
  bool WriteChunk(BATChunk* chunk) override;

  // Member k (0: year start, 1: quarter start, 2: month start, 3: day), owned.
  SimpleTypeBATWriter<int64_t>* member(int k) const { return members_[k].get(); }

 private:
  std::unique_ptr<SimpleTypeBATWriter<int64_t>> members_[4];
};

class TesselTimestampWriter : public SimpleTypeBATWriter<int64_t> {
 public:
  // tail receives the timestamps, levels[0..4] the level files in the order of
  // TesselTimeLevelsWriter (level numbers first). The names must outlive the writer.
  TesselTimestampWriter(const char* tail, const char* const (&levels)[5], bool keep_existing,
                        uint64_t existing_count);
  // Destroys the levels writer, then the own tail.
  ~TesselTimestampWriter() override;

  // Each applies to this writer, then to the levels writer.
  void SetQueue(ConcurrentQueue* queue) override;
  void SetCompressed(bool compressed) override;
  void RegisterIn(std::list<BATWriter*>& list) override;
  // Opens both, always; true when both opened.
  bool Open() override;
  // Closes the own tail, then calls the levels writer's Close. True when both succeeded.
  bool Close() override;
  // REQUIRES: chunk is a TesselTimestampChunk whose third member is a levels chunk; its
  // second member (null or not) is not written. Appends the timestamps, then hands the
  // levels to the levels writer whatever the first write gave. True when both succeeded;
  // the chunk and its members are then destroyed. On failure every member not written is
  // destroyed and the emptied chunk object is left to the caller.
  bool WriteChunk(BATChunk* chunk) override;

  TesselTimeLevelsWriter* levels() const { return levels_.get(); }

 private:
  std::unique_ptr<TesselTimeLevelsWriter> levels_;
};

class TesselTimestampDictWriter : public DictBATWriter {
 public:
  // Members: the dictionary's levels (dict_levels, always appended to at dictionary_count),
  // its key codes (int, likewise), and, when row_tail is not null, a timestamp writer of
  // the rows (row_tail and row_levels, kept when keep_existing, at row_count). The names
  // must outlive the writer.
  TesselTimestampDictWriter(const char* row_tail, const char* const (&row_levels)[5],
                            const char* key_codes, const char* const (&dict_levels)[5],
                            bool keep_existing, uint64_t dictionary_count, uint64_t row_count);
  ~TesselTimestampDictWriter() override;

  // REQUIRES: chunk is a TesselTimestampChunk of (row timestamps, ordinals, dictionary
  // levels). Submits its members in reverse order, without throttling: the levels to the
  // dictionary levels writer, the ordinals to the key-code writer, then, when the column has
  // a row part, the row chunk to the timestamp writer. Returns the first false, else true.
  // The chunk object is not destroyed here: on success it is kept, emptied, until this
  // writer is destroyed; on failure every member not handed over is destroyed and the
  // emptied object is left to the caller.
  bool WriteChunk(BATChunk* chunk) override;

 private:
  std::vector<std::unique_ptr<BATChunk>> kept_;  // emptied chunks of successful writes
};

}  // namespace qopci

#endif  // QOPCI_WRITERS_TIME_LEVELS_WRITER_H_
