// The sums file format and block hashing. XXH3 comes from the system's xxHash; on x86-64
// through its run-time dispatch, which picks the widest vector unit the machine has (AVX2
// hashes twice as fast as the SSE2 baseline a distribution builds for), with the same
// hash values on every machine.
#include "sums.h"

#include <algorithm>
#include <cstring>

#include "catalog.h"
#include "corvid/strheap.h"

#if defined(__x86_64__)
#include <xxh_x86dispatch.h>
#else
#define XXH_INLINE_ALL
#include <xxhash.h>
#endif

namespace corvid {
namespace {

constexpr char kMagic[8] = {'c', 'v', 'd', 's', 'u', 'm', 's', '1'};

void Put32(std::string* out, uint32_t v) { out->append(reinterpret_cast<const char*>(&v), 4); }
void Put64(std::string* out, uint64_t v) { out->append(reinterpret_cast<const char*>(&v), 8); }

template <typename T>
T Get(const std::string& s, size_t at) {
  T v;
  std::memcpy(&v, s.data() + at, sizeof v);  // little-endian host
  return v;
}

}  // namespace

uint64_t HashBytes(const char* data, size_t n) {
#if defined(__x86_64__)
  return XXH3_64bits_dispatch(data, n);
#else
  return XXH3_64bits(data, n);
#endif
}

uint64_t HashBlock(const char* block, size_t bytes, size_t index, bool heap) {
  const size_t skip = heap && index == 0 ? std::min<size_t>(CVD_STRHEAP_HASHAREA, bytes) : 0;
  return HashBytes(block + skip, bytes - skip);
}

// The hash of block i of data[0, n).
static uint64_t BlockHash(const char* data, size_t n, size_t i, bool heap) {
  const size_t start = i * kSumBlock;
  return HashBlock(data + start, std::min(kSumBlock, n - start), i, heap);
}

std::string EncodeSums(const BlockSums& s) {
  std::string out(kMagic, sizeof kMagic);
  Put32(&out, static_cast<uint32_t>(kSumBlock));
  Put32(&out, s.width);
  Put64(&out, s.covered);
  for (uint64_t h : s.blocks) Put64(&out, h);
  Put64(&out, HashBytes(out.data(), out.size()));
  return out;
}

bool DecodeSums(const std::string& bytes, BlockSums* s, std::string* why) {
  if (bytes.size() < kSumsHeader + 8 || std::memcmp(bytes.data(), kMagic, sizeof kMagic) != 0) {
    *why = bytes.size() < kSumsHeader + 8 ? "is truncated" : "is not a sums file";
    return false;
  }
  if (Get<uint64_t>(bytes, bytes.size() - 8) != HashBytes(bytes.data(), bytes.size() - 8)) {
    *why = "is damaged (its own checksum does not match)";
    return false;
  }
  const uint64_t covered = Get<uint64_t>(bytes, 16);
  if (Get<uint32_t>(bytes, 8) != kSumBlock ||
      bytes.size() != kSumsHeader + 8 * (BlockCount(covered) + 1)) {
    *why = "has a block size or length this kernel does not write";
    return false;
  }
  s->width = Get<uint32_t>(bytes, 12);
  s->covered = covered;
  s->blocks.resize(BlockCount(covered));
  if (!s->blocks.empty())
    std::memcpy(s->blocks.data(), bytes.data() + kSumsHeader, 8 * s->blocks.size());
  return true;
}

bool StartExtension(const BlockSums* old, const char* data, size_t n, uint32_t width, bool heap,
                    BlockSums* out, size_t* first, std::string* why) {
  out->width = width;
  out->covered = n;
  out->blocks.clear();
  *first = 0;
  if (old != nullptr && old->width == width && old->covered <= n) {
    const size_t from = static_cast<size_t>(old->covered / kSumBlock);  // holds the old end
    const size_t kept = old->covered % kSumBlock;
    if (kept != 0 && !(heap && from == 0) &&
        BlockHash(data, old->covered, from, false) != old->blocks[from]) {
      *why = BlockText(from, old->covered) + " no longer matches its checksum";
      return false;
    }
    out->blocks.assign(old->blocks.begin(), old->blocks.begin() + from);
    *first = from;
  }
  out->blocks.resize(BlockCount(n));
  if (heap && *first > 0) HashBlocks(data, n, 0, 1, out);
  return true;
}

void HashBlocks(const char* data, size_t n, size_t first, size_t last, BlockSums* out) {
  for (size_t i = first; i < last; i++) out->blocks[i] = BlockHash(data, n, i, out->width == 0);
}

std::vector<size_t> BadBlocks(const BlockSums& s, const char* data, size_t n) {
  std::vector<size_t> bad;
  const bool heap = s.width == 0;
  for (size_t i = 0; i < BlockCount(n) && i < s.blocks.size(); i++) {
    // Sums written before the hash area was left out cover a heap's whole first block.
    if (BlockHash(data, n, i, heap) != s.blocks[i] &&
        !(heap && i == 0 && BlockHash(data, n, 0, false) == s.blocks[0]))
      bad.push_back(i);
  }
  return bad;
}

std::string BlockText(size_t i, uint64_t n) {
  const uint64_t start = uint64_t{i} * kSumBlock;
  const uint64_t end = std::min<uint64_t>(start + kSumBlock, n);
  return "block " + std::to_string(i) + " (bytes " + std::to_string(start) + "-" +
         std::to_string(end == start ? start : end - 1) + ")";
}

const char* KindExt(int which) {
  static const char* const kExt[kFileKinds] = {"tail", "theap", "tail.sums", "theap.sums"};
  return kExt[which];
}

int KindPendingBit(int which) {
  static const int kBit[kFileKinds] = {kPendingTail, kPendingHeap, kPendingTailSums,
                                       kPendingHeapSums};
  return kBit[which];
}

int KindOf(const char* ext) {
  for (int i = 0; i < kFileKinds; i++)
    if (std::strcmp(ext, KindExt(i)) == 0) return i;
  return 0;
}

}  // namespace corvid
