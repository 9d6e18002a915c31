// POSIX file helpers; errno is turned into text here and nowhere else in the farm code.
#include "fileio.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "internal.h"

namespace corvid {
namespace {

bool Fail(const std::string& what, const std::string& path, std::string* why) {
  *why = what + " " + path + ": " + ErrnoText(errno);
  return false;
}

}  // namespace

bool ReadWhole(const std::string& path, std::string* out, std::string* why) {
  int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return Fail("cannot open", path, why);
  out->clear();
  char buf[65536];
  for (;;) {
    ssize_t r = ::read(fd, buf, sizeof buf);
    if (r < 0 && errno == EINTR) continue;
    if (r < 0) {
      ::close(fd);
      return Fail("cannot read", path, why);
    }
    if (r == 0) break;
    out->append(buf, static_cast<size_t>(r));
  }
  ::close(fd);
  return true;
}

bool WriteDurable(const std::string& path, const char* data, size_t n, std::string* why) {
  int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (fd < 0) return Fail("cannot create", path, why);
  size_t done = 0;
  while (done < n) {
    ssize_t w = ::write(fd, data + done, n - done);
    if (w < 0 && errno == EINTR) continue;
    if (w <= 0) {
      ::close(fd);
      return Fail("cannot write", path, why);
    }
    done += static_cast<size_t>(w);
  }
  if (::fsync(fd) != 0) {
    ::close(fd);
    return Fail("cannot flush", path, why);
  }
  if (::close(fd) != 0) return Fail("cannot close", path, why);
  return true;
}

bool SyncPath(const std::string& path, std::string* why) {
  int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return Fail("cannot open", path, why);
  bool ok = ::fsync(fd) == 0 || errno == EINVAL;  // some file systems cannot sync directories
  if (!ok) Fail("cannot flush", path, why);
  ::close(fd);
  return ok;
}

bool MakeDirs(const std::string& path, std::string* why) {
  for (size_t i = 1; i <= path.size(); i++) {
    if (i < path.size() && path[i] != '/') continue;
    std::string part = path.substr(0, i);
    if (::mkdir(part.c_str(), 0755) != 0 && errno != EEXIST) return Fail("cannot make", part, why);
  }
  struct stat st;
  if (::stat(path.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) {
    errno = ENOTDIR;
    return Fail("cannot use", path, why);
  }
  return true;
}

bool FileSize(const std::string& path, size_t* size) {
  struct stat st;
  if (::stat(path.c_str(), &st) != 0 || !S_ISREG(st.st_mode)) return false;
  *size = static_cast<size_t>(st.st_size);
  return true;
}

std::string DirOf(const std::string& path) {
  size_t slash = path.rfind('/');
  return slash == std::string::npos ? "." : path.substr(0, slash);
}

}  // namespace corvid
