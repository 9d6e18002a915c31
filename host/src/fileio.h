// Small POSIX file helpers for the farm: whole-file reads and durable writes.
// Threading: stateless; callers serialise access to the same files.
#ifndef CORVID_SRC_FILEIO_H_
#define CORVID_SRC_FILEIO_H_

#include <cstddef>
#include <string>

namespace corvid {

// Each returns false and sets *why (with the errno text) on failure.
bool ReadWhole(const std::string& path, std::string* out, std::string* why);
bool WriteDurable(const std::string& path, const char* data, size_t n, std::string* why);
bool SyncPath(const std::string& path, std::string* why);  // fsync a file or directory
bool MakeDirs(const std::string& path, std::string* why);  // mkdir -p
bool FileSize(const std::string& path, size_t* size);      // false when it does not exist
std::string DirOf(const std::string& path);

}  // namespace corvid

#endif  // CORVID_SRC_FILEIO_H_
