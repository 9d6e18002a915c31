#include <stdlib.h>
#include <sys/stat.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <list>
#include <memory>
#include <string>
#include <vector>

#include "gtest/gtest.h"
#include "queue/concurrent_queue.h"
#include "tests/support/temp_dir.h"
#include "writers/dict_bat_writer.h"
#include "writers/mmf/mmf_fault.h"
#include "writers/simple_type_bat_writer.h"
#include "writers/writer_chunk_pair.h"

namespace qopci {
namespace {

using qopci_test::ReadFile;
using qopci_test::WriteFile;

std::atomic<int> g_destroyed{0};  // chunks of different writers die on different workers

// A chunk that counts its destructions.
template <typename T>
struct CountedChunk : SimpleTypeChunk<T> {
  explicit CountedChunk(std::vector<T> values) : SimpleTypeChunk<T>(values.size()) {
    for (T v : values) {
      this->buffer_[this->count_++] = v;
      this->size_ += sizeof(T);
    }
  }
  ~CountedChunk() override { ++g_destroyed; }
};

class WritersTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_FALSE(dir_.empty());
    g_destroyed = 0;
  }
  void TearDown() override { MMFInjectFailure(0); }
  std::string Path(const char* name) { return dir_ + "/" + name; }
  template <typename T>
  static std::string Bytes(std::vector<T> v) {
    return std::string(reinterpret_cast<const char*>(v.data()), v.size() * sizeof(T));
  }

  qopci_test::TempDir tmp_{"writers_test_"};
  const std::string dir_ = tmp_.path();
};

TEST_F(WritersTest, FixedWidthTailsAppendExactly) {
  const std::string before = Bytes(std::vector<int>(1250, 7));  // 5000 bytes
  struct Case {
    const char* name;
    bool keep;
    uint64_t existing;
    std::vector<std::vector<int>> chunks;
    std::string expected;
  } cases[] = {
      {"existing 1000 starts at byte 4000 and is cut after the last value",
       true,
       1000,
       {{1, 2, 3}, {4}},
       before.substr(0, 4000) + Bytes<int>({1, 2, 3, 4})},
      {"an empty chunk writes nothing", true, 1250, {{}}, before},
      {"not kept: the tail is created anew", false, 0, {{9, 8}, {}, {7}}, Bytes<int>({9, 8, 7})},
  };
  for (bool queued : {false, true}) {
    for (const Case& c : cases) {
      SCOPED_TRACE(testing::Message() << c.name << (queued ? ", queued" : ", direct"));
      std::string path = Path("tail");
      WriteFile(path, before);
      g_destroyed = 0;
      ConcurrentQueue queue(nullptr, 2);
      SimpleTypeBATWriter<int> w(path.c_str(), c.keep, c.existing);
      if (queued) w.SetQueue(&queue);
      ASSERT_TRUE(w.Open());
      for (const auto& values : c.chunks) {
        ASSERT_TRUE(SubmitChunk(&w, new CountedChunk<int>(values), true));
      }
      queue.WaitForProcessingEnd();
      EXPECT_TRUE(queue.m_bOK);
      EXPECT_EQ(g_destroyed, static_cast<int>(c.chunks.size()));
      EXPECT_EQ(w.GetTailSize(), c.expected.size());
      w.Close();
      EXPECT_EQ(w.GetTailMappedSize(), c.expected.size());
      EXPECT_TRUE(ReadFile(path) == c.expected);
    }
  }
}

TEST_F(WritersTest, DictionaryWriterFiles) {
  for (bool with_codes : {true, false}) {
    for (bool queued : {false, true}) {
      SCOPED_TRACE(testing::Message() << "codes " << with_codes << " queued " << queued);
      std::filesystem::remove_all(dir_);
      std::filesystem::create_directory(dir_);
      std::string keys = Path("keys"), key_codes = Path("key_codes"), codes = Path("codes");
      WriteFile(keys, Bytes<int64_t>({100, 200}));
      WriteFile(key_codes, Bytes<unsigned>({1, 2}));
      WriteFile(codes, Bytes<unsigned>({1, 2, 2, 99}));  // three rows count; the fourth goes
      g_destroyed = 0;
      ConcurrentQueue queue(nullptr, 3);
      SimpleTypeDictWriter<int64_t, unsigned, unsigned> w(
          keys.c_str(), key_codes.c_str(), with_codes ? codes.c_str() : nullptr, true, 2, 3);
      if (queued) w.SetQueue(&queue);
      std::list<BATWriter*> registered;
      w.RegisterIn(registered);
      EXPECT_EQ(registered.size(), with_codes ? 4u : 3u);
      EXPECT_EQ(registered.front(), &w);
      ASSERT_TRUE(w.Open());
      for (int round = 0; round < 2; ++round) {
        auto* kv = new KeyValueChunk<unsigned>(
            new CountedChunk<int64_t>({300 + round}), new CountedChunk<unsigned>({3u + round}),
            new CountedChunk<unsigned>({3u + round, 1, 3u + round}));
        ASSERT_TRUE(SubmitChunk(&w, kv, true));
      }
      queue.WaitForProcessingEnd();
      EXPECT_TRUE(queue.m_bOK);
      EXPECT_EQ(g_destroyed, 6);
      for (auto heap_size : {&BATWriter::GetHeapSize, &BATWriter::GetHeapMappedSize}) {
        try {
          (w.*heap_size)();
          ADD_FAILURE() << "a dictionary column has no heap";
        } catch (const char* text) {
          EXPECT_STREQ(text, "Not implemented");
        }
      }
      EXPECT_EQ(w.GetValueWidth(), with_codes ? 4u : 0u);
      w.Close();
      EXPECT_TRUE(ReadFile(keys) == Bytes<int64_t>({100, 200, 300, 301}));
      EXPECT_TRUE(ReadFile(key_codes) == Bytes<unsigned>({1, 2, 3, 4}));
      std::string want_codes = with_codes ? Bytes<unsigned>({1, 2, 2, 3, 1, 3, 4, 1, 4})
                                          : Bytes<unsigned>({1, 2, 2, 99});
      EXPECT_TRUE(ReadFile(codes) == want_codes);
    }
  }
}

// A failed queued write names the file and errno, and its chunk is destroyed once, by
// ReleaseAll; a failed direct write leaves the chunk to the caller, with errno kept.
TEST_F(WritersTest, WorkItemErrorsAndChunkOwnership) {
  struct Case {
    const char* name;
    bool open;
    int inject_errno;  // 0: no injected failure
    int code;          // errno of the failure, 0 for success
  } cases[] = {
      {"written", true, 0, 0},
      {"disk full while growing the tail", true, ENOSPC, ENOSPC},
      {"tail never opened", false, 0, EBADF},
  };
  for (bool queued : {false, true}) {
    for (const Case& c : cases) {
      SCOPED_TRACE(testing::Message() << c.name << (queued ? ", queued" : ", direct"));
      std::string path = Path("col.tail");
      std::remove(path.c_str());
      g_destroyed = 0;
      SimpleTypeBATWriter<short> w(path.c_str(), false, 0);
      EXPECT_EQ(WriterChunkPair(&w, nullptr).OrderKey(), &w);  // one writer's items in order
      ConcurrentQueue queue(nullptr, 1);
      if (queued) w.SetQueue(&queue);
      if (c.open) {
        ASSERT_TRUE(w.Open());
      }
      std::string want = "WriterChunkPair::CreateError() : Can't insert chunk to file [ " + path +
                         " ] (Error code " + std::to_string(c.code) + ")";
      MMFInjectFailure(c.inject_errno != 0 ? 1 : 0, c.inject_errno);
      auto* chunk = new CountedChunk<short>({1, 2});
      bool accepted = SubmitChunk(&w, chunk, true);
      int err = errno;
      queue.WaitForProcessingEnd();
      MMFInjectFailure(0);
      if (queued) {
        EXPECT_TRUE(accepted);
        EXPECT_EQ(queue.m_bOK, c.code == 0);
        EXPECT_EQ(queue.ErrorText(), c.code == 0 ? "" : want);
      } else {
        EXPECT_EQ(accepted, c.code == 0);
        if (!accepted) {
          EXPECT_EQ(err, c.code);
          EXPECT_EQ(g_destroyed, 0);  // still the caller's
          delete chunk;
        }
      }
      EXPECT_EQ(g_destroyed, 1);
      w.Close();
      EXPECT_EQ(ReadFile(path), c.code == 0 ? Bytes<short>({1, 2}) : "");
    }
  }
}

TEST_F(WritersTest, MaxPendingIsAHundredthOfFreeMemoryInChunks) {
  std::string meminfo = Path("meminfo");
  WriteFile(meminfo, "MemTotal:       16000000 kB\nMemAvailable:    8388608 kB\n");
  EXPECT_EQ(MemAvailableFrom(meminfo.c_str()), 8ull << 30);
  EXPECT_EQ(MemAvailableFrom(Path("missing").c_str()), 0u);
  struct Case {
    uint64_t available, capacity, want;
  } cases[] = {
      {8ull << 30, 1048576, 81},
      {kUnknownAvailableMemory, 1048576, 10},
      {kUnknownAvailableMemory, 0, 10737418},
  };
  for (const Case& c : cases) EXPECT_EQ(MaxPendingChunks(c.available, c.capacity), c.want);
  // Free memory moves between two readings; the item must answer from the same source.
  WriterChunkPair item(nullptr, nullptr);
  const double expected = static_cast<double>(MaxPendingChunks(AvailableMemory(), 1));
  EXPECT_NEAR(static_cast<double>(item.GetMaxPending()), expected, expected * 0.1);
}

}  // namespace
}  // namespace qopci
