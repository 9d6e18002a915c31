// StringWriter: the kernel reads back every row of a column the library wrote or extended;
// tail widening, and a tail of width 8.
#include "writers/string_writer.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "tests/writers/string_test_farm.h"
#include "writers/mmf/mmf_fault.h"

namespace qopci_test {
namespace {

using qopci::StringChunk;

TEST_F(StringFarmTest, KernelReadsWhatTheLibraryWroteOrExtended) {
  std::vector<std::string> mixed = {"alpha", kNil, "", "alpha", kNil + "b", "beta", kNil};
  std::vector<std::string> wide = Numbered("w", 400, 12);  // width 2
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
    Install(id, &writer, rows + c.library.size());
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
    VerifyAndStartOver();
  }
}

ino_t Inode(const std::string& path) {
  struct stat st {};
  stat(path.c_str(), &st);
  return st.st_ino;
}

// A second export widens the tail the first wrote. Each system call of that write fails in
// turn: a write that fails before the tail is replaced leaves it exactly as it was, one
// whose tail cannot be removed rewrites it in place, and every write that succeeds leaves
// the kernel's own files.
TEST_F(StringFarmTest, WideningAcrossExportsAndWhenItFails) {
  const std::vector<std::string> first = Numbered("f", 40, 8);  // width 1
  std::vector<std::string> second = Numbered("s", 300, 8);      // then width 2
  second.push_back(first[3]);
  std::vector<std::string> all = first;
  all.insert(all.end(), second.begin(), second.end());
  const KernelColumn k = Kernel(all);
  ASSERT_EQ(k.width, 2);
  const std::string heap = Path("h"), tail = Path("t");
  ASSERT_EQ(Library(first, 1000, heap, tail), 1);
  const std::string heap1 = ReadFile(heap), tail1 = ReadFile(tail);
  const std::string widened = k.tail.substr(0, 2 * first.size());
  bool in_place = false, failed_unchanged = false;
  for (int n = 1;; n++) {
    SCOPED_TRACE(n);
    WriteFile(heap, heap1);
    WriteFile(tail, tail1);
    const ino_t inode = Inode(tail);
    StringChunker chunker(1000, 20, heap.c_str(), heap1.size());
    StringWriter writer(heap.c_str(), tail.c_str(), true, first.size(), heap1.size());
    ASSERT_TRUE(writer.Open());
    uint32_t offset;
    for (const std::string& s : second) chunker.InsertString(s.c_str(), &offset);
    qopci::BATChunk* chunk = chunker.TakeChunk();
    qopci::MMFInjectFailure(n);
    const bool ok = writer.WriteChunk(chunk);
    const uint64_t calls = qopci::MMFSystemCallCount();
    qopci::MMFInjectFailure(0);
    if (!ok) delete chunk;
    writer.Close();
    const std::string t = ReadFile(tail);
    EXPECT_FALSE(std::filesystem::exists(tail + "2"));
    if (ok) {
      EXPECT_TRUE(t == k.tail);
      EXPECT_TRUE(ReadFile(heap) == k.heap);
      EXPECT_EQ(writer.GetValueWidth(), 2u);
      if (Inode(tail) == inode) in_place = true;
    } else if (t == tail1) {
      failed_unchanged = true;
    } else {
      EXPECT_TRUE(t == widened);  // replaced by the widened rows, the new ones not appended
    }
    if (calls < static_cast<uint64_t>(n)) break;  // the armed call was never reached
  }
  EXPECT_TRUE(in_place);
  EXPECT_TRUE(failed_unchanged);
}

// Little-endian values of the given width.
std::string Packed(const std::vector<uint64_t>& values, int width) {
  std::string out;
  for (uint64_t v : values) out.append(reinterpret_cast<const char*>(&v), width);
  return out;
}

TEST_F(StringFarmTest, WideningRewritesEveryValue) {
  struct Case {
    int from, to;
    uint64_t heap_bytes;  // gives the writer its starting width
    std::vector<uint64_t> before, after;
  } cases[] = {
      {1, 2, 2048, {0, 7, 255}, {0, 7, 255}},
      {2, 4, 4096, {0, 300, 65535}, {256, 556, 65791}},  // the reduction by 256 goes
      {1, 4, 2048, {0, 255}, {256, 511}},
      {4, 8, 2048 + 8 * (65536 + 256), {70000, 4000000000}, {70000, 4000000000}},
      {2, 8, 4096, {1, 2}, {257, 258}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::Message() << c.from << " to " << c.to);
    const std::string heap = Path("w.theap"), tail = Path("w.tail");
    WriteFile(heap, "");
    ASSERT_EQ(truncate(heap.c_str(), c.heap_bytes), 0);
    WriteFile(tail, Packed(c.before, c.from));
    StringWriter writer(heap.c_str(), tail.c_str(), true, c.before.size(), c.heap_bytes);
    ASSERT_EQ(writer.GetValueWidth(), static_cast<uint32_t>(c.from));  // from the heap's size
    ASSERT_TRUE(writer.Open());
    EXPECT_FALSE(writer.WidenTail(c.from, c.before.size()));  // not wider
    ASSERT_TRUE(writer.WidenTail(c.to, c.before.size()));
    ASSERT_TRUE(writer.Close());
    EXPECT_EQ(ReadFile(tail), Packed(c.after, c.to));
    EXPECT_FALSE(std::filesystem::exists(tail + std::to_string(c.to)));
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
