// Helpers of the reader tests: a scratch directory, files of given values, and a TextLog
// with its own buffer.
#ifndef QOPCI_TESTS_READERS_READER_TEST_UTIL_H_
#define QOPCI_TESTS_READERS_READER_TEST_UTIL_H_

#include <stdlib.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "gtest/gtest.h"
#include "readers/text_log.h"

namespace qopci {

class ReaderTest : public ::testing::Test {
 public:
  void SetUp() override {
    char tmpl[] = "/tmp/readers_test_XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    dir_ = tmpl;
  }
  void TearDown() override { std::filesystem::remove_all(dir_); }

  // Writes bytes to dir/name and returns the path.
  std::string Put(const std::string& name, const std::string& bytes) {
    std::string path = dir_ + "/" + name;
    std::ofstream(path, std::ios::binary) << bytes;
    return path;
  }
  template <typename T>
  std::string PutValues(const std::string& name, const std::vector<T>& values) {
    std::string bytes(values.size() * sizeof(T), '\0');
    if (!values.empty()) std::memcpy(bytes.data(), values.data(), bytes.size());
    return Put(name, bytes);
  }
  uintmax_t SizeOf(const std::string& path) { return std::filesystem::file_size(path); }

  std::string dir_;
};

// A TextLog over its own buffer.
struct OwnedLog {
  explicit OwnedLog(uint32_t capacity = 1024) : bytes(capacity + 1, '\0') {
    log = TextLog{bytes.data(), capacity, 0};
  }
  std::string Text() const { return std::string(log.buffer, log.length); }

  std::vector<char> bytes;
  TextLog log;
};

}  // namespace qopci

#endif  // QOPCI_TESTS_READERS_READER_TEST_UTIL_H_
