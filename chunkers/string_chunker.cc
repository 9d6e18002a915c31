#include "chunkers/string_chunker.h"

#include <algorithm>
#include <memory>
#include <utility>

#include "corvid/strheap.h"

namespace qopci {
namespace {

char kNilString[] = {static_cast<char>(0x80), 0};

int32_t ClampHeapParameter(int32_t p) {
  if (p >= 501) return 500;
  if (p < 1) return 20;
  return p;
}

// The width tail value v needs, starting from width w and never narrower.
int32_t WidthFor(uint64_t v, int32_t w) {
  if (w < 1) w = 1;
  if (w >= 4) return w;
  return std::max(w, static_cast<int32_t>(cvd_str_width(v * CVD_STRHEAP_ALIGN)));
}

}  // namespace

StringChunker::StringChunker(int32_t chunk_size, int32_t heap_parameter, const char* heap_file,
                             uint64_t existing_heap_size)
    : Chunker<char*>(chunk_size, 8),
      chunk_(nullptr),
      heap_parameter_(ClampHeapParameter(heap_parameter)),
      offsets1_(chunk_size),
      offsets2_(chunk_size),
      offsets4_(chunk_size),
      offsets8_(chunk_size),
      heap_(new StringHeap(static_cast<uint32_t>(chunk_size),
                           static_cast<uint32_t>(heap_parameter_), heap_file, existing_heap_size)),
      nil_(kNilString) {
  chunk_ = NewChunk();
  // The host checks the order of string columns itself; the chunker never claims it.
  ClearSorted();
  ClearKey();
}

StringChunker::~StringChunker() { delete chunk_; }

void StringChunker::SetPreviousValue(char* value, bool is_nil) {
  (void)value;
  (void)is_nil;
}

bool StringChunker::IsChunkFull() {
  return offsets1_.IsChunkFull() || offsets2_.IsChunkFull() || offsets4_.IsChunkFull() ||
         offsets8_.IsChunkFull();
}

bool StringChunker::InsertString(const char* s, uint32_t* offset) {
  // A caller that skipped IsChunkFull gets false, and the heap stays as it was.
  if (IsChunkFull()) return false;
  bool found;
  const int64_t v = heap_->AddString(s, &found);
  if (v == StringHeap::kPastLimit) throw "String heap would pass 4 GiB";
  if (v < 0) throw "StringHeap out of memory";
  if (cvd_str_isnil(s)) no_nil_ = false;
  const uint32_t value = static_cast<uint32_t>(v);
  *offset = value;
  const int32_t w = WidthFor(value, heap_->GetOffsetWidth());
  heap_->SetOffsetWidth(w);
  switch (w) {
    case 1:
      offsets1_.InsertVal(static_cast<unsigned char>(value));
      [[fallthrough]];
    case 2:
      offsets2_.InsertVal(static_cast<unsigned short>(value - CVD_STRHEAP_BIAS));
      [[fallthrough]];
    case 4:
      offsets4_.InsertVal(value);
      [[fallthrough]];
    default:
      offsets8_.InsertVal(value);
  }
  ++string_count_;
  return true;
}

bool StringChunker::InsertStrings(char** strings, uint32_t* offsets, int n) {
  for (int i = 0; i < n; i++)
    if (!InsertString(strings[i], &offsets[i])) return false;
  return true;
}

bool StringChunker::InsertVal(char* value) {
  uint32_t offset;
  return InsertString(value, &offset);
}

bool StringChunker::InsertVals(char** values, int n) {
  if (n < 1) return true;
  std::unique_ptr<uint32_t[]> offsets(new uint32_t[n]);
  return InsertStrings(values, offsets.get(), n);
}

bool StringChunker::InsertNil() {
  no_nil_ = false;
  return InsertVal(nil_);
}

BATChunk* StringChunker::TakeChunk() {
  // The tail must be able to name the heap's end, even when no value did yet.
  const int32_t w = WidthFor(heap_->Free() / CVD_STRHEAP_ALIGN, heap_->GetOffsetWidth());
  heap_->SetOffsetWidth(w);
  BATChunk* members[4] = {offsets1_.TakeChunk(), offsets2_.TakeChunk(), offsets4_.TakeChunk(),
                          offsets8_.TakeChunk()};
  std::unique_ptr<char[]> bytes, hash_area;
  uint64_t count;
  bool restart;
  heap_->TakeFlush(&bytes, &count, &hash_area, &restart);
  StringChunk* full = chunk_;
  full->Adopt(members, std::move(bytes), count, std::move(hash_area));
  full->width_ = w;
  full->restart_heap_ = restart;
  full->heap_rewritten_ = heap_->TakeRewritten();
  chunk_ = NewChunk();
  return full;
}

}  // namespace qopci
