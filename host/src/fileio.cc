// POSIX file helpers and the gate of the kernel's file-system calls; errno is turned into
// text here (through ErrnoText) and nowhere else in the farm code.
#include "fileio.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>

#include "internal.h"

namespace corvid {
namespace {

struct Gate {
  bool counting = false;
  int calls = 0;       // calls of the stretch under way
  int last_calls = 0;  // of the last finished stretch
  int armed_n = 0;     // armed fault for the next stretch: call number and errno
  int armed_err = 0;
  int fail_n = 0;  // the fault of the stretch under way
  int fail_err = 0;
};

Gate& TheGate() {
  static Gate gate;
  return gate;
}

// True when the call may go ahead; false with errno set when it is the one to fail.
bool Pass() {
  Gate& g = TheGate();
  if (!g.counting) return true;
  if (++g.calls != g.fail_n) return true;
  if (g.fail_err < 0) ::_exit(-g.fail_err);  // a crash at this very call
  errno = g.fail_err;
  return false;
}

bool Fail(const std::string& what, const std::string& path, std::string* why) {
  *why = what + " " + path + ": " + ErrnoText(errno);
  return false;
}

}  // namespace

void ArmCallFault(int n, int err) {
  Gate& g = TheGate();
  g.armed_n = n > 0 ? n : 0;
  g.armed_err = n > 0 ? err : 0;
}

CountedCalls::CountedCalls() {
  Gate& g = TheGate();
  g.counting = true;
  g.calls = 0;
  g.fail_n = g.armed_n;
  g.fail_err = g.armed_err;
  g.armed_n = g.armed_err = 0;
}

CountedCalls::~CountedCalls() { Stop(); }

void CountedCalls::Stop() {
  Gate& g = TheGate();
  if (!g.counting) return;
  g.counting = false;
  g.last_calls = g.calls;
  g.fail_n = g.fail_err = 0;
}

int LastCallCount() { return TheGate().last_calls; }

int SysOpen(const char* path, int flags, mode_t mode) {
  return Pass() ? ::open(path, flags | O_CLOEXEC, mode) : -1;
}
ssize_t SysRead(int fd, void* buf, size_t n) { return Pass() ? ::read(fd, buf, n) : -1; }
ssize_t SysWrite(int fd, const void* buf, size_t n) { return Pass() ? ::write(fd, buf, n) : -1; }
int SysFsync(int fd) { return Pass() ? ::fsync(fd) : -1; }
int SysFstat(int fd, struct stat* st) { return Pass() ? ::fstat(fd, st) : -1; }
int SysStat(const char* path, struct stat* st) { return Pass() ? ::stat(path, st) : -1; }
int SysRename(const char* from, const char* to) { return Pass() ? ::rename(from, to) : -1; }
int SysLink(const char* from, const char* to) { return Pass() ? ::link(from, to) : -1; }
int SysUnlink(const char* path) { return Pass() ? ::unlink(path) : -1; }
int SysMkdir(const char* path, mode_t mode) { return Pass() ? ::mkdir(path, mode) : -1; }
void* SysMmap(size_t n, int prot, int flags, int fd) {
  return Pass() ? ::mmap(nullptr, n, prot, flags, fd, 0) : MAP_FAILED;
}

bool ReadWhole(const std::string& path, std::string* out, std::string* why) {
  int fd = SysOpen(path.c_str(), O_RDONLY);
  if (fd < 0) return Fail("cannot open", path, why);
  out->clear();
  char buf[65536];
  for (;;) {
    ssize_t r = SysRead(fd, buf, sizeof buf);
    if (r < 0 && errno == EINTR) continue;
    if (r < 0) {
      Fail("cannot read", path, why);
      ::close(fd);
      return false;
    }
    if (r == 0) break;
    out->append(buf, static_cast<size_t>(r));
  }
  ::close(fd);
  return true;
}

bool WriteDurable(const std::string& path, const char* data, size_t n, std::string* why) {
  int fd = SysOpen(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
  if (fd < 0) return Fail("cannot create", path, why);
  size_t done = 0;
  while (done < n) {
    ssize_t w = SysWrite(fd, data + done, n - done);
    if (w < 0 && errno == EINTR) continue;
    if (w <= 0) {
      if (w == 0) errno = EIO;
      Fail("cannot write", path, why);
      ::close(fd);
      return false;
    }
    done += static_cast<size_t>(w);
  }
  if (SysFsync(fd) != 0) {
    Fail("cannot flush", path, why);
    ::close(fd);
    return false;
  }
  if (::close(fd) != 0) return Fail("cannot close", path, why);
  return true;
}

bool SyncPath(const std::string& path, std::string* why) {
  int fd = SysOpen(path.c_str(), O_RDONLY);
  if (fd < 0) return Fail("cannot open", path, why);
  bool ok = SysFsync(fd) == 0 || errno == EINVAL;  // some file systems cannot sync directories
  if (!ok) Fail("cannot flush", path, why);
  ::close(fd);
  return ok;
}

bool MakeDirs(const std::string& path, std::string* why) {
  struct stat st;
  if (SysStat(path.c_str(), &st) == 0) {
    if (S_ISDIR(st.st_mode)) return true;
  } else if (errno != ENOENT) {
    return Fail("cannot use", path, why);
  }
  for (size_t i = 1; i <= path.size(); i++) {
    if (i < path.size() && path[i] != '/') continue;
    std::string part = path.substr(0, i);
    if (SysMkdir(part.c_str(), 0755) != 0 && errno != EEXIST) return Fail("cannot make", part, why);
  }
  if (SysStat(path.c_str(), &st) != 0) return Fail("cannot use", path, why);
  if (!S_ISDIR(st.st_mode)) {
    errno = ENOTDIR;
    return Fail("cannot use", path, why);
  }
  return true;
}

bool Rename(const std::string& from, const std::string& to, std::string* why) {
  if (SysRename(from.c_str(), to.c_str()) == 0) return true;
  return Fail("cannot rename " + from + " to", to, why);
}

bool Link(const std::string& from, const std::string& to, std::string* why) {
  if (SysLink(from.c_str(), to.c_str()) == 0) return true;
  return Fail("cannot link " + from + " as", to, why);
}

bool LinkIfThere(const std::string& from, const std::string& to, bool* linked, std::string* why) {
  *linked = SysLink(from.c_str(), to.c_str()) == 0;
  if (*linked || errno == ENOENT) return true;
  return Fail("cannot link " + from + " as", to, why);
}

bool RemoveFile(const std::string& path, std::string* why) {
  if (SysUnlink(path.c_str()) == 0 || errno == ENOENT) return true;
  return Fail("cannot remove", path, why);
}

bool FileSize(const std::string& path, size_t* size, std::string* why) {
  struct stat st;
  if (SysStat(path.c_str(), &st) != 0) {
    const int err = errno;
    if (why)
      *why = err == ENOENT ? path + " is missing" : "cannot stat " + path + ": " + ErrnoText(err);
    errno = err;  // callers tell a missing file from a failing one by it
    return false;
  }
  if (!S_ISREG(st.st_mode)) {
    if (why) *why = path + " is not a regular file";
    errno = EISDIR;
    return false;
  }
  *size = static_cast<size_t>(st.st_size);
  return true;
}

std::string DirOf(const std::string& path) {
  size_t slash = path.rfind('/');
  return slash == std::string::npos ? "." : path.substr(0, slash);
}

}  // namespace corvid
