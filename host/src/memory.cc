// GDK memory: malloc with books. Every block carries a header with its size and a magic word,
// so that GDKfree can tell a block of ours from a stray pointer, a double free is caught, and
// GDKmemchk can report the live blocks and bytes.
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "corvid/gdk.h"

namespace {

constexpr uint32_t kLiveMagic = 0xC0A11D0Cu;
constexpr uint32_t kDeadMagic = 0xDEADB10Cu;

// Kept at 16 bytes so that the caller's memory stays 16-byte aligned.
struct BlockHeader {
  uint64_t size;   // bytes the caller asked for
  uint32_t magic;  // kLiveMagic while allocated
  uint32_t check;  // ~size, a cheap guard against a header overwritten by an underrun
};
static_assert(sizeof(BlockHeader) == 16);

std::atomic<int64_t> live_blocks{0};
std::atomic<int64_t> live_bytes{0};
std::atomic<int64_t> total_blocks{0};  // blocks ever handed out
std::atomic<int64_t> bad_frees{0};     // frees of pointers that were not live blocks

BlockHeader* HeaderOf(void* p) { return static_cast<BlockHeader*>(p) - 1; }

bool IsLive(const BlockHeader* h) {
  return h->magic == kLiveMagic && h->check == static_cast<uint32_t>(~h->size);
}

void* Finish(BlockHeader* h, size_t size) {
  h->size = size;
  h->magic = kLiveMagic;
  h->check = static_cast<uint32_t>(~static_cast<uint64_t>(size));
  live_blocks++;
  live_bytes += static_cast<int64_t>(size);
  total_blocks++;
  return h + 1;
}

}  // namespace

extern "C" {

void* GDKmalloc(size_t size) {
  if (size > SIZE_MAX - sizeof(BlockHeader)) return nullptr;
  auto* h = static_cast<BlockHeader*>(std::malloc(sizeof(BlockHeader) + size));
  return h ? Finish(h, size) : nullptr;
}

void* GDKzalloc(size_t size) {
  void* p = GDKmalloc(size);
  if (p) std::memset(p, 0, size);
  return p;
}

void* GDKrealloc(void* p, size_t size) {
  if (!p) return GDKmalloc(size);
  BlockHeader* old = HeaderOf(p);
  if (!IsLive(old)) {
    bad_frees++;
    return nullptr;
  }
  if (size > SIZE_MAX - sizeof(BlockHeader)) return nullptr;
  const uint64_t old_size = old->size;
  auto* h = static_cast<BlockHeader*>(std::realloc(old, sizeof(BlockHeader) + size));
  if (!h) return nullptr;  // the old block stays valid and counted
  live_blocks--;
  live_bytes -= static_cast<int64_t>(old_size);
  total_blocks--;
  return Finish(h, size);
}

char* GDKstrdup(const char* s) {
  if (!s) return nullptr;
  size_t n = std::strlen(s) + 1;
  auto* d = static_cast<char*>(GDKmalloc(n));
  if (d) std::memcpy(d, s, n);
  return d;
}

void GDKfree(void* p) {
  if (!p) return;
  BlockHeader* h = HeaderOf(p);
  if (!IsLive(h)) {  // a double free or a pointer not from GDKmalloc: count it, leave it
    bad_frees++;
    return;
  }
  live_blocks--;
  live_bytes -= static_cast<int64_t>(h->size);
  h->magic = kDeadMagic;
  std::free(h);
}

void GDKmemchk(int verbose) {
  const int64_t blocks = live_blocks.load(), bytes = live_bytes.load();
  const int64_t bad = bad_frees.load();
  const bool sane = blocks >= 0 && bytes >= 0 && (blocks > 0 || bytes == 0);
  if (verbose || !sane || bad) {
    std::fprintf(stderr, "#GDKmemchk: %lld live blocks, %lld bytes, %lld allocated in all%s%s\n",
                 static_cast<long long>(blocks), static_cast<long long>(bytes),
                 static_cast<long long>(total_blocks.load()), sane ? "" : ", books inconsistent",
                 bad ? ", bad frees seen" : "");
  }
}

// Live blocks and bytes, for tests and tools that look for leaks.
void GDKmemstat(int64_t* blocks, int64_t* bytes, int64_t* bad) {
  if (blocks) *blocks = live_blocks.load();
  if (bytes) *bytes = live_bytes.load();
  if (bad) *bad = bad_frees.load();
}

}  // extern "C"
