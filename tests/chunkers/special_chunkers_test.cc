#include <corvid/gdk.h>
#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <vector>

#include "chunkers/decimal_chunker.h"
#include "chunkers/timestamp_chunker.h"

namespace qopci {
namespace {

TEST(DecimalChunkerTest, StorageWidthAndLowestByteStore) {
  struct Case {
    int32_t precision;
    int32_t width;
    unsigned char nil_byte;  // lowest byte of the signed nil of that width
  } cases[] = {{1, 1, 0x80}, {2, 1, 0x80}, {3, 2, 0},  {4, 2, 0},
               {5, 4, 0},    {9, 4, 0},    {10, 8, 0}, {18, 8, 0}};
  for (const Case& c : cases) {
    DecimalChunker chunker(3, c.precision);
    EXPECT_EQ(chunker.StorageWidth(), c.width) << c.precision;
    EXPECT_TRUE(chunker.InsertVal(0x1234));
    EXPECT_TRUE(chunker.InsertVal(-1));
    EXPECT_TRUE(chunker.InsertNil());
    EXPECT_FALSE(chunker.InsertVal(7)) << "a full chunk stores nothing";
    EXPECT_FALSE(chunker.HasNoNils());

    std::unique_ptr<BATChunk> taken(chunker.TakeChunk());
    EXPECT_FALSE(chunker.IsChunkFull());
    EXPECT_EQ(chunker.GetValueCount(), 3u);
    auto* chunk = static_cast<SimpleTypeChunk<char>*>(taken.get());
    ASSERT_EQ(chunk->GetSize(), 3u * c.width) << c.precision;
    std::vector<unsigned char> expected(3 * c.width, 0);
    expected[0] = 0x34;
    expected[c.width] = 0xFF;
    expected[2 * c.width] = c.nil_byte;
    EXPECT_EQ(std::vector<unsigned char>(chunk->buffer_, chunk->buffer_ + chunk->size_), expected)
        << c.precision;
  }
}

constexpr int64_t Day(int64_t d) { return static_cast<int64_t>(static_cast<uint64_t>(d) << 32); }
constexpr int64_t kNilDay = Day(0x80000000LL);

TEST(TimestampChunkerTest, DateTimeArithmetic) {
  struct Case {
    int y, mo, d, h, mi, s, ms;
    int64_t expected;
  } cases[] = {
      {2000, 1, 1, 0, 0, 0, 0, Day(730485)},
      {2000, 2, 29, 0, 0, 0, 0, Day(730544)},
      {2000, 3, 1, 0, 0, 0, 0, Day(730545)},
      {1900, 2, 28, 0, 0, 0, 0, Day(694019)},
      {1900, 3, 1, 0, 0, 0, 0, Day(694020)},
      {1900, 2, 29, 0, 0, 0, 0, kNilDay},
      {2000, 2, 30, 0, 0, 0, 0, kNilDay},
      {2000, 13, 1, 0, 0, 0, 0, kNilDay},
      {2000, 1, 0, 0, 0, 0, 0, kNilDay},
      {0, 1, 1, 0, 0, 0, 0, kNilDay},
      {-1, 1, 1, 0, 0, 0, 0, Day(1)},
      {-1, 12, 31, 0, 0, 0, 0, Day(366)},
      {1, 1, 1, 0, 0, 0, 0, Day(366)},
      {-5, 2, 29, 0, 0, 0, 0, Day(-1402)},
      {-4, 2, 29, 0, 0, 0, 0, kNilDay},
      {5867411, 12, 31, 0, 0, 0, 0, Day(2143028226)},
      {5867412, 1, 1, 0, 0, 0, 0, kNilDay},
      {-5867411, 1, 1, 0, 0, 0, 0, Day(-2143027496)},
      {-5867412, 1, 1, 0, 0, 0, 0, kNilDay},
      {2000, 1, 1, 23, 59, 59, 999, Day(730485) + 86399999},
      {2000, 1, 1, 24, 0, 0, 0, Day(730484) + 0x80000000LL},
      {2000, 1, 1, 0, 60, 0, 0, Day(730484) + 0x80000000LL},
      {2000, 1, 1, 0, 0, 0, 1000, Day(730484) + 0x80000000LL},
      {2000, 1, 1, -1, 0, 0, 0, Day(730485) - 3600000},  // only upper bounds are invalid
      {2000, 2, 30, 12, 0, 0, 0, kNilDay + 43200000},
      {2000, 2, 30, 24, 0, 0, 0, 0x7FFFFFFF80000000LL},
  };
  for (const Case& c : cases) {
    TimestampChunker chunker(1);
    EXPECT_TRUE(chunker.InsertDateTime(c.y, c.mo, c.d, c.h, c.mi, c.s, c.ms));
    EXPECT_EQ(chunker.CurrentChunk()->buffer_[0], c.expected)
        << c.y << "-" << c.mo << "-" << c.d << " " << c.h << ":" << c.mi << ":" << c.s << "."
        << c.ms;
  }
}

TEST(TimestampChunkerTest, ZeroIsNilAndTextConversions) {
  struct Case {
    const char* how;
    FromStringFn from_string;
    const char* type;
    const void* src;
    int64_t expected;
    bool no_nil;
  };
  const int64_t zero = 0, seven = 7;
  const Case cases[] = {
      {"zero value", ATOMstrConvert, "lng", &zero, INT64_MIN, false},
      {"plain value", ATOMstrConvert, "lng", &seven, 7, true},
      {"timestamp text", ATOMstrConvertToTimeStamp, "str", "2000-01-01 00:00:01.500",
       Day(730485) + 1500, true},
      {"date text", ATOMstrConvertToTimeStamp, "str", "-1-12-31", Day(366), true},
      {"integer text", ATOMstrConvert, "str", "12", 12, true},
      {"zero text", ATOMstrConvert, "str", "0", INT64_MIN, false},
  };
  for (const Case& c : cases) {
    TimestampChunker chunker(2);
    chunker.InitCastTable(ATOMindex, ATOMformat, c.from_string, GDKfree);
    EXPECT_TRUE(chunker.InsertValue(c.src, c.type, false)) << c.how;
    EXPECT_EQ(chunker.CurrentChunk()->buffer_[0], c.expected) << c.how;
    EXPECT_EQ(chunker.HasNoNils(), c.no_nil) << c.how;
  }
}

}  // namespace
}  // namespace qopci
