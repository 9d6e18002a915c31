#include "copy_into/ci_manager.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <exception>

#include "chunkers/chunker_base.h"
#include "copy_into/factories.h"
#include "queue/concurrent_queue.h"
#include "readers/internal_reader.h"
#include "writers/bat_writer.h"
#include "writers/dict_bat_writer.h"
#include "writers/writer_chunk_pair.h"


namespace qopci {

namespace {

char g_error_buffer[kErrorBufferSize];  // the reports and GET_COL_ATTR messages
char g_scratch[kErrorBufferSize];       // receives reports made after the first error

bool g_tables_filled = false;

// The writers of a writer set that each write one file, in registration order. A dictionary
// writer registers itself ahead of its members but writes no file of its own (its members
// write the keys, the key codes and the row codes), so it is left out: the chunker lists one
// description per member, and the two lists then pair one to one.
std::list<BATWriter*> FileWriters(BATWriter* set) {
  std::list<BATWriter*> all;
  set->RegisterIn(all);
  all.remove_if([](BATWriter* w) { return dynamic_cast<DictBATWriter*>(w) != nullptr; });
  return all;
}

// The chunker's per-file descriptions, in the order they pair with FileWriters(set). A
// dictionary chunker lists the dictionary's files before the row part's; a dictionary
// writer without a row part (an empty row file name) writes only the former, so the row
// part's descriptions are left out and the dictionary's pair with its files.
std::list<ChunkerBase*> Descriptions(ChunkerBase* chunker, BATWriter* set, size_t files) {
  std::list<ChunkerBase*> list;
  chunker->AddToList(list);
  auto* dict = dynamic_cast<DictBATWriter*>(set);
  if (dict != nullptr && dict->member(2) == nullptr && list.size() > files) list.resize(files);
  return list;
}

}  // namespace

// ---- ValSizePair ----------------------------------------------------------------------

CIManager::ValSizePair::ValSizePair(const void* bytes, int32_t size)
    : value_(new uint8_t[size]), size_(size), refs_(new int32_t(1)) {
  std::memcpy(value_, bytes, size);
}

void CIManager::ValSizePair::Release() {
  if (refs_ != nullptr && --*refs_ < 1) {
    delete[] value_;
    delete refs_;
  }
  value_ = nullptr;
  size_ = 0;
  refs_ = nullptr;
}

CIManager::ValSizePair& CIManager::ValSizePair::operator=(const ValSizePair& other) {
  if (this == &other) return *this;
  Release();
  if (other.value_ != nullptr && other.refs_ == nullptr)
    throw "Has value without reference counting";
  value_ = other.value_;
  size_ = other.size_;
  refs_ = other.refs_;
  if (refs_ != nullptr) ++*refs_;
  return *this;
}

// ---- Jobs ----------------------------------------------------------------------------

CIManager::ColumnJob::ColumnJob(CIManager* m, const char* n, ChunkerBase* c, BATWriter* w)
    : manager(m), name(GDKstrdup(n)), chunker(c), writer(w) {}

CIManager::ColumnJob::~ColumnJob() {
  delete chunker;
  delete writer;
  GDKfree(name);
}

// ---- Manager -------------------------------------------------------------------------

CIManager::CIManager() : queue_(std::make_unique<ConcurrentQueue>(nullptr, 0)) {
  if (!g_tables_filled) {
    FillFactoryTables();
    g_tables_filled = true;
  }
}

CIManager::~CIManager() {
  // Jobs hold writers that queued items may still name; drain before destroying them.
  queue_->WaitForProcessingEnd();
  jobs_.clear();
}

void CIManager::AddAttribute(const char* column, int attr, const void* bytes, int32_t size) {
  registry_[column][attr] = ValSizePair(bytes, size);
}

char* CIManager::Report(const char* place, const char* message) {
  if (error_ != nullptr) return g_scratch;
  // "%s(): %s: %s", cut to the buffer.
  std::string text = std::string(place) + "(): " + column_name_ + ": " + message;
  size_t n = std::min(text.size(), sizeof g_error_buffer - 1);
  std::memcpy(g_error_buffer, text.data(), n);
  g_error_buffer[n] = '\0';
  error_ = g_error_buffer;
  return g_error_buffer + n;
}

void CIManager::ReportDetail(const char* place, const char* format, ...) {
  char* tail = Report(place, "");
  size_t room = tail >= g_scratch && tail < g_scratch + sizeof g_scratch
                    ? sizeof g_scratch
                    : sizeof g_error_buffer - (tail - g_error_buffer);
  va_list ap;
  va_start(ap, format);
  std::vsnprintf(tail, room, format, ap);
  va_end(ap);
}

namespace {

// Finds an attribute of the expected size; otherwise writes the GET_COL_ATTR message into
// the error buffer, whatever it held, and marks the manager failed.
const CIManager::ValSizePair* FindAttr(const CIManager::AttrMap& attrs, int attr, int line,
                                       int32_t size, const char** error) {
  auto it = attrs.find(attr);
  if (it == attrs.end()) {
    std::snprintf(g_error_buffer, sizeof g_error_buffer,
                  "GET_COL_ATTR : Column attribute %d not found at line %d", attr, line);
    *error = g_error_buffer;
    return nullptr;
  }
  if (it->second.size() != size) {
    std::snprintf(g_error_buffer, sizeof g_error_buffer,
                  "GET_COL_ATTR : Value size mismatch at line %d", line);
    *error = g_error_buffer;
    return nullptr;
  }
  return &it->second;
}

}  // namespace

bool CIManager::GetAttrInt(const AttrMap& attrs, int attr, int line, int* out) {
  const ValSizePair* v = FindAttr(attrs, attr, line, 4, &error_);
  if (v == nullptr) return false;
  std::memcpy(out, v->value(), 4);
  return true;
}

bool CIManager::GetAttrLng(const AttrMap& attrs, int attr, int line, int64_t* out) {
  const ValSizePair* v = FindAttr(attrs, attr, line, 8, &error_);
  if (v == nullptr) return false;
  std::memcpy(out, v->value(), 8);
  return true;
}

bool CIManager::GetAttrStr(const AttrMap& attrs, int attr, int line, const char** out) {
  const ValSizePair* v = FindAttr(attrs, attr, line, 8, &error_);
  if (v == nullptr) return false;
  std::memcpy(out, v->value(), 8);
  return true;
}

int CIManager::FindBATByFileName(const char* file_name) {
  std::string name(file_name);
  size_t dot = name.rfind('.');
  if (dot != std::string::npos) name.resize(dot);
  char physical[1024];
  const int last = BBPsize() - 1;
  int i = 0;
  for (; i < last; i++) {
    BBPphysical(i, physical);
    size_t len = std::strlen(physical);
    if (len == 0 || len >= name.size()) continue;
    char before = name[name.size() - len - 1];
    if ((before == '/' || before == '\\') &&
        name.compare(name.size() - len, len, physical) == 0)
      break;
  }
  return i;
}

BAT* CIManager::FindWriterBAT(const char* place, BATWriter* writer, bat* id) {
  *id = FindBATByFileName(writer->GetFileName());
  BAT* b = *id >= 1 ? BBPgetdesc(*id) : nullptr;
  if (b == nullptr)
    ReportDetail(place, "Didn't find matching BAT for file %s", writer->GetFileName());
  return b;
}

bool CIManager::CheckWriterAgainstBAT(BATWriter* writer, const BAT* target) {
  const auto existing = static_cast<unsigned long long>(writer->GetExistingCount());
  const auto rows = static_cast<unsigned long long>(target->batCount);
  if (writer->GetTailKeepExisting()) {
    if (existing == rows) return true;
    ReportDetail("CIManager::CopyIntoOneColumn",
                 "Existing count %llu of file %s differs from the %llu rows of its BAT", existing,
                 writer->GetFileName(), rows);
  } else if (existing != 0) {
    ReportDetail("CIManager::CopyIntoOneColumn",
                 "Existing count %llu of file %s given to a writer that writes anew", existing,
                 writer->GetFileName());
  } else if (rows != 0) {
    ReportDetail("CIManager::CopyIntoOneColumn",
                 "Writing file %s anew would destroy the %llu rows of its BAT",
                 writer->GetFileName(), rows);
  } else {
    return true;
  }
  return false;
}

void CIManager::SeedFromTarget(ChunkerBase* description, BATWriter* writer, bat id) {
  BAT* b = BBPgetdesc(id);
  if (b == nullptr || !writer->GetTailKeepExisting() || b->batCount == 0 ||
      b->twidth != description->ElementSize())
    return;
  if (b->theap.base == nullptr && BATload_intern(id, 0) == nullptr) return;
  const void* last = BUNtail(b, b->batCount - 1);
  if (last != nullptr) description->SetPreviousValueFrom(last);
}

bool CIManager::ExecuteCopyInto(mvc* context, int result_id) {
  res_table* table = context->results;
  while (table != nullptr && table->id != result_id) table = table->next;
  context_ = context;
  queue_->ResetOK();
  if (table == nullptr) {
    Report("CIManager::ExecuteCopyInto", "Can't find result table");
    return false;
  }
  BAT* order = table->order != 0 ? BBPdescriptor(table->order) : nullptr;
  if (table->order != 0 && order == nullptr)
    Report("CIManager::ExecuteCopyInto", "Can't load order BAT");

  for (ColumnEntry& entry : registry_) {
    if (!queue_->m_bOK || error_ != nullptr) break;
    column_name_ = entry.first.c_str();
    res_col* found = nullptr;
    for (int c = 0; c < table->nr_cols && found == nullptr; c++)
      if (std::strcmp(table->cols[c].name, entry.first.c_str()) == 0) found = &table->cols[c];
    if (found != nullptr) {
      CopyIntoOneColumn(found, order, entry);
      continue;
    }
    int source = 0;
    if (!GetAttrInt(entry.second, 33, 157, &source)) break;
    if (source >= 1 && source <= 5) {
      CopyIntoOneColumn(nullptr, order, entry);
    } else {
      Report("CIManager::ExecuteCopyInto", "Can't find result column");
      break;
    }
  }
  // A write that failed on a worker is reported by UpdateBBP, with the queue's text.
  bool ok = error_ == nullptr;
  if (order != nullptr) BBPreleaseref(table->order);
  queue_->WaitForProcessingEnd();
  context->results = res_tables_remove(context->results, table);
  return ok;
}

void CIManager::CopyIntoOneColumn(res_col* column, BAT* order, ColumnEntry& entry) {
  BAT* data = nullptr;
  if (column != nullptr) {
    data = BBPdescriptor(column->b);
    if (data == nullptr) {
      Report("CIManager::CopyIntoOneColumn", "Can't load result column");
      return;
    }
  }
  std::unique_ptr<InternalReader> reader;
  try {
    if (order != nullptr) {
      if (order->batCount == 0) {
        if (data != nullptr) BBPreleaseref(column->b);
        return;
      }
      if (data != nullptr && data->batCount != order->batCount) {
        Report("CIManager::CopyIntoOneColumn", "Result column size doesn't match order BAT size");
        BBPreleaseref(column->b);
        return;
      }
    }
    // The job owns the chunker and writer from the start, so a construction that throws
    // leaves nothing behind.
    jobs_.push_back(std::make_unique<ColumnJob>(
        this, column != nullptr ? column->name : entry.first.c_str(), nullptr, nullptr));
    ColumnJob& job = *jobs_.back();
    // All three are built whatever the one before gave: each records its own lookup
    // failures, and the last one recorded is the text the host sees.
    reader.reset(CreateReader(*this, entry, column, data, order));
    job.chunker = CreateChunker(*this, entry);
    job.writer = CreateWriter(*this, entry);
    ChunkerBase* chunker = job.chunker;
    BATWriter* writer = job.writer;
    if (error_ == nullptr && writer != nullptr) {
      const std::list<BATWriter*> files = FileWriters(writer);
      // The per-file chunkers pair with the files in step, as UpdateBBPWithGo pairs them.
      std::list<ChunkerBase*> descriptions;
      if (chunker != nullptr) descriptions = Descriptions(chunker, writer, files.size());
      auto desc = descriptions.size() == files.size() ? descriptions.begin() : descriptions.end();
      for (BATWriter* w : files) {
        if (error_ != nullptr) break;
        bat idx;
        BAT* target = FindWriterBAT("CIManager::CopyIntoOneColumn", w, &idx);
        if (target == nullptr) break;
        if (!CheckWriterAgainstBAT(w, target)) break;
        bat own = data != nullptr ? data->batCacheid : 0;
        bat own_parent = data != nullptr && data->batParent != 0 ? data->batParent : own;
        if (desc != descriptions.end()) {
          if (idx != own && idx != own_parent) SeedFromTarget(*desc, w, idx);
          ++desc;
        }
        if (idx != own && idx != own_parent) {
          if (target->theap.base != nullptr) BATfree(target);
          BBPuncacheit(idx, 0);
          BBPreleaseref(idx);
        }
      }
    }
    // A writer opened after an error would still cut its file to what it was told the file
    // holds when it is destroyed; only a column that passed every check touches its files.
    if (error_ == nullptr && writer != nullptr) writer->Open();
    if (error_ == nullptr && reader && chunker != nullptr && writer != nullptr)
      FeedColumn(*reader, *chunker, *writer);
  } catch (const char* text) {
    Report("CIManager::CopyIntoOneColumn", text);
  } catch (const std::exception& e) {
    Report("CIManager::CopyIntoOneColumn", e.what());
  }
  reader.reset();
  if (data != nullptr) BBPreleaseref(column->b);
}

// Pulls every value from the reader into the chunker and hands each full chunk, and the
// last one, to the writer. Runs of values that lie next to each other are inserted in one
// call; they give the same chunks, nil flags and statistics as inserting one by one.
void CIManager::FeedColumn(InternalReader& reader, ChunkerBase& chunker, BATWriter& writer) {
  constexpr size_t kRunLength = 1 << 16;
  const int type = reader.type();
  const char* type_name = ATOMname(type);
  const void* nil = ATOMnil(type);
  const size_t stride = static_cast<size_t>(ATOMsize(type));
  // After each value: hand the chunk out when it is full or the column has ended.
  auto hand_out = [&](bool last_of_run) {
    if (!chunker.IsChunkFull() && !(last_of_run && reader.atEnd())) return true;
    BATChunk* chunk = chunker.TakeChunk();
    if (SubmitChunk(&writer, chunk, true) || writer.GetQueue() != nullptr) return true;
    // A synchronous write failed on this thread: same text as a worker's failure.
    char text[kErrorBufferSize];
    WriterChunkPair* pair = new WriterChunkPair(&writer, chunk);
    pair->CreateError(text, sizeof text);
    pair->ReleaseAll();
    Report("CIManager::CopyIntoOneColumn", text);
    return false;
  };
  while (!reader.atEnd()) {
    const void* base;
    size_t n = reader.NextRun(&base, kRunLength);
    if (n == 0) {
      const void* value = reader.next();
      if (value != nullptr) chunker.InsertValue(value, type_name, ATOMcmp(type, nil, value) == 0);
      if (!hand_out(true)) return;
      continue;
    }
    const char* p = static_cast<const char*>(base);
    while (n > 0) {
      size_t k = chunker.InsertRun(p, type_name, n, stride, nil);
      if (k == 0) {  // a chunk that is full at once still takes (and drops) the value
        chunker.InsertValue(p, type_name, std::memcmp(p, nil, stride) == 0);
        k = 1;
      }
      p += k * stride;
      n -= k;
      if (!hand_out(n == 0)) return;
    }
  }
}

bool CIManager::UpdateBBP(logger* lg) {
  logger_restart(lg);
  logger_cleanup(lg);
  column_name_ = "";
  if (!queue_->m_bOK) {
    std::string text = queue_->ErrorText();
    Report("CIManager::UpdateBBP", text.c_str());
    return false;
  }
  for (auto& job : jobs_) UpdateBBPWithGo(*job);
  // An export that recorded any error commits nothing: the descriptors it rewrote go back
  // to what the last commit holds.
  if (error_ == nullptr) {
    OIDnew(1);
    if (TMcommit() != 0) {
      column_name_ = "";
      Report("CIManager::UpdateBBP", "Commit failed");
    }
  }
  if (error_ != nullptr) RestoreDescriptors();
  return error_ == nullptr;
}

void CIManager::RestoreDescriptors() {
  for (const SavedDescriptor& s : saved_) {
    BAT* b = BBPgetdesc(s.id);
    if (b == nullptr) continue;
    *b = s.desc;
    if (b->tvheap != nullptr) {
      b->tvheap->free = s.heap_free;
      b->tvheap->size = s.heap_size;
    }
    RefreshColumn(s.id);
  }
  saved_.clear();
}

void CIManager::UpdateBBPWithGo(ColumnJob& job) {
  if (error_ != nullptr || job.chunker == nullptr || job.writer == nullptr) return;
  column_name_ = job.name;
  const std::list<BATWriter*> writers = FileWriters(job.writer);
  const std::list<ChunkerBase*> descriptions =
      Descriptions(job.chunker, job.writer, writers.size());
  job.writer->Close();
  // A writer set's Close need not close every file: a time-levels writer closes only its
  // own tail and leaves its four members open until they are destroyed. The host reads each
  // file's size below, so every file is closed (and cut to what was written) here; Close of
  // a closed file does nothing.
  for (BATWriter* w : writers) w->Close();
  if (descriptions.size() != writers.size()) {
    Report("UpdateBBPWithGo", "Number of chunkers doesn't equal to writers");
    return;
  }
  auto desc = descriptions.begin();
  for (BATWriter* w : writers) {
    ChunkerBase* d = *desc++;
    if (error_ != nullptr) break;
    bat idx;
    BAT* b = FindWriterBAT("UpdateBBPWithGo", w, &idx);
    if (b == nullptr) break;
    int width;
    if (b->ttype == TYPE_str) {
      width = 8;
    } else if (b->ttype < 0) {
      width = ATOMsize(ATOMindex(ATOMunknown_name(b->ttype)));
    } else {
      width = ATOMsize(b->ttype);
    }
    if (d->ElementSize() != width) {
      ReportDetail("UpdateBBPWithGo", "Chunker element size %d is different from BAT element "
                   "size %d of type %s", d->ElementSize(), width, ATOMname(b->ttype));
      break;
    }
    const bool appends = w->GetTailKeepExisting();
    const BUN base = appends ? b->batCount : 0;
    const BUN rows = base + d->GetValueCount();
    // A write whose failure does not fail its chunk (a levels writer's own tail) leaves a
    // file shorter than its rows: refuse it rather than describe rows that are not there.
    const uint64_t need = static_cast<uint64_t>(rows) * w->GetValueWidth();
    if (w->GetTailSize() < need) {
      ReportDetail("UpdateBBPWithGo", "File %s holds %llu bytes, fewer than its %llu rows need",
                   w->GetFileName(), static_cast<unsigned long long>(w->GetTailSize()),
                   static_cast<unsigned long long>(rows));
      break;
    }
    saved_.push_back({idx, *b, b->tvheap != nullptr ? b->tvheap->free : 0,
                      b->tvheap != nullptr ? b->tvheap->size : 0});
    // The chunker saw the target's last value first, so its flag covers the join; the
    // rows before it are sorted only if the BAT said so.
    const bool sorted = d->IsSorted() && (base == 0 || b->tsorted);
    DescribeWrittenBAT(b, w, rows, sorted);
    RefreshColumn(idx);
    job.rewritten.push_back(idx);
  }
}

}  // namespace qopci
