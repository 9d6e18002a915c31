// Test and benchmark hooks of the mapped-file layer.
//
// Every operating-system call of the layer (open, stat, fstat, posix_fallocate, ftruncate,
// mmap, munmap, madvise, pwrite, sync_file_range, close, remove) passes through one counting
// wrapper. MMFInjectFailure arms it so that one chosen call fails as the system would,
// which lets tests drive the error paths of writers and work items end to end.
// Threading: the counter is atomic; arm and disarm from one thread while no other thread
// is using the layer if the N-th call is to be predictable.
#ifndef QOPCI_WRITERS_MMF_MMF_FAULT_H_
#define QOPCI_WRITERS_MMF_MMF_FAULT_H_

#include <cerrno>
#include <cstdint>

namespace qopci {

// Makes the nth_call-th system call of the layer from now on (1 = the next one) fail with
// errno = err. 0 disarms the hook. Each call resets the count.
void MMFInjectFailure(int nth_call, int err = ENOSPC);

// Number of system calls the layer has made since the last MMFInjectFailure.
uint64_t MMFSystemCallCount();

// How MMFByteWriter::Write puts a block into the file. Every strategy keeps the same
// mapping, growth and truncation behaviour; they differ only in how the bytes travel.
enum class MMFBlockCopy {
  kMemcpy = 0,    // copy into the mapped view, faulting fresh pages in one by one
  kPrefault = 1,  // prefault the target range of the view for writing, then copy
  kPwrite = 2,    // hand the bytes to the page cache with pwrite; the view sees them
};

// Tuning of block writes; set by benchmarks to compare the strategies. The defaults are the
// fastest measured end to end: kPwrite, and write-back started as each block is written
// (Flush), so that the host's commit finds the data already on its way to disk. Writing
// alone is a little slower with it, but an export of 10M rows spends the same time
// copying and its commit drops from ~0.1 s to ~0.003 s.
struct MMFTuning {
  MMFBlockCopy block_copy = MMFBlockCopy::kPwrite;
  bool start_writeback = true;  // start write-back of each written block at once
};
void MMFSetTuning(const MMFTuning& tuning);
MMFTuning MMFGetTuning();

}  // namespace qopci

#endif  // QOPCI_WRITERS_MMF_MMF_FAULT_H_
