// String columns and generated ("from") columns through the copy command, the real plugin
// and kernel: what the farm holds, what inspect prints of it, and the texts of the refusals.
#include <gtest/gtest.h>

#include <filesystem>
#include <set>
#include <sstream>

#include "corvid/farm.h"
#include "corvid/strheap.h"
#include "qopci/qopci.h"
#include "tests/support/temp_dir.h"
#include "tools/bench_command.h"
#include "tools/copy_command.h"
#include "tools/kernel_io.h"
#include "tools/row_view.h"
#include "tools/session.h"

namespace qopci {
namespace {

namespace fs = std::filesystem;

class StringCopyTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_NE(tmp_.path(), "");
    options_.farm = tmp_.path() + "/farm";
  }

  // One copy into `table`: of `csv`, or of `rows` generated rows when csv is empty.
  Status Copy(const std::string& table, const std::string& columns, const std::string& csv,
              uint64_t rows = 0, const CsvOptions& csv_options = CsvOptions()) {
    Manifest m;
    Status s = ParseManifest(R"({"table": ")" + table + R"(", "columns": [)" + columns + "]}", &m);
    if (s.ok()) s = ResolveModes(&m, false);
    std::istringstream in(csv);
    ResultData data;
    if (s.ok())
      s = csv.empty() ? GenerateRows(m, rows, &data) : LoadCsv(m, &in, nullptr, &data, csv_options);
    std::ostringstream summary;
    return s.ok() ? CopyResult(m, &data, options_, summary) : s;
  }

  // The rows of `table` as inspect prints them in `format`.
  std::string Rows(const std::string& table, RowFormat format) {
    if (!FromKernel(CVDfarm_open(options_.farm.c_str(), CVD_FARM_READONLY)).ok()) return "?";
    std::ostringstream out;
    RowViewOptions o;
    o.table = table;
    o.limit = kAllRows;
    o.format = format;
    Status s = PrintRows(out, o);
    CVDfarm_close();
    return s.ok() ? out.str() : s.message();
  }

  // The heap bytes in use and the tail width of column `name`.
  std::pair<size_t, int> Heap(const std::string& name) {
    if (!FromKernel(CVDfarm_open(options_.farm.c_str(), CVD_FARM_READONLY)).ok()) return {0, 0};
    const BAT* b = BBPgetdesc(CVDbat_lookup(name.c_str()));
    std::pair<size_t, int> heap{b && b->tvheap ? b->tvheap->free : 0, b ? b->twidth : 0};
    CVDfarm_close();
    return heap;
  }

  qopci_test::TempDir tmp_{"qopci_tool_strings"};
  CopyOptions options_;
};

const char kStringColumns[] = R"({"name": "id", "type": "int"}, {"name": "s", "type": "string"})";

TEST_F(StringCopyTest, StringsRoundTripThroughEveryFormat) {
  const std::string long_text(3000, 'x'), lead("\x80");  // "\x80abc" would be one escape
  const struct {
    std::string field;  // as written in the CSV
    std::string table, csv, json;
  } cases[] = {
      {"", "NULL", "", "null"},      // the empty field is nil
      {"\"\"", "", "\"\"", "\"\""},  // the quoted empty field is the empty string
      {lead + "abc", lead + "abc", lead + "abc", "\"\\u0080abc\""},  // led by 0x80, not nil
      {"caf\xC3\xA9", "caf\xC3\xA9", "caf\xC3\xA9", "\"caf\xC3\xA9\""},
      {"\"a,b \"\"c\"\"\"", "a,b \"c\"", "\"a,b \"\"c\"\"\"", "\"a,b \\\"c\\\"\""},
      {"\"two\nlines\"", "two\\nlines", "\"two\nlines\"", "\"two\\nlines\""},
      {"\" pad \"", " pad ", "\" pad \"", "\" pad \""},
      {"NULL", "NULL", "NULL", "\"NULL\""},  // the word is a string unless --null says so
      {"back\\slash", "back\\\\slash", "back\\slash", "\"back\\\\slash\""},
      {long_text, long_text, long_text, "\"" + long_text + "\""},
  };
  std::string csv = "id,s\n";
  for (size_t i = 0; i < std::size(cases); ++i)
    csv += std::to_string(i) + "," + cases[i].field + "\n";
  ASSERT_TRUE(Copy("t", kStringColumns, csv).ok());

  std::string want_csv = "id,s", want_json = "";
  for (size_t i = 0; i < std::size(cases); ++i) {
    want_csv += "\n" + std::to_string(i) + "," + cases[i].csv;
    want_json +=
        std::string(i == 0 ? "\n[" : ",\n[") + std::to_string(i) + ", " + cases[i].json + "]";
  }
  EXPECT_EQ(Rows("t", RowFormat::kCsv), want_csv + "\n");
  EXPECT_EQ(Rows("t", RowFormat::kJson),
            "{\"table\": \"t\", \"columns\": [{\"name\": \"id\", \"type\": \"int\"}, {\"name\": "
            "\"s\", \"type\": \"string\"}], \"count\": 10, \"rows\": [" +
                want_json + "]}\n");
  // The table right-aligns every cell in the widest's width.
  std::istringstream table(Rows("t", RowFormat::kTable));
  std::string line;
  std::getline(table, line);
  for (size_t i = 0; i < std::size(cases) && std::getline(table, line); ++i)
    EXPECT_EQ(line.substr(line.size() - cases[i].table.size()), cases[i].table) << i;

  // What inspect printed as CSV reads back as the same rows.
  ASSERT_TRUE(Copy("u", kStringColumns, want_csv + "\n").ok());
  EXPECT_EQ(Rows("u", RowFormat::kJson), Rows("t", RowFormat::kJson).replace(11, 1, "u"));
}

TEST_F(StringCopyTest, CsvFieldsOfStringColumns) {
  CsvOptions null_word;
  null_word.null_text = "NULL";
  const struct {
    std::string rows;  // after the header "s"
    CsvOptions options;
    std::string want;  // the json rows, or the error
  } cases[] = {
      {"NULL\n\"NULL\"\n\"\"\n", null_word, "[null],\n[null],\n[\"\"]"},
      {"a\n\x80\n",
       {},
       "line 3: column \"s\": the one-byte string 0x80 is the kernel's nil "
       "string and would read back as nil"},
      {std::string("a\0b\n", 4),
       {},
       "line 2: column \"s\": a zero byte in a string, which "
       "would end it there and lose the rest"},
  };
  for (const auto& c : cases) {
    Status s = Copy("t", R"({"name": "s", "type": "text"})", "s\n" + c.rows, 0, c.options);
    if (!s.ok()) {
      EXPECT_EQ(s.message(), c.want);
      continue;
    }
    const std::string rows = Rows("t", RowFormat::kJson);
    EXPECT_NE(rows.find("\"rows\": [\n" + c.want + "]}"), std::string::npos) << rows;
    fs::remove_all(options_.farm);
  }
}

TEST_F(StringCopyTest, AppendsFindEarlierStringsAndWidenTheTail) {
  ASSERT_TRUE(Copy("t", kStringColumns, "id,s\n1,apple\n2,pear\n3,\n").ok());
  const auto [first, first_width] = Heap("t.s");
  EXPECT_EQ(first_width, 1);

  // The kernel's own heap of the same strings, appended in the same order: an append that
  // found "apple" and "pear" grows the heap only by "plum".
  ASSERT_TRUE(FromKernel(CVDfarm_open((tmp_.path() + "/kernel").c_str(), CVD_FARM_CREATE)).ok());
  bat k = 0;
  ASSERT_TRUE(FromKernel(CVDbat_create(TYPE_str, nullptr, 0, &k)).ok());
  for (const char* v : {"apple", "pear", "\x80", "pear", "plum", "apple"})
    ASSERT_TRUE(FromKernel(CVDbat_append(k, v)).ok());
  const size_t kernel_free = BBPgetdesc(k)->tvheap->free;
  CVDbat_release(k);
  CVDfarm_close();

  ASSERT_TRUE(Copy("t", kStringColumns, "id,s\n4,pear\n5,plum\n6,apple\n").ok());
  EXPECT_EQ(Heap("t.s").first, kernel_free);
  EXPECT_GT(kernel_free, first);

  // Enough new distinct strings to carry the heap past what 1-byte offsets reach.
  std::string csv = "id,s\n";
  std::vector<std::string> want = {"apple", "pear", "", "pear", "plum", "apple"};
  for (int i = 0; i < 300; ++i) {
    want.push_back("string number " + std::to_string(i));
    csv += std::to_string(10 + i) + "," + want.back() + "\n";
  }
  ASSERT_TRUE(Copy("t", kStringColumns, csv).ok());
  EXPECT_EQ(Heap("t.s").second, 2);
  std::istringstream lines(Rows("t", RowFormat::kCsv));
  std::string line;
  std::getline(lines, line);
  for (size_t i = 0; std::getline(lines, line); ++i) {
    ASSERT_LT(i, want.size());
    EXPECT_EQ(line.substr(line.find(',') + 1), want[i]) << i;
  }
}

TEST_F(StringCopyTest, GeneratedColumnsAndTheirErrors) {
  ASSERT_TRUE(Copy("t", kStringColumns, "id,s\n7,seven\n,\n9,\"\"\n").ok());
  ASSERT_TRUE(Copy("c",
                   R"({"name": "id", "type": "int", "from": "t.id"},
                      {"name": "s", "type": "string", "from": "t.s"})",
                   "", 3)
                  .ok());
  EXPECT_EQ(Rows("c", RowFormat::kCsv), "id,s\n7,seven\n,\n9,\"\"\n");
  const struct {
    std::string columns;
    uint64_t rows;
    std::string error;
  } cases[] = {
      {R"({"name": "c", "type": "int", "from": "t.idd"})", 3,
       "column x.c: no column \"t.idd\" in the farm to copy (did you mean \"t.id\"?)"},
      {R"({"name": "c", "type": "bigint", "from": "t.id"})", 3,
       "column x.c is bigint, but its source t.id is int in the farm"},
      {R"({"name": "c", "type": "int", "from": "t.s"})", 3,
       "column x.c is int, but its source t.s is string in the farm"},
      {R"({"name": "c", "type": "int", "from": "t.id"})", 2,
       "column x.c copies the 3 rows of t.id, but the result has 2 rows"},
      {R"({"name": "c", "type": "int", "from": "id"})", 3,
       "manifest: column \"c\": \"from\" must name a column of the farm as \"table.column\""},
      {R"({"name": "c", "type": "serial", "from": "t.id"})", 3,
       "manifest: column \"c\": serial columns are numbered and cannot copy another column"},
      {R"({"name": "c", "type": "int", "from": "t.id", "attributes": {"33": 3}})", 3,
       "manifest: column \"c\": attribute 33 = 3: a \"from\" column is read back as its source "
       "is stored (source kind 2 for fixed-width values, 4 for strings); dictionary sources "
       "(kinds 3 and 5) are not made by this tool; leave attribute 33 out"},
  };
  for (const auto& c : cases) EXPECT_EQ(Copy("x", c.columns, "", c.rows).message(), c.error);
  // A source that this copy writes is refused: it would be read while it is written.
  EXPECT_EQ(Copy("t", R"({"name": "id", "type": "int"},
                         {"name": "c", "type": "int", "from": "t.id"})",
                 "", 3)
                .message(),
            "column t.c: its source t.id is written by this copy; copy from a column the copy "
            "leaves as it is");
}

TEST_F(StringCopyTest, ATailWidthThatContradictsTheHeapIsRefused) {
  ASSERT_TRUE(Copy("t", R"({"name": "s", "type": "string"})", "s\na\nb\n").ok());
  // A host that records width 2 for the 1-byte tail of a 2082-byte heap.
  Manifest m;
  ASSERT_TRUE(
      ParseManifest(R"({"table": "t", "columns": [{"name": "s", "type": "string"}]})", &m).ok());
  ASSERT_TRUE(ResolveModes(&m, false).ok());
  std::istringstream in("s\nc\n");
  ResultData data;
  ASSERT_TRUE(LoadCsv(m, &in, nullptr, &data).ok());
  std::string error;
  std::string tail;
  {
    FarmSession session;
    ASSERT_TRUE(session.Open(options_.farm).ok());
    std::vector<TargetColumn> targets;
    ASSERT_TRUE(PrepareTargets(m, &targets).ok());
    tail = targets[0].info.tail_file;
    targets[0].info.tail_width = 2;
    int result = 0;
    ASSERT_TRUE(BuildResultTable(session.context(), m, data, false, &result).ok());
    ASSERT_TRUE(RegisterColumns(m, targets, false, data.rows).ok());
    char* text = nullptr;
    qopci_export_result(session.context(), result, CVDfarm_logger(), &text);
    error = text != nullptr ? text : "";
  }
  EXPECT_NE(error.find(": s: String tail width 2 of " + tail +
                       " differs from width 1 of its 2082-byte heap"),
            std::string::npos)
      << error;
  EXPECT_EQ(Rows("t", RowFormat::kCsv), "s\na\nb\n");  // nothing was written
}

TEST(BenchStringsTest, SymAndNameAreThePeersValues) {
  // The first rows and the distinct counts of 10,000 rows as the peer database computes them.
  const std::vector<std::string> sym = {"S0",      "S91",      "S838", "S0757", "S00676",
                                        "S000595", "S0000514", "S4",   "S35",   "S271"};
  const std::vector<std::string> name = {"customer-0000000", "customer-0000761", "customer-0001522",
                                         "customer-0002283", "customer-0000544"};
  std::string text;
  std::set<std::string> syms, names;
  for (uint64_t i = 0; i < 10000; ++i) {
    ASSERT_TRUE(BenchString(BenchStrings::kSym, i, 10000, &text));
    if (i < sym.size()) {
      EXPECT_EQ(text, sym[i]);
    }
    syms.insert(text);
    ASSERT_TRUE(BenchString(BenchStrings::kName, i, 10000, &text));
    if (i < name.size()) {
      EXPECT_EQ(text, name[i]);
    }
    names.insert(text);
  }
  EXPECT_EQ(syms.size(), 5110u);
  EXPECT_EQ(names.size(), 2500u);
  EXPECT_FALSE(BenchString(BenchStrings::kName, 0, 3, &text));  // a remainder by 0 is nil
  // The columns of --columns: sym and name are string columns of those values.
  BenchColumns cols;
  ASSERT_TRUE(ParseBenchColumns("int,sym,name,text", true, 100, false, &cols).ok());
  ResultData data;
  ASSERT_TRUE(GenerateBenchRows(cols, 3, &data).ok());
  ASSERT_EQ(data.columns.size(), 4u);
  EXPECT_EQ(data.columns[1].texts, std::string("S0\0S91\0S838\0", 12));
  EXPECT_EQ(data.columns[2].texts, std::string("\x80\0\x80\0\x80\0", 6));
  EXPECT_EQ(data.columns[3].texts, std::string("s0\0s1\0s2\0", 9));
  for (const char* spec : {"sym:random", "string:random"})
    EXPECT_NE(ParseBenchColumns(spec, false, 100, false, &cols).message().find("cannot be random"),
              std::string::npos)
        << spec;
  ASSERT_TRUE(BenchString(BenchStrings::kName, 4, 5, &text));
  EXPECT_EQ(text, "customer-0000000");
}

}  // namespace
}  // namespace qopci
