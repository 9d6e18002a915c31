// The operating-system calls of the mapped-file layer, each through one counting wrapper
// (see mmf_fault.h). Internal to writers/mmf.
// Threading: the wrappers are as thread-safe as the calls they wrap.
#ifndef QOPCI_WRITERS_MMF_MMF_OS_H_
#define QOPCI_WRITERS_MMF_MMF_OS_H_

#include <sys/stat.h>
#include <sys/types.h>

#include <cerrno>
#include <cstddef>

namespace qopci {
namespace mmf_os {

// Each returns what the system call returns, with errno set on failure. Fallocate returns
// -1 and sets errno instead of returning the error number.
int Open(const char* name, int flags, mode_t mode);
int Stat(const char* name, struct stat* st);
int Fstat(int fd, struct stat* st);
int Fallocate(int fd, off_t offset, off_t length);
int Ftruncate(int fd, off_t length);
void* Mmap(size_t length, int prot, int fd, off_t offset);  // MAP_FAILED on failure
int Munmap(void* addr, size_t length);
int MadvisePopulateWrite(void* addr, size_t length);
ssize_t Pwrite(int fd, const void* data, size_t length, off_t offset);
int SyncRange(int fd, off_t offset, off_t length);
int Close(int fd);
int Remove(const char* name);

// Keeps errno across a call whose failure is ignored, so that the error of an earlier
// failing call survives until someone reports it.
class ErrnoKeeper {
 public:
  ErrnoKeeper() : saved_(errno) {}
  ~ErrnoKeeper() { errno = saved_; }
  ErrnoKeeper(const ErrnoKeeper&) = delete;
  ErrnoKeeper& operator=(const ErrnoKeeper&) = delete;

 private:
  int saved_;
};

}  // namespace mmf_os
}  // namespace qopci

#endif  // QOPCI_WRITERS_MMF_MMF_OS_H_
