// Readers of fixed-width column files and string tails, and the TextLog they write into.
#include <cstdint>
#include <filesystem>
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

constexpr uint64_t kAll = MMF::kNoRequestedSize;

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
  // Each case holds the first `count` values of big and then `extra` bytes.
  struct Case {
    const char* what;
    size_t count;
    std::string extra;
    uint64_t requested;
    bool whole;
    size_t expect_count;  // leading values expected
  } cases[] = {
      {"empty", 0, "", kAll, false, 0},
      {"one", 1, "", kAll, false, 1},
      {"two spans", big.size(), "", kAll, false, big.size()},
      {"whole file", big.size(), "", kAll, true, big.size()},
      {"requested size cuts", big.size(), "", 4 * 16390, false, 16390},
      {"partial last element", 2, "ab", kAll, false, 2},
      {"requested zero", 1, "", 0, false, 0},
  };
  for (const Case& c : cases) {
    std::string bytes(reinterpret_cast<const char*>(big.data()), c.count * 4);
    bytes += c.extra;
    std::string path = Put("t", bytes);
    SimpleTypeBATReader<int> r(path.c_str(), c.requested);
    if (c.whole) r.SetWholeFile();
    OwnedLog log;
    EXPECT_EQ(ReadAll(r, &log), std::vector<int>(big.begin(), big.begin() + c.expect_count))
        << c.what;
    EXPECT_EQ(log.Text(), bytes.empty()
                              ? "SimpleTypeBATReader<int>::Read() failed, capacity == 0."
                              : "SimpleTypeBATReader<int>::Read() failed to forward cursor.")
        << c.what;
    EXPECT_EQ(r.IsEmpty(), bytes.empty()) << c.what;
    EXPECT_EQ(qopci_test::ReadFile(path), bytes) << "reading changed the file " << c.what;
  }
}

// Initializes a SimpleTypeBATReader<T> over a missing file: it fails, logging its name.
template <typename T>
void ExpectMissing(const std::string& missing, const std::string& name) {
  SimpleTypeBATReader<T> r(missing.c_str(), kAll);
  OwnedLog log;
  EXPECT_FALSE(r.Initialize(&log.log)) << name;
  EXPECT_EQ(log.Text(), name + "::Initialize failed to initialize reader.");
}

TEST_F(FixedTest, EveryInstanceLogsWithItsName) {
  std::string missing = dir_ + "/missing";
  ExpectMissing<char>(missing, "SimpleTypeBATReader<char>");
  ExpectMissing<unsigned char>(missing, "SimpleTypeBATReader<unsigned char>");
  ExpectMissing<short>(missing, "SimpleTypeBATReader<short>");
  ExpectMissing<unsigned short>(missing, "SimpleTypeBATReader<unsigned short>");
  ExpectMissing<int>(missing, "SimpleTypeBATReader<int>");
  ExpectMissing<unsigned int>(missing, "SimpleTypeBATReader<unsigned int>");
  ExpectMissing<int64_t>(missing, "SimpleTypeBATReader<__int64>");
  ExpectMissing<uint64_t>(missing, "SimpleTypeBATReader<unsigned __int64>");
  ExpectMissing<double>(missing, "SimpleTypeBATReader<double>");
  EXPECT_FALSE(std::filesystem::exists(missing)) << "a reader created its file";
}

TEST_F(FixedTest, SetValueWritesThroughToTheFile) {
  std::string path = PutValues<int64_t>("l", {INT64_MIN, 7, INT64_MAX});
  SimpleTypeBATReader<int64_t> l(path.c_str(), kAll);
  ASSERT_TRUE(l.Open() && l.Read() && l.Read());
  l.SetValue(-9);
  EXPECT_EQ(l.GetValue(), -9);
  l.Close();
  SimpleTypeBATReader<int64_t> again(path.c_str(), kAll);
  OwnedLog log;
  EXPECT_EQ(ReadAll(again, &log), (std::vector<int64_t>{INT64_MIN, -9, INT64_MAX}));
}

using DictTest = ReaderTest;

// Decodes a dictionary-coded column row by row through SimpleTypeDictReader<T,U> and checks
// the rows and the element width, which is the code width.
template <typename T, typename U>
void ExpectDecodes(ReaderTest* t, const std::string& values, const std::vector<U>& codes,
                   const std::vector<T>& expected) {
  std::string code_file = t->PutValues("c", codes);
  SimpleTypeDictReader<T, U> r(values.c_str(), kAll,
                               new SimpleTypeBATReader<U>(code_file.c_str(), kAll));
  EXPECT_EQ(r.ElementWidth(), sizeof(U));
  std::vector<T> out;
  if (r.Open()) {
    while (r.Read()) out.push_back(r.GetValue());
    r.Close();
  }
  EXPECT_EQ(out, expected);
}

TEST_F(DictTest, CodesNumberTheDictionaryFromOne) {
  ExpectDecodes<int, int>(this, PutValues<int>("v", {10, 20, 30}), {1, 3, 2, 3, 1},
                          {10, 30, 20, 30, 10});
  ExpectDecodes<int64_t, unsigned int>(this, PutValues<int64_t>("v", {INT64_MIN, 5}), {2, 1},
                                       {5, INT64_MIN});
  std::vector<unsigned char> bytes(200);  // byte codes past 127
  for (size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<unsigned char>(i);
  ExpectDecodes<unsigned char, char>(this, PutValues("v", bytes), {1, char(200), char(128)},
                                     {0, 199, 127});
  std::vector<double> doubles(10000);  // 80000 bytes: a dictionary across two spans
  for (size_t i = 0; i < doubles.size(); ++i) doubles[i] = i * 0.5;
  ExpectDecodes<double, unsigned int>(this, PutValues("v", doubles), {10000, 1, 8193},
                                      {4999.5, 0, 4096});
  ExpectDecodes<short, short>(this, PutValues<short>("v", {1}), {}, {});
}

TEST_F(DictTest, OpenOrderAndTheValuesWalk) {
  std::string values = PutValues<double>("v", {1.5, 2.5});
  std::string codes = PutValues<unsigned int>("c", {2, 2, 1});
  std::string missing = dir_ + "/missing";
  // Missing values file: the code file is never opened; missing code file: false.
  for (const std::string& v : {missing, values}) {
    DictBATReader<double, unsigned int> r(
        v.c_str(), kAll,
        new SimpleTypeBATReader<unsigned int>(v == missing ? codes.c_str() : missing.c_str(),
                                              kAll));
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
  EXPECT_TRUE(rows.Read(&log.log) && rows.Read(&log.log));
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
    OwnedLog log;
    ASSERT_TRUE(r.Initialize(&log.log));
    std::vector<uint32_t> got;
    while (r.Read(&log.log)) got.push_back(r.GetValue());
    EXPECT_EQ(got, c.expected) << "width " << c.width;
    EXPECT_EQ(log.Text(), "StringTailReader::Read() returned false.");
    for (size_t i = c.expected.size(); i-- > 0;)
      EXPECT_EQ(r.ValueAt(i), c.expected[i]) << "width " << c.width << " row " << i;
    r.Close();
    // Opened again, the reader maps the file anew: a lookup past the end reads nothing of
    // the span the last Close unmapped.
    ASSERT_TRUE(r.Open());
    EXPECT_EQ(r.ValueAt(c.expected.size() + 100), 0u) << "width " << c.width;
    EXPECT_EQ(r.ValueAt(1), c.expected[1]) << "width " << c.width;
    r.Close();
  }
}

TEST_F(TailTest, MissingFileAndBadWidth) {
  std::string path = PutValues<uint32_t>("tail", {1, 2});
  std::pair<std::string, uint32_t> cases[] = {{dir_ + "/missing", 4}, {path, 3}, {path, 16}};
  for (const auto& [file, width] : cases) {
    StringTailReader r(file.c_str(), width, kAll);
    OwnedLog log;
    EXPECT_FALSE(r.Initialize(&log.log));
    EXPECT_EQ(log.Text(), "StringTailReader::Initialize() returned false.") << width;
    EXPECT_FALSE(r.Read());
    EXPECT_EQ(r.GetValue(), 0u);
    EXPECT_EQ(r.ValueAt(0), 0u);
  }
}

}  // namespace
}  // namespace qopci
