// Generated columns end to end: a column exported by the library, or written by the
// kernel, is read back from its files (source kinds 2 to 5) and exported into a new int
// column, which the kernel then reads.
#include <gmock/gmock.h>

#include <climits>
#include <cstdint>
#include <string>
#include <vector>

#include "tests/e2e/e2e_fixture.h"

namespace qopci_test {
namespace {

// The attributes of a generated column: 43 its file (values, codes or string tail), 44 its
// rows, 45 the value type code, 46 and 47 the dictionary file and its rows, 48 and 49 the
// string heap and the tail width. Empty files and kAbsent numbers are not set.
constexpr int64_t kAbsent = INT64_MIN;
struct Source {
  int kind;
  std::string file;
  int64_t rows;
  int64_t code = kAbsent;
  std::string dict = "";
  int64_t dict_rows = kAbsent;
  std::string heap = "";
  int64_t width = kAbsent;
};

class GeneratedColumnTest : public FarmTest {
 public:
  // A file in the test directory holding the given values.
  template <typename T>
  std::string File(const std::string& name, const std::vector<T>& values) {
    return WriteFile(dir_ + "/" + name, std::string(reinterpret_cast<const char*>(values.data()),
                                                    values.size() * sizeof(T)));
  }
  // A committed str column written by the kernel; returns its id.
  bat Strings(const char* name, const std::vector<std::string>& rows) {
    bat b = Target(name, TYPE_str);
    for (const std::string& s : rows) EXPECT_EQ(CVDbat_append(b, s.c_str()), nullptr);
    EXPECT_EQ(TMcommit(), 0);
    return b;
  }
  std::string HeapFile(bat b) {
    char buf[4096];
    return CVDbat_filename(b, "theap", buf, sizeof buf);
  }
  int Width(bat b) { return BBPgetdesc(b)->twidth; }
  // An int target `name` whose values come from the given source.
  void Generated(const std::string& name, const Source& s) {
    Fixed(name, Target(name.c_str(), TYPE_int), 0, true, 3, s.kind);
    AttrStr(name, 43, s.file);
    AttrLng(name, 44, s.rows);
    if (s.code != kAbsent) AttrInt(name, 45, static_cast<int>(s.code));
    if (!s.dict.empty()) AttrStr(name, 46, s.dict);
    if (s.dict_rows != kAbsent) AttrLng(name, 47, s.dict_rows);
    if (!s.heap.empty()) AttrStr(name, 48, s.heap);
    if (s.width != kAbsent) AttrInt(name, 49, static_cast<int>(s.width));
  }
};

TEST_F(GeneratedColumnTest, EverySourceKindFillsAnIntColumn) {
  // The library's own export of an int column is the source of kind 2.
  const std::vector<int> source = {5, -3, INT_MIN, 9, 0};
  bat a = Target("a", TYPE_int);
  Fixed("a", a, 0);
  ASSERT_EQ(Export(Result({{"a", Column<int>(TYPE_int, source)}}, DenseOrder(source.size()))), "");
  bat text = Strings("text", {"12", "-7", "\x80", "40"});
  bat dict = Strings("dict", {"100", "200", "300"});
  const std::string values = File<int>("values", {11, 22, 33});
  const std::string codes = File<unsigned int>("codes", {3, 1, 1, 2});
  struct Case {
    const char* name;
    Source source;
    std::vector<int> expected;
  } cases[] = {
      {"plain", {2, TailFile(a), 5, 0}, source},
      {"first_rows", {2, TailFile(a), 2, 0}, {5, -3}},
      {"dictionary", {3, codes, 4, 0, values, 3}, {33, 11, 11, 22}},
      {"strings",
       {4, TailFile(text), 4, kAbsent, "", kAbsent, HeapFile(text), Width(text)},
       {12, -7, INT_MIN, 40}},
      {"string_dictionary",
       {5, codes, 4, kAbsent, TailFile(dict), 3, HeapFile(dict), Width(dict)},
       {300, 100, 100, 200}},
  };
  // All generated columns in one export beside one result column.
  for (const Case& c : cases) Generated(c.name, c.source);
  ASSERT_EQ(Export(Result({{"unused", Column<int>(TYPE_int, {1})}}, DenseOrder(1))), "");
  Reopen();
  for (const Case& c : cases) EXPECT_EQ(Read<int>(c.name), c.expected) << c.name;
}

TEST_F(GeneratedColumnTest, BadSourcesAreRefusedWithTheirReason) {
  const std::string ints = File<int>("ints", {1, 2});
  const std::string none = dir_ + "/none";
  struct Case {
    Source source;
    std::string error;
  } cases[] = {
      {{2, ints, 2, 9}, "Simple Type Writer not supported"},
      {{3, ints, 2, -1, ints, 2}, "Simple Type Writer not supported"},
      {{2, ints, 3, 0}, "Source file " + ints + " holds 8 bytes, fewer than its 3 rows need"},
      {{2, none, 1, 0}, "Source file " + none + " cannot be read"},
      {{4, ints, 1, kAbsent, "", kAbsent, ints, 3}, "String tail width 3 not supported"},
      {{4, ints, 1, kAbsent, "", kAbsent, "", 4},
       "GET_COL_ATTR : Column attribute 48 not found at line 1218"},
  };
  int n = 0;
  for (const Case& c : cases) {
    std::string name = "bad" + std::to_string(n++);
    Generated(name, c.source);
    EXPECT_THAT(Export(Result({{"unused", Column<int>(TYPE_int, {1})}}, DenseOrder(1))),
                ::testing::HasSubstr(c.error))
        << name;
  }
}

}  // namespace
}  // namespace qopci_test
