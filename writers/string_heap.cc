#include "writers/string_heap.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "writers/mmf/mmf.h"

namespace qopci {
namespace {

constexpr uint64_t kDefaultLimit = UINT32_MAX;  // tail arithmetic is 32-bit
uint64_t g_limit = kDefaultLimit;

// Heap position of the 64 KiB block that holds position pos.
constexpr uint64_t BlockStart(uint64_t pos) { return pos & ~uint64_t{0xFFFF}; }

uint16_t Load16(const char* p) {
  uint16_t v;
  std::memcpy(&v, p, 2);
  return v;
}

void Store16(char* p, uint16_t v) { std::memcpy(p, &v, 2); }

// The record at pos holds s: same length and hash in its prefix, same bytes. Valid records
// with equal bytes always have equal prefixes, so this finds what a plain compare finds
// without reading past the record.
bool SameRecord(const char* record, const char* s, uint32_t len, uint32_t hash) {
  uint32_t stored_len, stored_hash;
  std::memcpy(&stored_len, record - CVD_STRHEAP_PREFIX, 4);
  std::memcpy(&stored_hash, record - 4, 4);
  return stored_len == len && stored_hash == hash && std::memcmp(record, s, len) == 0;
}

uint64_t Load64(const char* p) {
  uint64_t v;
  std::memcpy(&v, p, 8);
  return v;
}

uint32_t Load32(const char* p) {
  uint32_t v;
  std::memcpy(&v, p, 4);
  return v;
}

// A hash of the n bytes at s that reads them a word at a time and never past them.
uint64_t QuickHash(const char* s, size_t n) {
  constexpr uint64_t kMul = 0x9E3779B97F4A7C15ull;
  uint64_t h = (n + 1) * kMul;
  for (; n > 8; s += 8, n -= 8) h = (h ^ Load64(s)) * kMul;
  uint64_t last;
  if (n >= 4)
    last = Load32(s) | uint64_t{Load32(s + n - 4)} << 32;
  else if (n > 0)
    last = static_cast<unsigned char>(s[0]) | static_cast<unsigned char>(s[n / 2]) << 8 |
           static_cast<unsigned char>(s[n - 1]) << 16;
  else
    last = 0;
  h = (h ^ last) * kMul;
  return h ^ (h >> 29);
}

[[noreturn]] void ThrowAboutFile(const char* format, const char* file, uint64_t size) {
  static char text[1024];
  snprintf(text, sizeof text, format, file ? file : "", static_cast<unsigned long long>(size));
  throw static_cast<const char*>(text);
}

}  // namespace

CorvidHeap::CorvidHeap(uint64_t size)
    : heap_(static_cast<Heap*>(std::malloc(sizeof(Heap)))),
      allocated_(std::max<uint64_t>(size, CVD_STRHEAP_HASHAREA)),
      size_(allocated_) {
  char* buffer = heap_ ? static_cast<char*>(std::calloc(allocated_, 1)) : nullptr;
  if (buffer == nullptr) {
    std::free(heap_);
    throw "StringHeap out of memory";
  }
  heap_->free = CVD_STRHEAP_HASHAREA;
  heap_->size = allocated_;
  heap_->base = buffer;
  heap_->baseoff = 0;
  heap_->flags = HEAP_STRPREFIX;
  heap_->dirty = 1;
}

CorvidHeap::~CorvidHeap() {
  std::free(heap_->base);
  std::free(heap_);
}

void StringHeap::SetLimitForTesting(uint64_t limit) { g_limit = limit ? limit : kDefaultLimit; }

StringHeap::StringHeap(uint32_t chunk_size, uint32_t expected_width, const char* existing_file,
                       uint64_t existing_size)
    : CorvidHeap(std::min<uint64_t>(uint64_t{chunk_size} * expected_width, kDefaultLimit) +
                 CVD_STRHEAP_HASHAREA),
      expected_width_(static_cast<int32_t>(expected_width)),
      limit_(g_limit) {
  if (existing_size > 0) Load(existing_file, existing_size);
  if (!elimination_off_ && heap_->free < CVD_STRHEAP_ELIMLIMIT)
    recent_.reset(new uint64_t[uint64_t{1} << kRecentBits]());
}

void StringHeap::Load(const char* file, uint64_t existing_size) {
  if (existing_size < CVD_STRHEAP_HASHAREA)
    ThrowAboutFile("String heap %s: %llu bytes cannot hold its hash area", file, existing_size);
  restart_ = false;
  flushed_ = existing_size;
  offset_width_ = std::max(offset_width_, cvd_str_width(existing_size));
  if (existing_size >= CVD_STRHEAP_ELIMLIMIT || file == nullptr) {
    // The strings on disk are not searched; new records follow them, and the hash area
    // starts empty: it names only what is appended from here on.
    elimination_off_ = true;
    loaded_ = false;
    hash_area_.reset(new char[CVD_STRHEAP_HASHAREA]());
    heap_->free = existing_size;
    heap_->baseoff = existing_size;
    size_ += existing_size;
    heap_->size = size_;
    return;
  }
  MMF mmf(file, 1, MMF::kReadAccess, existing_size);
  uint32_t error = 0;
  if (!mmf.Open(&error))
    ThrowAboutFile("String heap %s can't be opened (%llu bytes)", file, existing_size);
  const char* data = nullptr;
  if (mmf.GetMappingSize() >= existing_size && mmf.Map(existing_size, 0) != nullptr)
    data = mmf.Data();
  if (data == nullptr)
    ThrowAboutFile("String heap %s holds fewer than %llu bytes", file, existing_size);
  if (existing_size > allocated_ && !Grow(existing_size)) {
    mmf.Close();
    throw "StringHeap out of memory";
  }
  std::memcpy(heap_->base, data, existing_size);
  mmf.Close();
  heap_->free = existing_size;
  loaded_ = true;
}

bool StringHeap::Grow(uint64_t need) {
  uint64_t grown = allocated_;
  while (grown < need) grown *= 2;
  char* base = static_cast<char*>(std::realloc(heap_->base, grown));
  if (base == nullptr) return false;
  std::memset(base + allocated_, 0, grown - allocated_);
  heap_->base = base;
  size_ += grown - allocated_;
  allocated_ = grown;
  heap_->size = heap_->baseoff + allocated_;
  return true;
}

int64_t StringHeap::FindDuplicate(const char* s, uint32_t len, uint32_t hash, uint32_t bucket,
                                  bool* found) const {
  const uint64_t free = heap_->free;
  const uint16_t head = Load16(HashArea() + 2 * bucket);
  if (free < CVD_STRHEAP_ELIMLIMIT) {  // the buffer starts at position 0 here
    const char* base = heap_->base;
    uint64_t steps = 0;  // a chain cannot be longer than the heap has records
    for (uint64_t link = head; link != 0 && steps < free / CVD_STRHEAP_ALIGN; steps++) {
      uint64_t pos = link + CVD_STRHEAP_LINK + CVD_STRHEAP_PREFIX;
      if (link < CVD_STRHEAP_HASHAREA || pos >= free || pos % CVD_STRHEAP_ALIGN != 0) break;
      if (pos + len <= free && SameRecord(base + pos, s, len, hash)) {
        *found = true;
        return static_cast<int64_t>(pos / CVD_STRHEAP_ALIGN);
      }
      link = Load16(base + link);
    }
    return 0;
  }
  if (head == 0) return 0;
  // The bucket names an offset within the current block; that block is always kept.
  const uint64_t pos = BlockStart(free) + head;
  if (pos >= free || pos < CVD_STRHEAP_HASHAREA + CVD_STRHEAP_PREFIX ||
      pos % CVD_STRHEAP_ALIGN != 0 || pos + len > free)
    return 0;
  return SameRecord(At(pos), s, len, hash) ? static_cast<int64_t>(pos / CVD_STRHEAP_ALIGN) : 0;
}

int64_t StringHeap::AddString(const char* s, bool* found) {
  // Below 64 KiB every string is in the heap at most once, found through its chain, so an
  // index of the strings seen so far (by a hash that is cheap to compute) gives exactly
  // what the chain walk would, without the kernel's hash. A miss takes the kernel's path.
  uint64_t* slot = nullptr;
  uint32_t tag = 0;
  if (recent_ && heap_->free < CVD_STRHEAP_ELIMLIMIT) {
    const size_t n = std::strlen(s);
    const uint64_t h = QuickHash(s, n);
    slot = &recent_[h >> (64 - kRecentBits)];
    tag = static_cast<uint32_t>(h);
    const uint32_t v = static_cast<uint32_t>(*slot);
    if (v != 0 && (*slot >> 32) == tag) {
      const char* record = heap_->base + uint64_t{v} * CVD_STRHEAP_ALIGN;
      uint32_t stored_len;
      std::memcpy(&stored_len, record - CVD_STRHEAP_PREFIX, 4);
      if (stored_len == n + 1 && std::memcmp(record, s, n + 1) == 0) {
        *found = true;
        return v;
      }
    }
  }
  const int64_t v = AddStringSlowly(s, found);
  if (slot != nullptr && v > 0) *slot = uint64_t{tag} << 32 | static_cast<uint64_t>(v);
  return v;
}

int64_t StringHeap::AddStringSlowly(const char* s, bool* found) {
  *found = false;
  const uint32_t len = cvd_str_len(s);
  const uint32_t hash = cvd_str_hash(s);
  const uint32_t bucket = cvd_str_bucket(hash);
  if (!elimination_off_) {
    int64_t v = FindDuplicate(s, len, hash, bucket, found);
    if (v != 0) return v;
  }
  const uint64_t old_free = heap_->free;
  const uint64_t pos = cvd_strheap_place(old_free, 1);
  const uint64_t end = pos + len;
  if (end > limit_) return kPastLimit;
  if (end - heap_->baseoff > allocated_ && !Grow(end - heap_->baseoff)) return kNoMemory;
  char* area = HashArea();
  if (old_free >= CVD_STRHEAP_ELIMLIMIT && (pos >> 16) != (old_free >> 16))
    std::memset(area, 0, CVD_STRHEAP_HASHAREA);  // entering a new 64 KiB block
  char* record = At(pos);
  std::memset(At(old_free), 0, pos - old_free);
  std::memcpy(record - CVD_STRHEAP_PREFIX, &len, 4);
  std::memcpy(record - 4, &hash, 4);
  std::memcpy(record, s, len);  // the nil string's two bytes are its length
  if (old_free < CVD_STRHEAP_ELIMLIMIT) {
    const uint64_t link = pos - CVD_STRHEAP_PREFIX - CVD_STRHEAP_LINK;
    if (link <= 0xFFFF) {  // a link past 64 KiB cannot be named by a bucket
      Store16(At(link), Load16(area + 2 * bucket));
      Store16(area + 2 * bucket, static_cast<uint16_t>(link));
    }
  } else if ((pos & 0xFFFF) != 0) {
    Store16(area + 2 * bucket, static_cast<uint16_t>(pos & 0xFFFF));
  }
  heap_->free = end;
  return static_cast<int64_t>(pos / CVD_STRHEAP_ALIGN);
}

void StringHeap::TakeFlush(std::unique_ptr<char[]>* bytes, uint64_t* count,
                           std::unique_ptr<char[]>* hash_area, bool* restart) {
  const uint64_t free = heap_->free;
  *count = free - flushed_;
  bytes->reset(new char[*count]);
  if (*count > 0) std::memcpy(bytes->get(), At(flushed_), *count);
  hash_area->reset(new char[CVD_STRHEAP_HASHAREA]);
  std::memcpy(hash_area->get(), HashArea(), CVD_STRHEAP_HASHAREA);
  *restart = restart_;
  restart_ = false;
  flushed_ = free;
  if (free < CVD_STRHEAP_ELIMLIMIT) return;  // chains may reach any record: keep them all
  // From 64 KiB on a search reaches only the current block, and without elimination
  // nothing: slide what is still needed to the buffer's start.
  const uint64_t keep = elimination_off_ ? free : std::max(BlockStart(free), heap_->baseoff);
  if (keep == heap_->baseoff) return;
  if (heap_->baseoff == 0) {
    hash_area_.reset(new char[CVD_STRHEAP_HASHAREA]);
    std::memcpy(hash_area_.get(), heap_->base, CVD_STRHEAP_HASHAREA);
  }
  std::memmove(heap_->base, At(keep), free - keep);
  heap_->baseoff = keep;
  heap_->size = keep + allocated_;
  loaded_ = false;
}

}  // namespace qopci
