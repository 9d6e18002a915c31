// POSIX file helpers for the farm: whole-file reads, durable writes, renames and links, and
// the one gate every file-system call of the kernel passes through.
//
// The gate counts the calls made while a commit runs and can make the n-th of them fail with
// a chosen errno (or end the process there, as a crash would): the commit's fault tests walk
// every call with it.
// Threading: the gate's counters belong to the thread that holds BBPlock (the commit's);
// the helpers are otherwise stateless, and callers serialise access to the same files.
#ifndef CORVID_SRC_FILEIO_H_
#define CORVID_SRC_FILEIO_H_

#include <sys/stat.h>
#include <sys/types.h>

#include <cstddef>
#include <string>

namespace corvid {

// ---- The gate -------------------------------------------------------------------------

// Arms a fault for the next counted stretch: its n-th call (from 1) fails with errno `err`;
// a negative err ends the process there with _exit(-err) instead. n <= 0 disarms.
void ArmCallFault(int n, int err);

// Counts the calls made from construction to destruction (one commit); the armed fault, if
// any, applies within it. Not nested.
class CountedCalls {
 public:
  CountedCalls();
  ~CountedCalls();
  CountedCalls(const CountedCalls&) = delete;
  CountedCalls& operator=(const CountedCalls&) = delete;

  void Stop();  // calls from here on are neither counted nor faulted
};

int LastCallCount();  // calls counted by the last CountedCalls

// The system calls, through the gate: same results and errno as the calls they wrap.
int SysOpen(const char* path, int flags, mode_t mode = 0);
ssize_t SysRead(int fd, void* buf, size_t n);
ssize_t SysWrite(int fd, const void* buf, size_t n);
int SysFsync(int fd);
int SysFstat(int fd, struct stat* st);
int SysStat(const char* path, struct stat* st);
int SysRename(const char* from, const char* to);
int SysLink(const char* from, const char* to);
int SysUnlink(const char* path);
int SysMkdir(const char* path, mode_t mode);
void* SysMmap(size_t n, int prot, int flags, int fd);  // MAP_FAILED on failure

// ---- Helpers: each returns false and sets *why ("cannot <verb> <path>: <errno text>") ---

bool ReadWhole(const std::string& path, std::string* out, std::string* why);
bool WriteDurable(const std::string& path, const char* data, size_t n, std::string* why);
bool SyncPath(const std::string& path, std::string* why);  // fsync a file or directory
bool MakeDirs(const std::string& path, std::string* why);  // mkdir -p
bool Rename(const std::string& from, const std::string& to, std::string* why);
bool Link(const std::string& from, const std::string& to, std::string* why);
// As Link, but a missing `from` is no failure: *linked tells whether the link was made.
bool LinkIfThere(const std::string& from, const std::string& to, bool* linked, std::string* why);
// Removes a file; one that is not there counts as removed.
bool RemoveFile(const std::string& path, std::string* why);
// True with *size for a regular file; false when there is none (*why, if given, says why:
// "... is missing" for ENOENT).
bool FileSize(const std::string& path, size_t* size, std::string* why = nullptr);
std::string DirOf(const std::string& path);

}  // namespace corvid

#endif  // CORVID_SRC_FILEIO_H_
