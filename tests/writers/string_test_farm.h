// Helpers of the string column tests: a farm in a temporary directory, the kernel's own
// heap and tail for a list of strings, and the library's chain (StringChunker, chunks,
// StringWriter) writing the same strings to files; what the copy manager records of a
// written BAT, and the kernel's check of a farm.
#ifndef QOPCI_TESTS_WRITERS_STRING_TEST_FARM_H_
#define QOPCI_TESTS_WRITERS_STRING_TEST_FARM_H_

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

#include "chunkers/string_chunker.h"
#include "corvid/farm.h"
#include "corvid/gdk.h"
#include "queue/concurrent_queue.h"
#include "tests/support/temp_dir.h"
#include "writers/string_writer.h"
#include "writers/writer_chunk_pair.h"

namespace qopci_test {

using qopci::ConcurrentQueue;
using qopci::StringChunker;
using qopci::StringWriter;
using qopci::SubmitChunk;

const std::string kNil("\x80", 1);  // the host's nil string (its zero comes with c_str())

// count strings "<prefix><i>" padded with dots to width bytes.
inline std::vector<std::string> Numbered(const char* prefix, int count, size_t width) {
  std::vector<std::string> out;
  for (int i = 0; i < count; i++) {
    out.push_back(prefix + std::to_string(i));
    out.back().resize(std::max(out.back().size(), width), '.');
  }
  return out;
}

// The bytes of the kernel's column after appending strings: heap (its free bytes) and tail.
struct KernelColumn {
  std::string heap;
  std::string tail;
  int width = 0;
};

class StringFarmTest : public ::testing::Test {
 public:
  void SetUp() override {
    ASSERT_NE(dir_.path(), "");
    char* err = CVDfarm_open(Path("farm").c_str(), CVD_FARM_CREATE);
    ASSERT_EQ(err, nullptr) << err;
  }
  void TearDown() override { CVDfarm_close(); }

  std::string Path(const std::string& name) const { return dir_.path() + "/" + name; }

  // Points persistent BAT id at what writer w wrote, as the copy manager does after Close.
  static void Install(bat id, qopci::BATWriter* w, uint64_t rows) {
    BAT* b = BBPgetdesc(id);
    ASSERT_NE(b, nullptr);
    qopci::DescribeWrittenBAT(b, w, rows, false);
  }

  // With the farm closed: the kernel's check finds no fault; then a fresh farm is opened.
  void VerifyAndStartOver() {
    char* report = nullptr;
    int faults = -1;
    ASSERT_EQ(CVDfarm_verify(Path("farm").c_str(), &report, &faults), nullptr);
    EXPECT_EQ(faults, 0) << report;
    GDKfree(report);
    std::filesystem::remove_all(Path("farm"));
    ASSERT_EQ(CVDfarm_open(Path("farm").c_str(), CVD_FARM_CREATE), nullptr);
  }

  // Appends strings to a new transient str BAT and returns what the kernel built.
  static KernelColumn Kernel(const std::vector<std::string>& strings) {
    KernelColumn k;
    bat b = 0;
    EXPECT_EQ(CVDbat_create(TYPE_str, nullptr, 0, &b), nullptr);
    for (const std::string& s : strings) EXPECT_EQ(CVDbat_append(b, s.c_str()), nullptr);
    if (BAT* d = BBPdescriptor(b)) {
      k.heap.assign(d->tvheap->base, d->tvheap->free);
      k.width = d->twidth;
      k.tail.assign(d->theap.base, d->batCount * d->twidth);
      BBPreleaseref(b);
    }
    CVDbat_release(b);
    return k;
  }

  // Runs strings through a chunker of chunk_size into a writer of the two files, through a
  // queue of two workers when queued. Returns the writer's tail width (0 on failure).
  static int Library(const std::vector<std::string>& strings, int32_t chunk_size,
                     const std::string& heap, const std::string& tail, bool queued = false) {
    ConcurrentQueue queue(nullptr, 2);
    StringChunker chunker(chunk_size, 20, heap.c_str(), 0);
    StringWriter writer(heap.c_str(), tail.c_str(), false, 0, 0);
    if (queued) writer.SetQueue(&queue);
    if (!writer.Open()) return 0;
    for (size_t i = 0; i < strings.size(); i++) {
      uint32_t offset;
      chunker.InsertString(strings[i].c_str(), &offset);
      if (chunker.IsChunkFull() || i + 1 == strings.size())
        if (!SubmitChunk(&writer, chunker.TakeChunk(), true)) return 0;
    }
    queue.WaitForProcessingEnd();
    if (!queue.m_bOK) return 0;
    int width = static_cast<int>(writer.GetValueWidth());
    writer.Close();
    return width;
  }

 protected:
  TempDir dir_{"qopci-strings-"};
};

}  // namespace qopci_test

#endif  // QOPCI_TESTS_WRITERS_STRING_TEST_FARM_H_
