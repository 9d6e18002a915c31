// The qopci executable on the CSV files and manifests people have: each dialect case, each
// warning and its --strict error, each error text, with the values read back by inspect.
#include <gtest/gtest.h>

#include <filesystem>
#include <sstream>

#include "tests/support/run_tool.h"

namespace {

namespace fs = std::filesystem;
using qopci_test::RunQopci;
using qopci_test::ToolRun;
using qopci_test::WriteFile;

const char kIntDouble[] = R"({"table": "t", "columns": [{"name": "a", "type": "int"},
    {"name": "b", "type": "double"}]})";

struct Case {
  std::string csv;         // the file's bytes
  std::string flags;       // added to the copy command
  int status;              // exit status
  std::string stderr_has;  // a part of stderr; "" when stderr must be empty
  std::string values;      // inspect's value lines of the farm; "" when no farm may be made
  std::string manifest = kIntDouble;
};

class InputTest : public ::testing::Test {
 protected:
  // Copies the case into a fresh farm and checks status, stderr and the values read back.
  void Check(const Case& c) {
    const std::string farm = dir_ + "/farm";
    fs::remove_all(farm);
    const ToolRun copy =
        RunQopci("copy --farm " + farm + " --manifest " + WriteFile(dir_ + "/m.json", c.manifest) +
                 " --csv " + WriteFile(dir_ + "/in.csv", c.csv) + " " + c.flags);
    EXPECT_EQ(copy.status, c.status) << copy.err;
    if (c.stderr_has.empty())
      EXPECT_EQ(copy.err, "");
    else
      EXPECT_NE(copy.err.find(c.stderr_has), std::string::npos) << copy.err;
    if (c.values.empty()) {
      EXPECT_FALSE(fs::exists(farm)) << "a failed copy made a farm";
      return;
    }
    const ToolRun inspect = RunQopci("inspect --limit 100 --farm " + farm);
    ASSERT_EQ(inspect.status, 0) << inspect.err;
    std::string values;
    std::istringstream lines(inspect.out);
    for (std::string line; std::getline(lines, line);)
      if (line.rfind("t.", 0) == 0) values += (values.empty() ? "" : "\n") + line;
    EXPECT_EQ(values, c.values);
  }

  qopci_test::TempDir tmp_{"qopci_tool_input"};
  const std::string dir_ = tmp_.path();
};

TEST_F(InputTest, DialectsWarningsAndErrors) {
  const std::string kTs = R"({"table": "t", "columns": [{"name": "ts", "type": "timestamp"}]})";
  const Case cases[] = {
      // Dialects.
      {"a,b\n1,0.5\n", "", 0, "", "t.a: 1\nt.b: 0.5"},
      {"\xEF\xBB\xBF"
       "a,b\r\n\r\n1,2\r\n\n3,4\r\n",
       "", 0, "", "t.a: 1, 3\nt.b: 2, 4"},
      {"a;b\n1;2.5\n", "", 0, "", "t.a: 1\nt.b: 2.5"},
      {"a\tb\n1\t\n", "", 0, "", "t.a: 1\nt.b: nil"},
      {"a|b\n|2\n", "", 0, "", "t.a: nil\nt.b: 2"},
      {"a;b;c,d,e\n1;2;x,y,z\n", "--delimiter ';'", 0,
       "qopci: warning: CSV columns that no manifest column reads are not exported: \"c,d,e\"",
       "t.a: 1\nt.b: 2"},
      {"a,b,note\n1,2,\"x\ny\"\"z\"\n3,4,\"\"\n", "", 0, "", "t.a: 1, 3\nt.b: 2, 4",
       R"({"table": "t", "ignore": ["note"], "columns": [{"name": "a", "type": "int"},
          {"name": "b", "type": "double"}]})"},
      {"a,b\nNULL,NULL\n1, 2 \n", "--null NULL", 0, "", "t.a: nil, 1\nt.b: nil, 2"},
      {"a,b\n1,nan\n2,-INF\n3,+inf\n4,Infinity\n5,5e-324\n6,-0\n", "", 0,
       "qopci: warning: column \"b\": 1 value is NaN",
       "t.a: 1, 2, 3, 4, 5, 6\nt.b: nan, -inf, inf, inf, 4.94065645841247e-324, -0"},
      // Errors, each naming the line its record starts on; no farm is made.
      {"", "", 1, "CSV is empty: the first line must name the columns", ""},
      {"a,b,c\n1,2,\"x\ny\"\n3,oops,z\n", "", 1,
       "line 4: column \"b\": malformed number \"oops\" for double (not a number)", ""},
      {"a,b\n1,\"2\n", "", 1, "line 2: unterminated quoted field 2 (it runs to the end", ""},
      {"a,b\n1,\"2\"x\n", "", 1, "line 2: text after the closing quote of field 2", ""},
      {"a,b\n1,2\n3\n", "", 1, "line 3: expected 2 fields, found 1", ""},
      {"a,b\n\" 1\",2\n", "", 1,  // blanks inside quotes are the field's
       "line 2: column \"a\": malformed number \" 1\" for int (not an integer)", ""},
      {"a,b\n,2\n", "--null NULL", 1,
       "line 2: column \"a\": empty field; nil is written \"NULL\" (--null)", ""},
      {"a,b\n1,-1.7976931348623157e308\n", "", 1,
       "(it equals -DBL_MAX, the value a double column stores for nil)", ""},
      {"a,b\n1,1e-400\n", "", 1, "(too small: it would be read as 0)", ""},
      {"a,b\n1,0x10\n", "", 1, "malformed number \"0x10\" for double (not a number)", ""},
      {"a,bb\n1,2\n", "", 1,
       "lacks the manifest's column \"b\" (did you mean \"bb\"?); split at ',' it names \"a\", "
       "\"bb\"\n",
       ""},
      {"a;b,c\n1;2,3\n", "", 1, "; split at ',' it names \"a;b\", \"c\"\n", ""},
      {"id,prcie\n1,2\n", "", 1,
       "CSV header (line 1) lacks the manifest's column \"price\" (did you mean \"prcie\"?)", "",
       R"j({"table": "t", "columns": [{"name": "id", "type": "int"},
          {"name": "price", "type": "decimal(9,2)"}]})j"},
      {"a,b,a\n1,2,3\n", "", 1,
       "CSV header (line 1) names the manifest's column \"a\" 2 times (fields 1 and 3)", ""},
      // Warnings, and the same under --strict.
      {"a,b,c,c\n1,2,3,4\n", "", 0,
       "qopci: warning: CSV columns that no manifest column reads are not exported: \"c\" (name "
       "them in \"ignore\"",
       "t.a: 1\nt.b: 2"},
      {"a,b,c\n1,2,3\n", "--strict", 1,
       "qopci: error under --strict: CSV columns that no manifest column reads", ""},
      {"ts\n2013-01-01 00:00:00.1234\n2013-01-01 00:00:00.123000\n", "", 0,
       "qopci: warning: column \"ts\": 1 value has digits below a millisecond, which a timestamp "
       "cannot hold (the first: \"2013-01-01 00:00:00.1234\" on line 2)",
       "t.ts: 2013-01-01 00:00:00.123, 2013-01-01 00:00:00.123", kTs},
      {"ts\n2013-01-01 00:00:00.0001\n", "--strict", 1,
       "qopci: error under --strict: column \"ts\": 1 value has digits below", "", kTs},
      {"a,s\n1,9\n", "", 0,
       "qopci: warning: CSV columns \"s\" are not read: the manifest's rowid, serial and \"from\" columns",
       "t.a: 1\nt.s: 1",
       R"({"table": "t", "columns": [{"name": "a", "type": "int"}, {"name": "s", "type": "serial"}]})"},
      {"a\n1\n", "", 0,
       "qopci: warning: manifest: unknown key \"chunksize\" (did you mean \"chunk_size\"?) has no "
       "effect",
       "t.a: 1", R"({"table": "t", "chunksize": 10, "columns": [{"name": "a", "type": "int"}]})"},
      {"a\n1\n", "--strict", 1,
       "qopci: error under --strict: manifest: column \"a\": unknown key \"typo\" (did you mean "
       "\"type\"?) has no effect",
       "", R"({"table": "t", "columns": [{"name": "a", "type": "int", "typo": 1}]})"},
      {"a\n1\n", "", 1, "qopci: manifest: not valid JSON at line 3, column 15: unexpected '}'", "",
       "{\n  \"table\": \"t\",\n  \"columns\": [}\n"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.csv + " " + c.flags);
    Check(c);
  }
}

}  // namespace
