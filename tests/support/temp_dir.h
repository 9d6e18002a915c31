// A fresh directory under /tmp for one test, removed with all it holds when the object goes,
// and whole-file reads and writes for checking bytes. Not thread-safe: one per test.
#ifndef QOPCI_TESTS_SUPPORT_TEMP_DIR_H_
#define QOPCI_TESTS_SUPPORT_TEMP_DIR_H_

#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

namespace qopci_test {

class TempDir {
 public:
  // Makes /tmp/<prefix>XXXXXX; path() is "" when that failed.
  explicit TempDir(const std::string& prefix = "qopci_test_") {
    std::string tmpl = "/tmp/" + prefix + "XXXXXX";
    if (mkdtemp(tmpl.data()) != nullptr) path_ = tmpl;
  }
  ~TempDir() {
    if (!path_.empty()) std::filesystem::remove_all(path_);
  }
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  const std::string& path() const { return path_; }

 private:
  std::string path_;
};

// The bytes of the file at path; "" when it cannot be read.
inline std::string ReadFile(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

// Replaces the file at path with bytes; returns the path.
inline std::string WriteFile(const std::string& path, const std::string& bytes) {
  std::ofstream(path, std::ios::binary) << bytes;
  return path;
}

}  // namespace qopci_test

#endif  // QOPCI_TESTS_SUPPORT_TEMP_DIR_H_
