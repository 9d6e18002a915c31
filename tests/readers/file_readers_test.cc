// Readers of fixed-width column files and string tails, and the TextLog they write into.
#include <cstdint>
#include <functional>
#include <limits>
#include <memory>
#include <string>
#include <type_traits>
#include <vector>

#include "gtest/gtest.h"
#include "readers/simple_type_bat_reader.h"
#include "readers/simple_type_dict_reader.h"
#include "readers/string_tail_reader.h"
#include "readers/text_log.h"
#include "tests/readers/reader_test_util.h"
#include "writers/mmf/mmf.h"

namespace qopci {
namespace {

TEST(TextLogTest, AppendsCutsAndStopsWhenFull) {
  struct Case {
    uint32_t capacity;
    std::vector<std::string> texts;  // appended in turn with prefix "P"
    std::string expected;
  } cases[] = {
      {64, {"one."}, "P::one."},
      {64, {"one.", "two."}, "P::one.P::two."},
      {6, {"one."}, "P::on"},             // cut at the capacity, zero included
      {6, {"one.", "two."}, "P::on"},     // full: the second line is dropped
      {9, {"one.", "two."}, "P::one.P"},  // the second line is cut
      {1, {"one."}, ""},                  // room for the zero only
      {0, {"one."}, ""},
  };
  for (const Case& c : cases) {
    std::vector<char> buffer(c.capacity + 8, 'x');
    TextLog log{buffer.data(), c.capacity, 0};
    for (const std::string& t : c.texts) TextLogAppend(&log, "P", t.c_str());
    EXPECT_EQ(std::string(buffer.data(), log.length), c.expected) << c.capacity;
    if (log.length > 0) {
      EXPECT_EQ(buffer[log.length], '\0') << c.capacity;
    }
    EXPECT_EQ(buffer[c.capacity], 'x') << "wrote past the capacity " << c.capacity;
  }
  TextLog no_buffer{nullptr, 100, 0};
  TextLogAppend(&no_buffer, "P", "text");
  EXPECT_EQ(no_buffer.length, 0u);
  TextLogAppend(nullptr, "P", "text");
}

using FixedTest = ReaderTest;

// Reads every element with the logging Read; returns the values and the log's text.
template <typename R>
auto ReadAll(R& r, OwnedLog* log) {
  std::vector<decltype(r.GetValue())> out;
  if (!r.Initialize(&log->log)) return out;
  while (r.Read(&log->log)) out.push_back(r.GetValue());
  r.Close();
  return out;
}

TEST_F(FixedTest, WalksFilesOfEverySize) {
  std::vector<int> big(20000);  // 80000 bytes: the walk crosses into a second span
  for (size_t i = 0; i < big.size(); ++i) big[i] = static_cast<int>(i * 7 - 3);
  struct Case {
    const char* what;
    std::vector<int> values;
    std::string extra;   // bytes after the values
    uint64_t requested;  // MMF::kNoRequestedSize for the whole file
    bool whole;
    size_t expect_count;  // leading values expected
    const char* log;
  } cases[] = {
      {"empty",
       {},
       "",
       MMF::kNoRequestedSize,
       false,
       0,
       "SimpleTypeBATReader<int>::Read() failed, capacity == 0."},
      {"one",
       {42},
       "",
       MMF::kNoRequestedSize,
       false,
       1,
       "SimpleTypeBATReader<int>::Read() failed to forward cursor."},
      {"two spans", big, "", MMF::kNoRequestedSize, false, big.size(),
       "SimpleTypeBATReader<int>::Read() failed to forward cursor."},
      {"whole file", big, "", MMF::kNoRequestedSize, true, big.size(),
       "SimpleTypeBATReader<int>::Read() failed to forward cursor."},
      {"requested size cuts", big, "", 4 * 16390, false, 16390,
       "SimpleTypeBATReader<int>::Read() failed to forward cursor."},
      {"partial last element",
       {1, 2},
       "ab",
       MMF::kNoRequestedSize,
       false,
       2,
       "SimpleTypeBATReader<int>::Read() failed to forward cursor."},
      {"requested zero",
       {5},
       "",
       0,
       false,
       0,
       "SimpleTypeBATReader<int>::Read() failed to forward cursor."},
  };
  for (const Case& c : cases) {
    std::string bytes(reinterpret_cast<const char*>(c.values.data()), c.values.size() * 4);
    std::string path = Put("t", bytes + c.extra);
    SimpleTypeBATReader<int> r(path.c_str(), c.requested);
    if (c.whole) r.SetWholeFile();
    OwnedLog log;
    std::vector<int> got = ReadAll(r, &log);
    std::vector<int> want(c.values.begin(), c.values.begin() + c.expect_count);
    EXPECT_EQ(got, want) << c.what;
    EXPECT_EQ(log.Text(), c.log) << c.what;
    EXPECT_EQ(r.IsEmpty(), bytes.empty() && c.extra.empty()) << c.what;
    EXPECT_EQ(qopci_test::ReadFile(path), bytes + c.extra) << "reading changed the file " << c.what;
  }
}

TEST_F(FixedTest, EveryInstanceLogsWithItsNameAndWidth) {
  std::string missing = dir_ + "/missing";
  struct Instance {
    const char* name;
    uint32_t width;
    std::function<bool(TextLog*, uint32_t*)> init;  // Initialize over the missing file
  };
  auto make = [&](auto tag) {
    using T = typename decltype(tag)::type;
    return [&](TextLog* log, uint32_t* width) {
      SimpleTypeBATReader<T> r(missing.c_str(), MMF::kNoRequestedSize);
      *width = r.ElementWidth();
      return r.Initialize(log);
    };
  };
  Instance instances[] = {
      {"SimpleTypeBATReader<char>", 1, make(std::type_identity<char>{})},
      {"SimpleTypeBATReader<unsigned char>", 1, make(std::type_identity<unsigned char>{})},
      {"SimpleTypeBATReader<short>", 2, make(std::type_identity<short>{})},
      {"SimpleTypeBATReader<unsigned short>", 2, make(std::type_identity<unsigned short>{})},
      {"SimpleTypeBATReader<int>", 4, make(std::type_identity<int>{})},
      {"SimpleTypeBATReader<unsigned int>", 4, make(std::type_identity<unsigned int>{})},
      {"SimpleTypeBATReader<__int64>", 8, make(std::type_identity<int64_t>{})},
      {"SimpleTypeBATReader<unsigned __int64>", 8, make(std::type_identity<uint64_t>{})},
      {"SimpleTypeBATReader<double>", 8, make(std::type_identity<double>{})},
  };
  for (const Instance& i : instances) {
    OwnedLog log;
    uint32_t width = 0;
    EXPECT_FALSE(i.init(&log.log, &width)) << i.name;
    EXPECT_EQ(log.Text(), std::string(i.name) + "::Initialize failed to initialize reader.");
    EXPECT_EQ(width, i.width) << i.name;
  }
  EXPECT_FALSE(std::filesystem::exists(missing)) << "a reader created its file";
}

TEST_F(FixedTest, ValuesOfEachTypeAndSetValue) {
  std::string path = PutValues<double>("d", {1.5, -2.25, 1e300});
  SimpleTypeBATReader<double> r(path.c_str(), MMF::kNoRequestedSize);
  OwnedLog log;
  EXPECT_EQ(ReadAll(r, &log), (std::vector<double>{1.5, -2.25, 1e300}));

  path = PutValues<int64_t>("l", {INT64_MIN, 7, INT64_MAX});
  SimpleTypeBATReader<int64_t> l(path.c_str(), MMF::kNoRequestedSize);
  ASSERT_TRUE(l.Open());
  ASSERT_TRUE(l.Read());
  ASSERT_TRUE(l.Read());
  l.SetValue(-9);
  EXPECT_EQ(l.GetValue(), -9);
  l.Close();
  SimpleTypeBATReader<int64_t> again(path.c_str(), MMF::kNoRequestedSize);
  EXPECT_EQ(ReadAll(again, &log), (std::vector<int64_t>{INT64_MIN, -9, INT64_MAX}));
}

using DictTest = ReaderTest;

// Reads a dictionary-coded column row by row through SimpleTypeDictReader<T,U>.
template <typename T, typename U>
std::vector<T> DecodeAll(const std::string& values, const std::string& codes, uint32_t* width) {
  SimpleTypeDictReader<T, U> r(values.c_str(), MMF::kNoRequestedSize,
                               new SimpleTypeBATReader<U>(codes.c_str(), MMF::kNoRequestedSize));
  *width = r.ElementWidth();
  std::vector<T> out;
  if (!r.Open()) return out;
  while (r.Read()) out.push_back(r.GetValue());
  r.Close();
  return out;
}

TEST_F(DictTest, CodesNumberTheDictionaryFromOne) {
  struct Case {
    const char* what;
    std::function<bool(uint32_t*)> run;  // true when the decoded rows are as expected
    uint32_t width;
  } cases[] = {
      {"int codes",
       [&](uint32_t* w) {
         return DecodeAll<int, int>(PutValues<int>("v", {10, 20, 30}),
                                    PutValues<int>("c", {1, 3, 2, 3, 1}),
                                    w) == std::vector<int>{10, 30, 20, 30, 10};
       },
       4},
      {"64-bit values, 32-bit codes",
       [&](uint32_t* w) {
         return DecodeAll<int64_t, unsigned int>(PutValues<int64_t>("v", {INT64_MIN, 5}),
                                                 PutValues<unsigned int>("c", {2, 1}),
                                                 w) == std::vector<int64_t>{5, INT64_MIN};
       },
       4},
      {"byte codes past 127",
       [&](uint32_t* w) {
         std::vector<unsigned char> values(200);
         for (size_t i = 0; i < values.size(); ++i) values[i] = static_cast<unsigned char>(i);
         return DecodeAll<unsigned char, char>(PutValues("v", values),
                                               PutValues<char>("c", {1, char(200), char(128)}),
                                               w) == std::vector<unsigned char>{0, 199, 127};
       },
       1},
      {"dictionary across two spans",
       [&](uint32_t* w) {
         std::vector<double> values(10000);  // 80000 bytes
         for (size_t i = 0; i < values.size(); ++i) values[i] = i * 0.5;
         return DecodeAll<double, unsigned int>(PutValues("v", values),
                                                PutValues<unsigned int>("c", {10000, 1, 8193}),
                                                w) == std::vector<double>{4999.5, 0, 4096};
       },
       4},
      {"empty code file",
       [&](uint32_t* w) {
         return DecodeAll<short, short>(PutValues<short>("v", {1}), Put("c", ""), w).empty();
       },
       2},
  };
  for (const Case& c : cases) {
    uint32_t width = 0;
    EXPECT_TRUE(c.run(&width)) << c.what;
    EXPECT_EQ(width, c.width) << c.what;
  }
}

TEST_F(DictTest, OpenOrderAndTheValuesWalk) {
  std::string values = PutValues<double>("v", {1.5, 2.5});
  std::string codes = PutValues<unsigned int>("c", {2, 2, 1});
  std::string missing = dir_ + "/missing";
  // Missing values file: the code file is never opened; missing code file: false.
  for (const std::string& v : {missing, values}) {
    DictBATReader<double, unsigned int> r(
        v.c_str(), MMF::kNoRequestedSize,
        new SimpleTypeBATReader<unsigned int>(v == missing ? codes.c_str() : missing.c_str(),
                                              MMF::kNoRequestedSize));
    OwnedLog log;
    EXPECT_FALSE(r.Initialize(&log.log));
    EXPECT_EQ(log.Text(), "SimpleTypeBATReader<double>::Initialize failed to initialize reader.");
    EXPECT_FALSE(r.codes()->Read()) << "the code file was opened after a failure";
  }
  // DictBATReader walks the values file; so does SimpleTypeDictReader's logging Read.
  DictBATReader<double, unsigned int> dict(
      values.c_str(), 16, new SimpleTypeBATReader<unsigned int>(codes.c_str(), 12));
  OwnedLog log;
  EXPECT_EQ(ReadAll(dict, &log), (std::vector<double>{1.5, 2.5}));
  EXPECT_EQ(dict.ElementWidth(), 4u);
  SimpleTypeDictReader<double, unsigned int> rows(
      values.c_str(), 16, new SimpleTypeBATReader<unsigned int>(codes.c_str(), 12));
  ASSERT_TRUE(rows.Initialize(&log.log));
  EXPECT_TRUE(rows.Read(&log.log));
  EXPECT_TRUE(rows.Read(&log.log));
  EXPECT_FALSE(rows.Read(&log.log));  // two values; the code file has three rows
  EXPECT_EQ(rows.Position(), 8u);
  EXPECT_TRUE(rows.Read());  // the code file is still on its first row
  EXPECT_EQ(rows.GetValue(), 2.5);
}

using TailTest = ReaderTest;

TEST_F(TailTest, ReadsEveryWidthAsLow32Bits) {
  struct Case {
    uint32_t width;
    std::vector<uint64_t> entries;
    std::vector<uint32_t> expected;
  } cases[] = {
      {1, {0, 3, 255}, {0, 3, 255}},
      {2, {0, 3, 65535}, {0, 3, 65535}},
      {4, {0, 24, 0xFFFFFFFFu}, {0, 24, 0xFFFFFFFFu}},
      {8, {0, 0x100000005ull, 0xFFFFFFFFull}, {0, 5, 0xFFFFFFFFu}},
  };
  for (const Case& c : cases) {
    std::string bytes;
    for (uint64_t e : c.entries) bytes.append(reinterpret_cast<const char*>(&e), c.width);
    std::string path = Put("tail", bytes);
    StringTailReader r(path.c_str(), c.width, bytes.size());
    EXPECT_EQ(r.ElementWidth(), c.width);
    OwnedLog log;
    ASSERT_TRUE(r.Initialize(&log.log));
    std::vector<uint32_t> got;
    while (r.Read(&log.log)) got.push_back(r.GetValue());
    EXPECT_EQ(got, c.expected) << "width " << c.width;
    EXPECT_EQ(log.Text(), "StringTailReader::Read() returned false.");
    for (size_t i = c.expected.size(); i-- > 0;)
      EXPECT_EQ(r.ValueAt(i), c.expected[i]) << "width " << c.width << " row " << i;
    r.Close();
  }
}

TEST_F(TailTest, MissingFileAndBadWidth) {
  std::string path = PutValues<uint32_t>("tail", {1, 2});
  struct Case {
    std::string file;
    uint32_t width;
    const char* log;
  } cases[] = {
      {dir_ + "/missing", 4, "StringTailReader::Initialize() returned false."},
      {path, 3, "StringTailReader::Initialize() returned false."},
      {path, 16, "StringTailReader::Initialize() returned false."},
  };
  for (const Case& c : cases) {
    StringTailReader r(c.file.c_str(), c.width, MMF::kNoRequestedSize);
    OwnedLog log;
    EXPECT_FALSE(r.Initialize(&log.log));
    EXPECT_EQ(log.Text(), c.log);
    EXPECT_FALSE(r.Read());
    EXPECT_EQ(r.GetValue(), 0u);
    EXPECT_EQ(r.ValueAt(0), 0u);
  }
}

}  // namespace
}  // namespace qopci
