// StringWriter: the kernel reads back every row of a column the library wrote or extended;
// tail widths from the heap file's size, and a tail of width 8.
#include "writers/string_writer.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>
#include <string>
#include <vector>

#include "tests/writers/string_test_farm.h"

namespace qopci_test {
namespace {

using qopci::StringChunk;

std::string Many(const char* prefix, int count, size_t width) {
  std::string all;
  for (int i = 0; i < count; i++) {
    std::string s = prefix + std::to_string(i);
    s.resize(std::max(s.size(), width), '-');
    all += s + '\n';
  }
  return all;
}

std::vector<std::string> Lines(const std::string& text) {
  std::vector<std::string> out;
  size_t from = 0;
  for (size_t nl; (nl = text.find('\n', from)) != std::string::npos; from = nl + 1)
    out.push_back(text.substr(from, nl - from));
  return out;
}

// Points the descriptor of persistent BAT id at the files the writer wrote, as the copy
// manager does once the writer is closed.
void Install(bat id, StringWriter& w, uint64_t rows) {
  BAT* b = BBPgetdesc(id);
  ASSERT_NE(b, nullptr);
  b->batCount = b->batCapacity = rows;
  b->theap.free = w.GetTailSize();
  b->theap.size = w.GetTailMappedSize();
  b->twidth = static_cast<uint16_t>(w.GetValueWidth());
  b->tshift = static_cast<uint16_t>(ATOMelmshift(b->twidth));
  b->tailRows = b->theap.free / b->twidth;
  b->tsorted = b->trevsorted = b->tkey = b->tnonil = b->tdense = 0;
  b->batDirty = b->batDirtydesc = 1;
  b->theap.dirty = 1;
  b->tvheap->free = w.GetHeapSize();
  b->tvheap->size = w.GetHeapMappedSize();
  b->tvheap->dirty = 1;
  b->batStatus |= BATSTATUS_REWRITTEN;
}

TEST_F(StringFarmTest, KernelReadsWhatTheLibraryWroteOrExtended) {
  std::vector<std::string> mixed = {"alpha",
                                    kNil,
                                    "",
                                    "alpha",
                                    "\x80"
                                    "b",
                                    "beta",
                                    kNil};
  std::vector<std::string> wide = Lines(Many("w", 400, 12));  // width 2
  wide.insert(wide.end(), mixed.begin(), mixed.end());
  std::vector<std::string> big = {std::string(70000, 'q'), "after", kNil};  // past 64 KiB
  struct Case {
    const char* name;
    std::vector<std::string> kernel;   // appended and committed by the kernel first
    std::vector<std::string> library;  // then appended by the library
    bool heap_unchanged;               // every library string was found in the heap
  } cases[] = {
      {"new column", {}, wide, false},
      {"kernel heap extended, duplicates found", mixed, {"beta", kNil, "", "alpha"}, true},
      {"kernel heap extended past width 1", mixed, wide, false},
      {"kernel heap over 64 KiB appended to", big, {"after", "new", kNil}, false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    bat id = 0;
    ASSERT_EQ(CVDbat_create(TYPE_str, "c", 0, &id), nullptr);
    for (const std::string& s : c.kernel) ASSERT_EQ(CVDbat_append(id, s.c_str()), nullptr);
    ASSERT_EQ(TMcommit(), 0);
    BAT* b = BBPgetdesc(id);
    const uint64_t heap_size = c.kernel.empty() ? 0 : b->tvheap->free;
    const uint64_t rows = b->batCount;
    if (b->theap.base != nullptr) BATfree(b);
    BBPuncacheit(id, 0);

    char heap[1024], tail[1024];
    CVDbat_filename(id, "theap", heap, sizeof heap);
    CVDbat_filename(id, "tail", tail, sizeof tail);
    const bool keep = !c.kernel.empty();
    StringChunker chunker(1000, 20, heap, heap_size);
    StringWriter writer(heap, tail, keep, rows, heap_size);
    ASSERT_TRUE(writer.Open());
    uint32_t offset;
    for (const std::string& s : c.library) chunker.InsertString(s.c_str(), &offset);
    EXPECT_EQ(chunker.Heap().Free() == heap_size, c.heap_unchanged);
    ASSERT_TRUE(writer.WriteChunk(chunker.TakeChunk()));
    ASSERT_TRUE(writer.Close());
    Install(id, writer, rows + c.library.size());
    ASSERT_EQ(TMcommit(), 0);

    CVDfarm_close();
    ASSERT_EQ(CVDfarm_open(Path("farm").c_str(), 0), nullptr);
    id = CVDbat_lookup("c");
    BAT* d = BBPdescriptor(id);
    ASSERT_NE(d, nullptr);
    std::vector<std::string> all = c.kernel;
    all.insert(all.end(), c.library.begin(), c.library.end());
    ASSERT_EQ(d->batCount, all.size());
    for (size_t i = 0; i < all.size(); i++)
      EXPECT_STREQ(static_cast<const char*>(BUNtail(d, i)), all[i].c_str()) << i;
    BBPreleaseref(id);
    CVDfarm_close();
    char* report = nullptr;
    int faults = -1;
    ASSERT_EQ(CVDfarm_verify(Path("farm").c_str(), &report, &faults), nullptr);
    EXPECT_EQ(faults, 0) << report;
    GDKfree(report);
    std::filesystem::remove_all(Path("farm"));
    ASSERT_EQ(CVDfarm_open(Path("farm").c_str(), CVD_FARM_CREATE), nullptr);
  }
}

TEST_F(StringFarmTest, WidthStartsFromTheHeapFileOnDisk) {
  struct Case {
    const char* name;
    int64_t heap_bytes;  // -1: no file
    uint32_t width;
  } cases[] = {
      {"no heap file", -1, 1},
      {"empty hash area only", 2048, 1},
      {"value 255 fits", 2048 + 8 * 255, 1},
      {"value 256 needs 2", 2048 + 8 * 256, 2},
      {"values past 65535 + 256", 2048 + 8 * (65536 + 256), 4},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const std::string heap = Path("w.theap");
    std::filesystem::remove(heap);
    if (c.heap_bytes >= 0) {
      std::FILE* f = std::fopen(heap.c_str(), "wb");
      std::fclose(f);
      ASSERT_EQ(truncate(heap.c_str(), c.heap_bytes), 0);
    }
    StringWriter writer(heap.c_str(), Path("w.tail").c_str(), true, 0, 0);
    EXPECT_EQ(writer.GetValueWidth(), c.width);
    EXPECT_STREQ(writer.GetHeapFileName(), heap.c_str());
    EXPECT_STREQ(writer.GetFileName(), heap.c_str());
  }
}

TEST_F(StringFarmTest, TailOfWidthEightHoldsSixtyFourBitValues) {
  StringChunker chunker(10, 20, nullptr, 0);
  uint32_t offsets[3];
  for (int i = 0; i < 3; i++) chunker.InsertString(std::to_string(i).c_str(), &offsets[i]);
  auto* chunk = static_cast<StringChunk*>(chunker.TakeChunk());
  chunk->width_ = 8;
  StringWriter writer(Path("h").c_str(), Path("t").c_str(), false, 0, 0);
  ASSERT_TRUE(writer.Open());
  ASSERT_TRUE(writer.WriteChunk(chunk));
  EXPECT_EQ(writer.GetValueWidth(), 8u);
  ASSERT_TRUE(writer.Close());
  std::string tail = ReadFile(Path("t"));
  ASSERT_EQ(tail.size(), 24u);
  for (int i = 0; i < 3; i++) {
    uint64_t v;
    std::memcpy(&v, tail.data() + 8 * i, 8);
    EXPECT_EQ(v, offsets[i]);
  }
}

TEST_F(StringFarmTest, ClosingAnEmptyNewHeapLeavesAnEmptyHashArea) {
  StringWriter writer(Path("h").c_str(), Path("t").c_str(), false, 0, 0);
  ASSERT_TRUE(writer.Open());
  ASSERT_TRUE(writer.Close());
  EXPECT_EQ(ReadFile(Path("h")), std::string(2048, '\0'));
  EXPECT_EQ(writer.GetHeapSize(), 2048u);
  EXPECT_EQ(ReadFile(Path("t")), "");
}

}  // namespace
}  // namespace qopci_test
