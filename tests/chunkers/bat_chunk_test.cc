#include "chunkers/bat_chunk.h"

#include <gtest/gtest.h>

#include <memory>

namespace qopci {
namespace {

TEST(BatChunkTest, FullnessAndPartCounts) {
  SimpleTypeChunk<int> empty(0), a(2), b(2), c(2), d(2), e(2);
  a.count_ = 1;
  b.count_ = 2;

  KeyValueChunk<int> kv(&a, &c, &b);
  StringChunk str(4, nullptr);
  str.offsets_[2] = &b;
  BATChunk* five[5] = {&a, &b, &c, &d, &e};
  TesselTimestampChunk ts(&a, &b, &c);
  TesselTimeLevelsChunk levels(five);
  KeyValueChunk<unsigned int> nested(&str, &c, &d);  // a string dictionary's chunk

  struct Case {
    const char* name;
    const BATChunk& chunk;
    int parts;
    bool full;
    uint64_t capacity;
  } cases[] = {
      {"capacity 0", empty, 1, true, 0},
      {"partly filled", a, 1, false, 2},
      {"filled", b, 1, true, 2},
      {"key-value", kv, 3, true, 2},
      {"string", str, 1, true, 4},
      {"timestamp", ts, 3, false, 2},
      {"time levels", levels, 5, false, 2},
      {"string dictionary", nested, 3, false, 2},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(c.chunk.GetPartCount(), c.parts) << c.name;
    EXPECT_EQ(c.chunk.IsFull(), c.full) << c.name;
    EXPECT_EQ(c.chunk.GetCapacity(), c.capacity) << c.name;
  }
}

}  // namespace
}  // namespace qopci
