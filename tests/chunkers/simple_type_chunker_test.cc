#include "chunkers/simple_type_chunker.h"

#include <corvid/gdk.h>
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "chunkers/double_chunker.h"

namespace qopci {
namespace {

void Init(ChunkerBase& c) { c.InitCastTable(ATOMindex, ATOMformat, ATOMstrConvert, GDKfree); }

template <typename F>
const char* Thrown(F f) {
  try {
    f();
  } catch (const char* e) {
    return e;
  }
  return "nothing thrown";
}

// Runs a script of steps: a number is inserted, "N" is InsertNil, "n" a nil through
// InsertValue, "S<v>" seeds the previous value with v and "s" seeds it with nil.
TEST(SimpleTypeChunkerTest, Statistics) {
  struct Case {
    const char* script;
    bool sorted, key, no_nil;
    uint32_t steps_up;
    int previous;
  } cases[] = {
      {"1 2 3", true, true, true, 2, 3},    {"1 1 2", true, false, true, 0, 2},
      {"3 1 2", false, false, true, 0, 3},  {"5 5 5", true, false, true, 0, 5},
      {"3 2 1", false, false, true, 0, 3},  {"N 1 2", true, true, false, 2, 2},
      {"1 N", false, false, false, 0, 1},   {"n 4", true, true, true, 1, 4},
      {"S10 5", false, false, true, 0, 10}, {"S1 5", true, true, true, 1, 5},
      {"s 5", true, true, true, 1, 5},
  };
  for (const Case& c : cases) {
    SimpleTypeChunker<int> chunker(8);
    Init(chunker);
    std::istringstream script(c.script);
    for (std::string step; script >> step;) {
      const int v = std::atoi(step.c_str() + (step[0] == 'S'));
      if (step == "N")
        chunker.InsertNil();
      else if (step == "n")
        chunker.InsertValue(&v, "int", true);
      else if (step[0] == 'S' || step == "s")
        chunker.SetPreviousValue(v, step == "s");
      else
        chunker.InsertValue(&v, "int", false);
    }
    EXPECT_EQ(chunker.IsSorted(), c.sorted) << c.script;
    EXPECT_EQ(chunker.IsKey(), c.key) << c.script;
    EXPECT_EQ(chunker.HasNoNils(), c.no_nil) << c.script;
    EXPECT_EQ(chunker.AscendingSteps(), c.steps_up) << c.script;
    EXPECT_EQ(chunker.PreviousValue(), c.previous) << c.script;
  }
}

template <typename T>
std::vector<unsigned char> Bytes(T v) {
  std::vector<unsigned char> b(sizeof v);
  std::memcpy(b.data(), &v, sizeof v);
  return b;
}
std::vector<unsigned char> Str(const char* s) { return {s, s + std::strlen(s) + 1}; }

// Inserts one source value into a fresh chunker of the target type; returns the stored
// value as text, or the thrown text with the number of values stored.
template <typename C>
std::string Insert(const std::vector<unsigned char>& src, const char* type) {
  C chunker(4);
  Init(chunker);
  try {
    chunker.InsertValue(src.data(), type, false);
  } catch (const char* e) {
    return std::string(e) + " stored " + std::to_string(chunker.GetValueCount());
  }
  auto v = chunker.CurrentChunk()->buffer_[0];
  if constexpr (sizeof v == 1) return std::to_string(static_cast<int>(v));
  return std::to_string(v);
}

std::string InsertInto(const std::string& t, const std::vector<unsigned char>& s, const char* n) {
  if (t == "chr") return Insert<SimpleTypeChunker<char>>(s, n);
  if (t == "uchr") return Insert<SimpleTypeChunker<unsigned char>>(s, n);
  if (t == "sht") return Insert<SimpleTypeChunker<short>>(s, n);
  if (t == "usht") return Insert<SimpleTypeChunker<unsigned short>>(s, n);
  if (t == "int") return Insert<SimpleTypeChunker<int>>(s, n);
  if (t == "uint") return Insert<SimpleTypeChunker<unsigned int>>(s, n);
  if (t == "lng") return Insert<SimpleTypeChunker<int64_t>>(s, n);
  if (t == "ulng") return Insert<SimpleTypeChunker<uint64_t>>(s, n);
  if (t == "dbl") return Insert<SimpleTypeChunker<double>>(s, n);
  return Insert<DoubleChunker>(s, n);
}

TEST(SimpleTypeChunkerTest, CastsFromEverySourceType) {
  struct Case {
    const char* target;
    const char* source;
    std::vector<unsigned char> value;
    const char* expected;
  } cases[] = {
      {"int", "bte", Bytes<int8_t>(-1), "-1"},
      {"uint", "bte", Bytes<int8_t>(-1), "4294967295"},
      {"lng", "chr", Bytes<int8_t>(-128), "-128"},
      {"uchr", "bit", Bytes<int8_t>(1), "1"},
      {"dbl", "bte", Bytes<int8_t>(-3), "-3.000000"},
      {"chr", "sht", Bytes<int16_t>(0x1234), "52"},
      {"usht", "sht", Bytes<int16_t>(-2), "65534"},
      {"ulng", "sht", Bytes<int16_t>(-1), "18446744073709551615"},
      {"sht", "int", Bytes<int32_t>(70000), "4464"},
      {"lng", "int", Bytes<int32_t>(-5), "-5"},
      {"Dbl", "int", Bytes<int32_t>(-7), "-7.000000"},
      {"int", "date", Bytes<int32_t>(730485), "730485"},
      {"lng", "daytime", Bytes<int32_t>(86399999), "86399999"},
      {"lng", "oid", Bytes<uint32_t>(0x80000000u), "2147483648"},
      {"int", "oid", Bytes<uint32_t>(0xFFFFFFFFu), "-1"},
      {"dbl", "oid", Bytes<uint32_t>(0xFFFFFFFFu), "4294967295.000000"},
      {"int", "lng", Bytes<int64_t>(0x100000005), "5"},
      {"ulng", "lng", Bytes<int64_t>(-1), "18446744073709551615"},
      {"usht", "wrd", Bytes<int64_t>(0x12345678), "22136"},
      {"lng", "timestamp", Bytes<int64_t>(-9), "-9"},
      {"lng", "ptr", Bytes<int64_t>(42), "42"},
      {"dbl", "ptr", Bytes<int64_t>(42), "Casting ptr* to double stored 0"},
      {"int", "flt", Bytes<float>(-2.9f), "-2"},
      {"dbl", "flt", Bytes<float>(0.5f), "0.500000"},
      {"int", "dbl", Bytes<double>(-2.9), "-2"},  // toward zero: neither floor nor round
      {"ulng", "dbl", Bytes<double>(1e19), "10000000000000000000"},  // beyond int64, fits
      {"int", "bat", Bytes<int32_t>(12), "12"},
      {"chr", "dbl", Bytes<double>(300.7), "44"},
      {"lng", "dbl", Bytes<double>(1e30), "9223372036854775807"},
      {"lng", "dbl", Bytes<double>(-1e30), "-9223372036854775808"},
      {"int", "dbl", Bytes<double>(NAN), "0"},
      {"ulng", "dbl", Bytes<double>(-1.0), "18446744073709551615"},
      {"int", "str", Str("42"), "42"},
      {"lng", "str", Str("-12345678901"), "-12345678901"},
      {"uint", "str", Str("7"), "7"},
      {"chr", "str", Str("A"), "65"},
      {"Dbl", "str", Str("2.5"), "2.500000"},
      {"int", "str", Str("forty"), "Can't convert string value stored 0"},
      {"int", "void", Bytes<int32_t>(1), "Casting not implemented stored 0"},
      {"lng", "nosuchtype", Bytes<int64_t>(1), "Casting not implemented stored 0"},
  };
  for (const Case& c : cases)
    EXPECT_EQ(InsertInto(c.target, c.value, c.source), c.expected)
        << c.source << " into " << c.target;
}

TEST(SimpleTypeChunkerTest, ChunkLifecycle) {
  // Source types change within one column; the stable host names are reused.
  SimpleTypeChunker<int> chunker(3);
  Init(chunker);
  const int one = 1;
  const double two = 2.7;
  const int64_t three = 3;
  ASSERT_TRUE(chunker.InsertValue(&one, ATOMname(TYPE_int), false));
  ASSERT_TRUE(chunker.InsertValue(&two, ATOMname(TYPE_dbl), false));
  int more[2] = {4, 5};
  EXPECT_STREQ(Thrown([&] { chunker.InsertVals(more, 2); }),
               "SimpleTypeChunker::InsertVals() : chunk overflow");
  EXPECT_EQ(chunker.GetValueCount(), 2u) << "an overflowing run stores nothing";
  ASSERT_TRUE(chunker.InsertValue(&three, ATOMname(TYPE_lng), false));
  EXPECT_TRUE(chunker.IsChunkFull());
  EXPECT_FALSE(chunker.InsertVal(9)) << "a full chunk refuses values";

  std::unique_ptr<BATChunk> taken(chunker.TakeChunk());
  auto* full = static_cast<SimpleTypeChunk<int>*>(taken.get());
  EXPECT_EQ(std::vector<int>(full->buffer_, full->buffer_ + full->count_),
            (std::vector<int>{1, 2, 3}));
  EXPECT_EQ(full->GetSize(), 12u);
  EXPECT_FALSE(chunker.IsChunkFull());
  EXPECT_TRUE(chunker.InsertVals(more, 2));
  EXPECT_TRUE(chunker.InsertVals(more, 0));
  EXPECT_EQ(chunker.CurrentChunk()->count_, 2);
  EXPECT_EQ(chunker.GetValueCount(), 5u);

  SimpleTypeChunker<short> zero(0);
  EXPECT_TRUE(zero.IsChunkFull());
  std::unique_ptr<BATChunk>(zero.TakeChunk());
  EXPECT_TRUE(zero.IsChunkFull());

  EXPECT_STREQ(Thrown([] { SimpleTypeChunker<int> negative(-1); }),
               "Chunk size must not be negative");
}

template <typename T>
uint64_t Bits(const T* v) {
  uint64_t bits = 0;
  std::memcpy(&bits, v, sizeof *v);
  return bits;
}

TEST(SimpleTypeChunkerTest, NilValues) {
  EXPECT_EQ(*SimpleTypeChunker<char>(0).GetNilValue(), -128);
  EXPECT_EQ(*SimpleTypeChunker<unsigned char>(0).GetNilValue(), 128);
  EXPECT_EQ(*SimpleTypeChunker<short>(0).GetNilValue(), -32768);
  EXPECT_EQ(*SimpleTypeChunker<unsigned short>(0).GetNilValue(), 32768);
  EXPECT_EQ(*SimpleTypeChunker<int>(0).GetNilValue(), INT32_MIN);
  EXPECT_EQ(*SimpleTypeChunker<unsigned int>(0).GetNilValue(), 2147483648u);
  EXPECT_EQ(*SimpleTypeChunker<int64_t>(0).GetNilValue(), INT64_MIN);
  EXPECT_EQ(*SimpleTypeChunker<uint64_t>(0).GetNilValue(), 9223372036854775808u);
  EXPECT_EQ(Bits(SimpleTypeChunker<double>(0).GetNilValue()), 0x43E0000000000000u);
  DoubleChunker doubles(1);
  EXPECT_TRUE(doubles.InsertNil());
  EXPECT_EQ(Bits(doubles.CurrentChunk()->buffer_), 0xFFEFFFFFFFFFFFFFu);
}

}  // namespace
}  // namespace qopci
