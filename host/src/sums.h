// Block checksums of committed column files. Every tail and string heap of a farm whose
// catalog is version 3 or later has a sidecar file ("<file>.sums", docs/formats.md) holding
// one XXH3-64 per 64 KiB block of the bytes in use. The commit makes them (extending the
// previous commit's sums where the data was appended to), loading a BAT checks them, and
// CVDfarm_verify checks every block of the farm.
// Threading: BlockSums is a plain value; the functions keep no state and may run on any
// thread, except where they say they go through the kernel's file-system gate.
#ifndef CORVID_SRC_SUMS_H_
#define CORVID_SRC_SUMS_H_

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace corvid {

inline constexpr size_t kSumBlock = 65536;  // bytes per checksummed block
inline constexpr size_t kSumsHeader = 24;   // magic, block size, width, bytes covered

struct BlockSums {
  uint32_t width = 0;            // bytes per value of the tail summed; 0 for a string heap
  uint64_t covered = 0;          // bytes of the column file the sums describe
  std::vector<uint64_t> blocks;  // one hash per block; the last may cover a partial block
};

// Blocks of a file holding n bytes in use.
inline size_t BlockCount(uint64_t n) {
  return static_cast<size_t>((n + kSumBlock - 1) / kSumBlock);
}

uint64_t HashBytes(const char* data, size_t n);  // XXH3 64-bit, seed 0

// The bytes of a sums file, its own checksum last.
std::string EncodeSums(const BlockSums& s);
// Parses and checks a sums file; false with *why ("damaged", "truncated", ...) on any fault.
bool DecodeSums(const std::string& bytes, BlockSums* s, std::string* why);

// Starts the sums of data[0, n) after an append: *out gets the blocks of `old` wholly before
// its end, kept without reading them again, and room for the rest; *first is the first block
// left to HashBlocks. A string heap's first block holds the hash area, which appends rewrite,
// so with `heap` it is hashed here again. With no `old`, or one that cannot have been
// extended to this data (other width, more bytes), every block is left to hash. False with
// *why when the part of old's last partial block that the append kept no longer matches:
// damage that the new sums must not take for good data.
bool StartExtension(const BlockSums* old, const char* data, size_t n, uint32_t width, bool heap,
                    BlockSums* out, size_t* first, std::string* why);

// The hash of block `index` of a column file, its bytes block[0, bytes). A string heap's
// first block (heap true, index 0) is hashed without its hash area: an export rewrites that
// index in place before its commit, and a stale one is harmless (the kernel follows none of
// its positions at or beyond the heap's free), so an export that failed or was killed must
// not make the committed heap fail its check.
uint64_t HashBlock(const char* block, size_t bytes, size_t index, bool heap);

// Hashes blocks [first, last) of data[0, n) into out->blocks, which has room for them.
void HashBlocks(const char* data, size_t n, size_t first, size_t last, BlockSums* out);

// Indexes of the blocks of data[0, n) whose hash differs from s. REQUIRES: n == s.covered.
std::vector<size_t> BadBlocks(const BlockSums& s, const char* data, size_t n);

// "block 3 (bytes 196608-262143)": how messages name block i of a file holding n bytes.
std::string BlockText(size_t i, uint64_t n);

// The four files of a BAT: tail, string heap and their sums (which 0..3), their names'
// extensions and their pending bits in the catalog.
inline constexpr int kFileKinds = 4;
const char* KindExt(int which);  // "tail", "theap", "tail.sums", "theap.sums"
int KindPendingBit(int which);   // kPendingTail, kPendingHeap, kPendingTailSums, ...
int KindOf(const char* ext);     // which for an extension; 0 for an unknown one

// ---- Files, through the kernel's gate (the thread that holds BBPlock) ---------------------

struct BatRec;

// Reads and decodes the sums file at path; *why names the file and what is wrong with it.
bool ReadSums(const std::string& path, BlockSums* s, std::string* why);

// Checks the heaps of r, just loaded from its committed files, against their sums. False with
// *why naming the file and the first block that differs (and how many more do).
bool CheckLoadedSums(const BatRec& r, std::string* why);

}  // namespace corvid

#endif  // CORVID_SRC_SUMS_H_
