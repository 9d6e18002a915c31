#include "writers/time_levels_writer.h"

#include <cerrno>

#include "writers/writer_chunk_pair.h"

namespace qopci {
namespace {

// Destroys chunk and, through the time-level composites, every member it still points
// at; each pointer is cleared before its chunk goes, so that a composite which owns its
// members finds nothing left to destroy twice.
void DestroyChunk(BATChunk* chunk) {
  if (auto* t = dynamic_cast<TesselTimestampChunk*>(chunk)) {
    for (BATChunk*& m : t->members_) {
      BATChunk* part = m;
      m = nullptr;
      DestroyChunk(part);
    }
  } else if (auto* l = dynamic_cast<TesselTimeLevelsChunk*>(chunk)) {
    for (BATChunk*& m : l->members_) {
      BATChunk* part = m;
      m = nullptr;
      DestroyChunk(part);
    }
  }
  delete chunk;
}

template <size_t N>
void DestroyMembers(BATChunk* (&members)[N]) {
  for (BATChunk*& m : members) {
    BATChunk* part = m;
    m = nullptr;
    DestroyChunk(part);
  }
}

TesselTimeLevelsWriter* NewLevelsWriter(const char* const (&names)[5], bool keep_existing,
                                        uint64_t existing_count) {
  const char* const members[4] = {names[1], names[2], names[3], names[4]};
  return new TesselTimeLevelsWriter(names[0], members, keep_existing, existing_count);
}

}  // namespace

// ---- TesselTimeLevelsWriter -----------------------------------------------------------

TesselTimeLevelsWriter::TesselTimeLevelsWriter(const char* tail, const char* const (&members)[4],
                                               bool keep_existing, uint64_t existing_count)
    : SimpleTypeBATWriter<int>(tail, keep_existing, existing_count) {
  for (int k = 0; k < 4; ++k)
    members_[k].reset(new SimpleTypeBATWriter<int64_t>(members[k], keep_existing, existing_count));
}

TesselTimeLevelsWriter::~TesselTimeLevelsWriter() = default;

void TesselTimeLevelsWriter::SetQueue(ConcurrentQueue* queue) {
  SimpleTypeBATWriter<int>::SetQueue(queue);
  for (auto& m : members_) m->SetQueue(queue);
}

void TesselTimeLevelsWriter::SetCompressed(bool compressed) {
  SimpleTypeBATWriter<int>::SetCompressed(compressed);
  for (auto& m : members_) m->SetCompressed(compressed);
}

void TesselTimeLevelsWriter::RegisterIn(std::list<BATWriter*>& list) {
  SimpleTypeBATWriter<int>::RegisterIn(list);
  for (auto& m : members_) m->RegisterIn(list);
}

bool TesselTimeLevelsWriter::Open() {
  SimpleTypeBATWriter<int>::Open();  // ignored: the members decide
  bool ok = true;
  for (auto& m : members_) ok = m->Open() && ok;
  return ok;
}

bool TesselTimeLevelsWriter::WriteChunk(BATChunk* chunk) {
  auto* c = dynamic_cast<TesselTimeLevelsChunk*>(chunk);
  if (c == nullptr) {
    errno = EINVAL;
    return false;
  }
  // The level numbers; a failure here does not fail the chunk. The copy manager finds a
  // tail shorter than its rows when it describes the file, and the export fails there.
  if (c->members_[0] != nullptr && SimpleTypeBATWriter<int>::WriteChunk(c->members_[0]))
    c->members_[0] = nullptr;
  int err = 0;
  for (int k = 1; k <= 4; ++k) {
    BATChunk* part = c->members_[k];
    if (part != nullptr && members_[k - 1]->WriteChunk(part)) {
      c->members_[k] = nullptr;  // written and destroyed
    } else if (err == 0) {
      err = part != nullptr ? errno : EINVAL;
    }
  }
  if (err != 0) {
    DestroyMembers(c->members_);
    errno = err;
    return false;
  }
  DestroyMembers(c->members_);  // the level numbers, when the own tail did not take them
  delete c;
  return true;
}

// ---- TesselTimestampWriter ------------------------------------------------------------

TesselTimestampWriter::TesselTimestampWriter(const char* tail, const char* const (&levels)[5],
                                             bool keep_existing, uint64_t existing_count)
    : SimpleTypeBATWriter<int64_t>(tail, keep_existing, existing_count),
      levels_(NewLevelsWriter(levels, keep_existing, existing_count)) {}

// levels_ goes first, being a member of this class; the own tail goes with the base.
TesselTimestampWriter::~TesselTimestampWriter() = default;

void TesselTimestampWriter::SetQueue(ConcurrentQueue* queue) {
  SimpleTypeBATWriter<int64_t>::SetQueue(queue);
  levels_->SetQueue(queue);
}

void TesselTimestampWriter::SetCompressed(bool compressed) {
  SimpleTypeBATWriter<int64_t>::SetCompressed(compressed);
  levels_->SetCompressed(compressed);
}

void TesselTimestampWriter::RegisterIn(std::list<BATWriter*>& list) {
  SimpleTypeBATWriter<int64_t>::RegisterIn(list);
  levels_->RegisterIn(list);
}

bool TesselTimestampWriter::Open() {
  bool own = SimpleTypeBATWriter<int64_t>::Open();
  bool levels = levels_->Open();
  return own && levels;
}

bool TesselTimestampWriter::Close() {
  bool own = SimpleTypeBATWriter<int64_t>::Close();
  bool levels = levels_->Close();
  return own && levels;
}

bool TesselTimestampWriter::WriteChunk(BATChunk* chunk) {
  auto* c = dynamic_cast<TesselTimestampChunk*>(chunk);
  if (c == nullptr || c->members_[0] == nullptr || c->members_[2] == nullptr) {
    errno = EINVAL;
    return false;
  }
  int err = 0;
  if (SimpleTypeBATWriter<int64_t>::WriteChunk(c->members_[0]))
    c->members_[0] = nullptr;
  else
    err = errno;
  // The levels are written whatever the timestamps gave.
  if (levels_->WriteChunk(c->members_[2]))
    c->members_[2] = nullptr;
  else if (err == 0)
    err = errno;
  // The second member, when there is one, is no file of this writer: it goes either way.
  DestroyMembers(c->members_);
  if (err != 0) {
    errno = err;
    return false;
  }
  delete c;
  return true;
}

// ---- TesselTimestampDictWriter --------------------------------------------------------

TesselTimestampDictWriter::TesselTimestampDictWriter(const char* row_tail,
                                                     const char* const (&row_levels)[5],
                                                     const char* key_codes,
                                                     const char* const (&dict_levels)[5],
                                                     bool keep_existing, uint64_t dictionary_count,
                                                     uint64_t row_count)
    : DictBATWriter(row_levels[0], dictionary_count, row_count, keep_existing,
                    NewLevelsWriter(dict_levels, true, dictionary_count),
                    new SimpleTypeBATWriter<int>(key_codes, true, dictionary_count),
                    row_tail != nullptr
                        ? new TesselTimestampWriter(row_tail, row_levels, keep_existing, row_count)
                        : nullptr) {}

TesselTimestampDictWriter::~TesselTimestampDictWriter() = default;

bool TesselTimestampDictWriter::WriteChunk(BATChunk* chunk) {
  auto* c = dynamic_cast<TesselTimestampChunk*>(chunk);
  if (c == nullptr) {
    errno = EINVAL;
    return false;
  }
  // Member writer i takes chunk member 2 - i: levels, ordinals, then the rows.
  for (int i = 0; i < 3; ++i) {
    BATChunk* part = c->members_[2 - i];
    c->members_[2 - i] = nullptr;
    if (member(i) == nullptr) {
      DestroyChunk(part);  // a column without a row part has no use for the rows
      continue;
    }
    if (part == nullptr || !SubmitChunk(member(i), part, false)) {
      int err = part != nullptr ? errno : EINVAL;
      // A rejected item was released by the queue; a failed direct write left its chunk.
      if (member(i)->GetQueue() == nullptr) DestroyChunk(part);
      DestroyMembers(c->members_);
      errno = err;
      return false;
    }
  }
  kept_.emplace_back(c);
  return true;
}

}  // namespace qopci
