// StringChunker: the tail width rule, the offset streams of a chunk, nils, flags, the heap
// parameter and what a handed-out chunk carries of the heap.
#include "chunkers/string_chunker.h"

#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

namespace qopci {
namespace {

template <typename T>
std::vector<uint64_t> Values(BATChunk* member) {
  auto* c = dynamic_cast<SimpleTypeChunk<T>*>(member);
  std::vector<uint64_t> out;
  if (c != nullptr) out.assign(c->buffer_, c->buffer_ + c->count_);
  return out;
}

TEST(StringChunkerTest, WidthGrowsWithTheOffsetsAndNeverShrinks) {
  // Each string's record follows the one before, so the lengths place the next offsets.
  struct Step {
    size_t length;    // string of this many 'a's ("" stays the same string: found again)
    uint32_t offset;  // its tail value, heap position / 8
    int32_t width;    // the chunker's width after it
  } steps[] = {
      {0, 258, 1},       // the first string of an empty heap: position 2064
      {330, 260, 1},     // 2080
      {2400, 303, 1},    // 2424: 303 - 256 = 47 still fits one byte
      {1, 605, 2},       // 4840: 605 - 256 = 349 needs two
      {0, 258, 2},       // found again: a small offset keeps width 2
      {530000, 607, 2},  // 4856
      {2, 66859, 4},     // 534872: past 65535 + 256
      {0, 66861, 4},     // past 64 KiB the chain is not searched: stored again
  };
  StringChunker chunker(100, 20, nullptr, 0);
  std::vector<uint64_t> all;
  std::vector<uint64_t> narrow[2];  // values stored while the width was 1, and up to 2
  for (const Step& s : steps) {
    SCOPED_TRACE(s.length);
    uint32_t offset = 0;
    ASSERT_TRUE(chunker.InsertString(std::string(s.length, 'a').c_str(), &offset));
    EXPECT_EQ(offset, s.offset);
    EXPECT_EQ(chunker.Heap().GetOffsetWidth(), s.width);
    all.push_back(offset);
    if (s.width == 1) narrow[0].push_back(offset % 256);
    if (s.width <= 2) narrow[1].push_back(offset - 256);
  }
  std::unique_ptr<BATChunk> taken(chunker.TakeChunk());
  auto* chunk = dynamic_cast<StringChunk*>(taken.get());
  ASSERT_NE(chunk, nullptr);
  EXPECT_EQ(chunk->width_, 4);
  EXPECT_EQ(Values<unsigned char>(chunk->offsets_[0]), narrow[0]);
  EXPECT_EQ(Values<unsigned short>(chunk->offsets_[1]), narrow[1]);
  EXPECT_EQ(Values<unsigned int>(chunk->offsets_[2]), all);
  EXPECT_EQ(Values<unsigned int>(chunk->offsets_[3]), all);
  EXPECT_EQ(chunker.GetValueCount(), std::size(steps));
}

TEST(StringChunkerTest, TakeChunkWidthFollowsTheHeapsEnd) {
  // One 4000-byte string: its offset fits width 1, the heap's end (6065) does not.
  StringChunker chunker(10, 20, nullptr, 0);
  uint32_t offset;
  chunker.InsertString(std::string(4000, 'x').c_str(), &offset);
  EXPECT_EQ(chunker.Heap().GetOffsetWidth(), 1);
  std::unique_ptr<BATChunk> taken(chunker.TakeChunk());
  EXPECT_EQ(static_cast<StringChunk*>(taken.get())->width_, 2);
  EXPECT_EQ(chunker.Heap().GetOffsetWidth(), 2);
}

TEST(StringChunkerTest, NilsFlagsAndParameters) {
  const std::string nil("\x80");
  struct Case {
    const char* name;
    int32_t heap_parameter;
    int32_t kept_parameter;
    std::vector<std::string> values;  // "<nil>" goes through InsertNil
    bool no_nils;
  } cases[] = {
      {"no nils", 20, 20, {"a", "b"}, true},
      {"InsertNil", 0, 20, {"a", "<nil>"}, false},
      {"the nil string inserted as a value", -3, 20, {nil}, false},
      {"0x80-led strings are not nil", 501, 500, {nil + "a", nil + nil}, true},
      {"kept parameter", 500, 500, {}, true},
      {"smallest kept parameter", 1, 1, {"z"}, true},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    StringChunker chunker(4, c.heap_parameter, nullptr, 0);
    EXPECT_EQ(chunker.HeapParameter(), c.kept_parameter);
    EXPECT_EQ(chunker.Heap().BufferSize(), 4u * c.kept_parameter + 2048);
    for (const std::string& v : c.values) {
      if (v == "<nil>")
        chunker.InsertNil();
      else
        chunker.InsertVal(const_cast<char*>(v.c_str()));
    }
    EXPECT_EQ(chunker.HasNoNils(), c.no_nils);
    EXPECT_FALSE(chunker.IsSorted() || chunker.IsKey());  // never claimed for strings
    EXPECT_EQ(chunker.GetValueCount(), c.values.size());
  }
}

TEST(StringChunkerTest, ChunksCarryTheirOwnHeapBytes) {
  StringChunker chunker(2, 1, nullptr, 0);  // a 2050-byte buffer: every chunk grows it
  EXPECT_FALSE(chunker.IsChunkFull());
  uint32_t offset;
  std::vector<std::unique_ptr<BATChunk>> chunks;
  for (int i = 0; i < 6; i++) {
    chunker.InsertString(std::string(100 + i, 'a' + i).c_str(), &offset);
    if (!chunker.IsChunkFull()) continue;
    chunks.emplace_back(chunker.TakeChunk());
    EXPECT_FALSE(chunker.IsChunkFull());
  }
  ASSERT_EQ(chunks.size(), 3u);
  std::string heap;
  for (size_t i = 0; i < chunks.size(); i++) {
    auto* c = static_cast<StringChunk*>(chunks[i].get());
    EXPECT_EQ(c->restart_heap_, i == 0);
    EXPECT_FALSE(c->heap_rewritten_);
    heap.append(c->heap_, c->GetSize());
    ASSERT_NE(c->hash_area_, nullptr);
    heap.replace(0, 2048, c->hash_area_.get(), 2048);  // the last hash area wins
  }
  EXPECT_EQ(heap.size(), chunker.Heap().Free());
  // Bytes handed out earlier were not touched by the growth of the buffer since.
  auto* first = static_cast<StringChunk*>(chunks[0].get());
  EXPECT_EQ(std::string(first->heap_ + 2064, 100), std::string(100, 'a'));
  // The hash area names the newest string of each bucket: "fff..." is found through it.
  uint16_t head;
  uint32_t hash = cvd_str_hash(std::string(105, 'f').c_str());
  std::memcpy(&head, heap.data() + 2 * cvd_str_bucket(hash), 2);
  EXPECT_EQ(head + 10u, offset * 8);
  chunker.InsertString("x", &offset);
  chunker.InsertString("y", &offset);
  const uint64_t free = chunker.Heap().Free();
  EXPECT_FALSE(chunker.InsertString("z", &offset));  // full: nothing stored
  EXPECT_EQ(chunker.Heap().Free(), free);
  EXPECT_EQ(chunker.GetValueCount(), 8u);
}

}  // namespace
}  // namespace qopci
