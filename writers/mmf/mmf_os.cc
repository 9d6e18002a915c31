#include "writers/mmf/mmf_os.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>

#include "writers/mmf/mmf_fault.h"

namespace qopci {
namespace {

std::atomic<uint64_t> g_calls{0};
std::atomic<int> g_fail_at{0};
std::atomic<int> g_fail_errno{ENOSPC};
std::atomic<int> g_block_copy{static_cast<int>(MMFTuning().block_copy)};
std::atomic<bool> g_start_writeback{MMFTuning().start_writeback};

// Counts the call; true when it is the one armed to fail, with errno set.
bool FailNow() {
  uint64_t n = g_calls.fetch_add(1, std::memory_order_relaxed) + 1;
  int at = g_fail_at.load(std::memory_order_relaxed);
  if (at > 0 && n == static_cast<uint64_t>(at)) {
    errno = g_fail_errno.load(std::memory_order_relaxed);
    return true;
  }
  return false;
}

}  // namespace

void MMFInjectFailure(int nth_call, int err) {
  g_fail_errno.store(err);
  g_calls.store(0);
  g_fail_at.store(nth_call < 0 ? 0 : nth_call);
}

uint64_t MMFSystemCallCount() { return g_calls.load(); }

void MMFSetTuning(const MMFTuning& tuning) {
  g_block_copy.store(static_cast<int>(tuning.block_copy));
  g_start_writeback.store(tuning.start_writeback);
}

MMFTuning MMFGetTuning() {
  MMFTuning t;
  t.block_copy = static_cast<MMFBlockCopy>(g_block_copy.load(std::memory_order_relaxed));
  t.start_writeback = g_start_writeback.load(std::memory_order_relaxed);
  return t;
}

namespace mmf_os {

int Open(const char* name, int flags, mode_t mode) {
  if (FailNow()) return -1;
  return ::open(name, flags | O_CLOEXEC, mode);
}

int Stat(const char* name, struct stat* st) {
  if (FailNow()) return -1;
  return ::stat(name, st);
}

int Fstat(int fd, struct stat* st) {
  if (FailNow()) return -1;
  return ::fstat(fd, st);
}

int Fallocate(int fd, off_t offset, off_t length) {
  if (FailNow()) return -1;
  int rc = ::posix_fallocate(fd, offset, length);
  if (rc == EOPNOTSUPP) {
    // The file system cannot reserve blocks: grow the file without reserving them.
    struct stat st;
    if (::fstat(fd, &st) != 0) return -1;
    if (st.st_size >= offset + length) return 0;
    return ::ftruncate(fd, offset + length);
  }
  if (rc != 0) {
    errno = rc;
    return -1;
  }
  return 0;
}

int Ftruncate(int fd, off_t length) {
  if (FailNow()) return -1;
  return ::ftruncate(fd, length);
}

void* Mmap(size_t length, int prot, int fd, off_t offset) {
  if (FailNow()) return MAP_FAILED;
  return ::mmap(nullptr, length, prot, MAP_SHARED, fd, offset);
}

int Munmap(void* addr, size_t length) {
  if (FailNow()) return -1;
  return ::munmap(addr, length);
}

int MadvisePopulateWrite(void* addr, size_t length) {
  if (FailNow()) return -1;
#ifdef MADV_POPULATE_WRITE
  return ::madvise(addr, length, MADV_POPULATE_WRITE);
#else
  (void)addr;
  (void)length;
  errno = EINVAL;
  return -1;
#endif
}

ssize_t Pwrite(int fd, const void* data, size_t length, off_t offset) {
  if (FailNow()) return -1;
  return ::pwrite(fd, data, length, offset);
}

int SyncRange(int fd, off_t offset, off_t length) {
  if (FailNow()) return -1;
  return ::sync_file_range(fd, offset, length, SYNC_FILE_RANGE_WRITE);
}

int Close(int fd) {
  if (FailNow()) return -1;
  return ::close(fd);
}

int Remove(const char* name) {
  if (FailNow()) return -1;
  return std::remove(name);
}

}  // namespace mmf_os
}  // namespace qopci
