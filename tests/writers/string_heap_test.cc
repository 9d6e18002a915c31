// The heap and tail files the library writes for a new string column are byte for byte
// those the kernel builds from the same strings; a kernel-written heap is loaded and
// extended with its duplicates found.
#include "writers/string_heap.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/writers/string_test_farm.h"

namespace qopci_test {
namespace {

using qopci::StringHeap;

// Distinct strings with each one repeated right after (found through the bucket head from
// 64 KiB on) and every tenth repeated much later (found below 64 KiB, stored again above).
std::vector<std::string> Repeating(int count, int width) {
  std::vector<std::string> base = Numbered("r", count, width), out;
  for (int i = 0; i < count; i++) {
    out.push_back(base[i]);
    out.push_back(base[i]);
    if (i >= 50 && i % 10 == 0) out.push_back(base[i - 50]);
  }
  return out;
}

TEST_F(StringFarmTest, FilesEqualTheKernelsHeapAndTail) {
  std::vector<std::string> small = {"a",          "b",          "a",        "",    "",  kNil,
                                    kNil + "abc", kNil,         kNil + "x", "b",   "a", "ab",
                                    "ba",         kNil + "abc", "é",        "a\t", "a"};
  std::vector<std::string> one_long = {"x", std::string(70000, 'y'), "x", "z", "x", "z"};
  std::vector<std::string> blocks = Numbered("block", 300, 1000);  // many 64 KiB blocks
  blocks.insert(blocks.end(), {"block7", "block299", kNil, kNil, ""});
  struct Case {
    const char* name;
    std::vector<std::string> strings;
    std::vector<int32_t> chunk_sizes;  // one run per size
    int width;                         // the kernel's final tail width
  } cases[] = {
      {"duplicates through chains, nils, 0x80-led", small, {1000, 3, 1}, 1},
      {"width 2, duplicates near and far", Repeating(3000, 20), {100000, 61}, 2},
      {"one string past 64 KiB", one_long, {10}, 2},
      {"64 KiB blocks crossed, hash area cleared", blocks, {100000, 13}, 2},
      {"width 4, widened twice while written", Repeating(12000, 60), {100000, 1000}, 4},
  };
  for (const Case& c : cases) {
    KernelColumn k = Kernel(c.strings);
    ASSERT_EQ(k.width, c.width) << c.name;
    for (int32_t chunk_size : c.chunk_sizes) {
      for (bool queued : {false, true}) {
        SCOPED_TRACE(testing::Message()
                     << c.name << ", chunks of " << chunk_size << (queued ? ", queued" : ""));
        const std::string heap = Path("h"), tail = Path("t");
        ASSERT_EQ(Library(c.strings, chunk_size, heap, tail, queued), c.width);
        EXPECT_TRUE(ReadFile(heap) == k.heap);
        EXPECT_TRUE(ReadFile(tail) == k.tail);
      }
    }
  }
}

TEST_F(StringFarmTest, HeapLoadsExistingFiles) {
  // A heap the kernel built, then loaded: below 64 KiB its strings are found again.
  std::vector<std::string> old = {"one", "two", kNil, "", "three"};
  KernelColumn k = Kernel(old);
  const std::string file = Path("old.theap");
  WriteFile(file, k.heap);
  struct Case {
    const char* name;
    uint64_t size;  // existing size handed in
    bool loaded, elimination_off, throws;
  } cases[] = {
      {"loaded", k.heap.size(), true, false, false},
      {"65536 bytes: not loaded", 65536, false, true, false},
      {"shorter than its hash area", 100, false, false, true},
      {"file shorter than the size", 60000, false, false, true},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    if (c.throws) {
      EXPECT_THROW(StringHeap(10, 20, file.c_str(), c.size), const char*);
      continue;
    }
    StringHeap heap(10, 20, file.c_str(), c.size);
    EXPECT_EQ(heap.IsLoaded(), c.loaded);
    EXPECT_EQ(heap.IsEliminationOff(), c.elimination_off);
    EXPECT_EQ(heap.Free(), c.size);
    EXPECT_EQ(heap.GetOffsetWidth(), cvd_str_width(c.size));
    for (size_t i = 0; i < old.size(); i++) {
      bool found = false;
      int64_t v = heap.AddString(old[i].c_str(), &found);
      EXPECT_EQ(found, c.loaded) << i;
      if (c.loaded) {
        EXPECT_EQ(v, static_cast<uint8_t>(k.tail[i]) + 256) << i;
      }
    }
    EXPECT_EQ(heap.Free() == c.size, c.loaded);
  }
}

TEST_F(StringFarmTest, HeapRefusesToPassTheLimit) {
  StringHeap::SetLimitForTesting(4100);
  qopci::StringChunker chunker(100, 20, nullptr, 0);
  StringHeap::SetLimitForTesting(0);
  uint32_t offset;
  std::string s(1000, 'a');
  int stored = 0;
  const char* error = nullptr;
  try {
    for (; stored < 10; stored++) {
      s[0] = static_cast<char>('a' + stored);
      chunker.InsertString(s.c_str(), &offset);
    }
  } catch (const char* text) {
    error = text;
  }
  ASSERT_NE(error, nullptr);
  EXPECT_STREQ(error, "String heap would pass 4 GiB");
  EXPECT_EQ(stored, 2);  // records end at 3065 and 4081; the third would end at 5097
  EXPECT_EQ(chunker.GetValueCount(), 2u);
  const uint64_t free = chunker.Heap().Free();
  EXPECT_THROW(chunker.InsertString(s.c_str(), &offset), const char*);
  EXPECT_EQ(chunker.Heap().Free(), free);  // nothing stored by the refused string
  chunker.InsertString("b", &offset);      // a short one still fits
  EXPECT_EQ(chunker.GetValueCount(), 3u);
}

}  // namespace
}  // namespace qopci_test
