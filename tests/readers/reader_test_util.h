// Helpers of the reader tests: a scratch directory, files of given values, and a TextLog
// with its own buffer.
#ifndef QOPCI_TESTS_READERS_READER_TEST_UTIL_H_
#define QOPCI_TESTS_READERS_READER_TEST_UTIL_H_

#include <string>
#include <vector>

#include "gtest/gtest.h"
#include "readers/text_log.h"
#include "tests/support/temp_dir.h"

namespace qopci {

class ReaderTest : public ::testing::Test {
 public:
  void SetUp() override { ASSERT_FALSE(dir_.empty()); }

  // Writes bytes (or values) to dir/name and returns the path.
  std::string Put(const std::string& name, const std::string& bytes) {
    return qopci_test::WriteFile(dir_ + "/" + name, bytes);
  }
  template <typename T>
  std::string PutValues(const std::string& name, const std::vector<T>& values) {
    return Put(
        name, std::string(reinterpret_cast<const char*>(values.data()), values.size() * sizeof(T)));
  }

  qopci_test::TempDir tmp_{"readers_test_"};
  const std::string dir_ = tmp_.path();
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
