// String readers over heaps and tails written by the kernel and built by hand, and the
// string reads of the mapped-file layer beneath them.
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "corvid/farm.h"
#include "corvid/gdk.h"
#include "gtest/gtest.h"
#include "readers/string_reader.h"
#include "tests/readers/reader_test_util.h"
#include "writers/mmf/mmf.h"
#include "writers/mmf/mmf_string_byte_reader.h"

namespace qopci {
namespace {

using StringsTest = ReaderTest;

// Reads every row with the logging Read; the log text lands in *log.
std::vector<std::string> ReadRows(StringReader& r, OwnedLog* log) {
  std::vector<std::string> rows;
  if (!r.Initialize(&log->log)) return rows;
  while (r.Read(&log->log)) rows.push_back(r.GetValue());
  r.Close();
  return rows;
}

// A heap of `size` zero bytes with the given strings placed at the given positions.
std::string Heap(size_t size, const std::vector<std::pair<size_t, std::string>>& strings) {
  std::string heap(size, '\0');
  for (const auto& [at, s] : strings) heap.replace(at, s.size() + 1, s + '\0');
  return heap;
}

TEST_F(StringsTest, ReadsColumnsTheKernelWrote) {
  std::vector<std::string> many;  // 6000 strings of about 24 bytes: a heap past 64 KiB
  for (int i = 0; i < 6000; ++i) many.push_back("value number " + std::to_string(i * 7919));
  std::vector<std::string> wide;  // a heap past 512 KiB: a tail of width 4
  for (int i = 0; i < 30000; ++i) wide.push_back("w" + std::to_string(i) + std::string(12, 'x'));
  struct Case {
    const char* what;
    std::vector<std::string> rows;
    bool whole;
    uint16_t width;
  } cases[] = {
      {"empty string, nil and duplicates", {"", "a", "\x80", "a", "bcd", ""}, false, 1},
      {"heap past 64 KiB", many, false, 2},
      {"heap past 64 KiB, whole file", many, true, 2},
      {"heap past 512 KiB", wide, false, 4},
  };
  std::string farm = dir_ + "/farm";
  ASSERT_EQ(CVDfarm_open(farm.c_str(), 1), nullptr);
  int n = 0;
  for (const Case& c : cases) {
    std::string name = "s" + std::to_string(n++);
    bat b = 0;
    ASSERT_EQ(CVDbat_create(TYPE_str, name.c_str(), 0, &b), nullptr);
    for (const std::string& s : c.rows) ASSERT_EQ(CVDbat_append(b, s.c_str()), nullptr);
    ASSERT_EQ(TMcommit(), 0);
    BAT* d = BBPdescriptor(b);
    ASSERT_NE(d, nullptr);
    EXPECT_EQ(d->twidth, c.width) << c.what;
    char tail[4096], heap[4096];
    ASSERT_NE(CVDbat_filename(b, "tail", tail, sizeof tail), nullptr);
    ASSERT_NE(CVDbat_filename(b, "theap", heap, sizeof heap), nullptr);
    StringReader r(heap, tail, d->twidth, d->batCount * d->twidth, MMF::kNoRequestedSize);
    if (c.whole) r.SetWholeFile();
    OwnedLog log;
    EXPECT_EQ(ReadRows(r, &log), c.rows) << c.what;
    EXPECT_EQ(log.Text(), "StringReader::Read() failed, previous _tailRead was zero.") << c.what;
    // Dictionary lookups of the same files, backwards.
    StringReader dict(heap, tail, d->twidth, d->batCount * d->twidth, MMF::kNoRequestedSize);
    ASSERT_TRUE(dict.Open());
    for (size_t i = c.rows.size(); i > 0; --i) {
      const char* s = dict.ValueAt(static_cast<uint32_t>(i));
      ASSERT_NE(s, nullptr) << c.what << " code " << i;
      EXPECT_EQ(s, c.rows[i - 1]) << c.what << " code " << i;
    }
    dict.Close();
    BBPreleaseref(b);
  }
  CVDfarm_close();
}

// Tails of width 1, 2 and 4 are read from the kernel's own columns above; a tail of width 8,
// which the kernel does not write, counts in 8-byte steps from the heap's start.
TEST_F(StringsTest, EightByteTailValuesDesignateHeapPositions) {
  std::string heap = Put("heap", Heap(32, {{0, "abc"}, {24, "xyz"}}));
  std::string tail = PutValues<uint64_t>("tail", {0, 3});
  StringReader r(heap.c_str(), tail.c_str(), 8, 16, MMF::kNoRequestedSize);
  OwnedLog log;
  EXPECT_EQ(ReadRows(r, &log), (std::vector<std::string>{"abc", "xyz"}));
}

TEST_F(StringsTest, EveryFailureHasItsText) {
  std::string heap = Heap(2080, {{2048, "abc"}, {2072, "xyz"}});
  std::string unterminated(2060, '\0');
  unterminated.replace(2048, 12, std::string(12, 'u'));
  const std::string first = "StringReader::Read() failed, _tailRead was zero on _firstRead.";
  const std::string previous = "StringReader::Read() failed, previous _tailRead was zero.";
  const std::string cursor = "StringReader::Read() failed to moveCursor";
  struct Case {
    const char* what;
    std::string heap;  // "-" for a missing file
    std::string tail;
    std::vector<std::string> rows;
    std::string log;
  } cases[] = {
      {"empty tail", heap, "", {}, first},
      {"one row", heap, "\3", {"xyz"}, previous},
      {"missing heap", "-", std::string(1, '\0'), {}, "StringReader::failed to init heapReader."},
      {"missing tail", heap, "-", {}, "StringReader::failed to init tailReader."},
      {"offset past the heap", heap, std::string("\0\310", 2), {"abc"}, cursor},
      {"no zero before the end", unterminated, std::string(1, '\0'), {}, cursor},
  };
  for (const Case& c : cases) {
    std::string heap_file = c.heap == "-" ? dir_ + "/none" : Put("heap", c.heap);
    std::string tail_file = c.tail == "-" ? dir_ + "/none" : Put("tail", c.tail);
    StringReader r(heap_file.c_str(), tail_file.c_str(), 1, c.tail == "-" ? 1 : c.tail.size(),
                   MMF::kNoRequestedSize);
    OwnedLog log;
    EXPECT_EQ(ReadRows(r, &log), c.rows) << c.what;
    EXPECT_EQ(log.Text(), c.log) << c.what;
    StringReader opened(heap_file.c_str(), tail_file.c_str(), 1, 1, MMF::kNoRequestedSize);
    EXPECT_TRUE(opened.Open()) << c.what;  // Open answers true whatever failed
  }
}

TEST_F(StringsTest, StringDictReaderDecodesCodes) {
  // A dictionary of three strings (width-4 tail 0, 1, 2) and a column of five codes.
  std::string heap = Put("heap", Heap(24, {{0, "red"}, {8, "green"}, {16, "blue"}}));
  std::string tail = PutValues<uint32_t>("tail", {0, 1, 2});
  struct Case {
    std::vector<uint32_t> codes;
    std::vector<std::string> rows;
  } cases[] = {
      {{1, 3, 2, 2, 1}, {"red", "blue", "green", "green", "red"}},
      {{3}, {"blue"}},
      {{}, {}},
  };
  for (const Case& c : cases) {
    std::string codes = PutValues("codes", c.codes);
    StringDictReader r(new SimpleTypeBATReader<unsigned int>(codes.c_str(), c.codes.size() * 4),
                       new StringReader(heap.c_str(), tail.c_str(), 4, 12, MMF::kNoRequestedSize));
    OwnedLog log;
    ASSERT_TRUE(r.Initialize(&log.log));
    EXPECT_EQ(r.IsEmpty(), c.codes.empty());
    std::vector<std::string> rows;
    while (r.Read(&log.log)) rows.push_back(r.GetValue());
    EXPECT_EQ(rows, c.rows);
    EXPECT_EQ(log.Text(), "StringDictReader::Read() returned false.");
    r.Close();
  }
  StringDictReader missing(
      new SimpleTypeBATReader<unsigned int>((dir_ + "/none").c_str(), 4),
      new StringReader(heap.c_str(), tail.c_str(), 4, 12, MMF::kNoRequestedSize));
  OwnedLog log;
  EXPECT_FALSE(missing.Initialize(&log.log));
  EXPECT_EQ(log.Text(), "StringDictReader::Initialize() returned false.");
}

TEST_F(StringsTest, StringReadsStopAtTheFileEnd) {
  // Strings that cross a granule, one longer than a granule, and one without its zero.
  std::string file(300000, 'a');
  file[65530 + 100] = '\0';
  file[70000 + 200000] = '\0';
  file[280000 - 1] = '\0';
  std::string path = Put("heap", file);
  struct Case {
    uint64_t start;
    bool ok;
    size_t length;
  } cases[] = {
      {65530, true, 100}, {70000, true, 200000}, {0, true, 65630},       {270001, true, 9998},
      {280000, false, 0}, {300000, false, 0},    {1ull << 40, false, 0},
  };
  for (bool whole : {false, true}) {
    MMFStringByteReader r(path);
    r.SetWholeFile(whole);
    ASSERT_TRUE(r.Open());
    for (const Case& c : cases) {
      EXPECT_EQ(r.ReadString(c.start, c.start, false), c.ok) << c.start;
      if (c.ok) {
        EXPECT_EQ(std::strlen(r.Current()), c.length) << c.start;
      }
    }
    r.Close();
    EXPECT_EQ(qopci_test::ReadFile(path), file) << "reading changed the file";
  }
}

}  // namespace
}  // namespace qopci
