// Generated columns end to end: a column exported by the library, or written by the
// kernel, is read back from its files (source kinds 2 to 5) and exported into a new int
// column, which the kernel then reads.
#include <gmock/gmock.h>

#include <climits>
#include <cstdint>
#include <fstream>
#include <string>
#include <vector>

#include "tests/e2e/e2e_fixture.h"

namespace qopci_test {
namespace {

// Attributes 43 to 49 of a generated column: strings for 43, 46 and 48, 64-bit
// integers for 44 and 47, ints for 45 and 49.
struct Attr {
  int number;
  std::string text;
  int64_t value;
};
using Attrs = std::vector<Attr>;

class GeneratedColumnTest : public FarmTest {
 public:
  // A file in the test directory holding the given values.
  template <typename T>
  std::string File(const std::string& name, const std::vector<T>& values) {
    std::string path = dir_ + "/" + name;
    std::ofstream(path, std::ios::binary)
        .write(reinterpret_cast<const char*>(values.data()),
               static_cast<std::streamsize>(values.size() * sizeof(T)));
    return path;
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
  // An int target `name` whose values come from source `kind` with the given attributes.
  void Generated(const std::string& name, int kind, const Attrs& attrs);
};

void GeneratedColumnTest::Generated(const std::string& name, int kind, const Attrs& attrs) {
  Fixed(name, Target(name.c_str(), TYPE_int), 0, true, 3, kind);
  for (const Attr& a : attrs) {
    if (a.number == 43 || a.number == 46 || a.number == 48)
      AttrStr(name, a.number, a.text);
    else if (a.number == 44 || a.number == 47)
      AttrLng(name, a.number, a.value);
    else
      AttrInt(name, a.number, static_cast<int>(a.value));
  }
}

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
    int kind;
    Attrs attrs;
    std::vector<int> expected;
  } cases[] = {
      {"plain", 2, {{43, TailFile(a), 0}, {44, "", 5}, {45, "", 0}}, source},
      {"first_rows", 2, {{43, TailFile(a), 0}, {44, "", 2}, {45, "", 0}}, {5, -3}},
      {"dictionary",
       3,
       {{43, codes, 0}, {44, "", 4}, {45, "", 0}, {46, values, 0}, {47, "", 3}},
       {33, 11, 11, 22}},
      {"strings",
       4,
       {{43, TailFile(text), 0}, {44, "", 4}, {48, HeapFile(text), 0}, {49, "", Width(text)}},
       {12, -7, INT_MIN, 40}},
      {"string_dictionary",
       5,
       {{43, codes, 0},
        {44, "", 4},
        {46, TailFile(dict), 0},
        {47, "", 3},
        {48, HeapFile(dict), 0},
        {49, "", Width(dict)}},
       {300, 100, 100, 200}},
  };
  // All generated columns in one export beside one result column.
  for (const Case& c : cases) Generated(c.name, c.kind, c.attrs);
  ASSERT_EQ(Export(Result({{"unused", Column<int>(TYPE_int, {1})}}, DenseOrder(1))), "");
  Reopen();
  for (const Case& c : cases) EXPECT_EQ(Read<int>(c.name), c.expected) << c.name;
}

TEST_F(GeneratedColumnTest, BadSourcesAreRefusedWithTheirReason) {
  const std::string ints = File<int>("ints", {1, 2});
  const std::string none = dir_ + "/none";
  struct Case {
    int kind;
    Attrs attrs;
    std::string error;
  } cases[] = {
      {2, {{43, ints, 0}, {44, "", 2}, {45, "", 9}}, "Simple Type Writer not supported"},
      {3,
       {{43, ints, 0}, {44, "", 2}, {45, "", -1}, {46, ints, 0}, {47, "", 2}},
       "Simple Type Writer not supported"},
      {2,
       {{43, ints, 0}, {44, "", 3}, {45, "", 0}},
       "Source file " + ints + " holds 8 bytes, fewer than its 3 rows need"},
      {2, {{43, none, 0}, {44, "", 1}, {45, "", 0}}, "Source file " + none + " cannot be read"},
      {4,
       {{43, ints, 0}, {44, "", 1}, {48, ints, 0}, {49, "", 3}},
       "String tail width 3 not supported"},
      {4,
       {{43, ints, 0}, {44, "", 1}, {49, "", 4}},
       "GET_COL_ATTR : Column attribute 48 not found at line 1218"},
  };
  int n = 0;
  for (const Case& c : cases) {
    std::string name = "bad" + std::to_string(n++);
    Generated(name, c.kind, c.attrs);
    EXPECT_THAT(Export(Result({{"unused", Column<int>(TYPE_int, {1})}}, DenseOrder(1))),
                ::testing::HasSubstr(c.error))
        << name;
  }
}

}  // namespace
}  // namespace qopci_test
