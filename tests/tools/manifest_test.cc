#include "tools/manifest.h"

#include <gtest/gtest.h>

#include <map>

#include "tools/closest.h"
#include "tools/column_attributes.h"

namespace qopci {
namespace {

Manifest Parse(const std::string& text) {
  Manifest m;
  Status s = ParseManifest(text, &m);
  EXPECT_TRUE(s.ok()) << s.message();
  return m;
}

std::string Column(const std::string& name, const std::string& type) {
  return R"({"table": "t", "columns": [{"name": ")" + name + R"(", "type": ")" + type + R"("}]})";
}

// The attributes as the export sees them: later registrations replace earlier ones.
std::map<int, Attribute> Registered(const Manifest& m, bool sync = false) {
  std::map<int, Attribute> out;
  for (const Attribute& a : ColumnAttributes(m, m.columns[0], {"/farm/bat/01.tail", 42}, sync))
    out[a.number] = a;
  return out;
}

TEST(ManifestTest, EachEncodingRegistersItsAttributeSet) {
  // Expected int attributes beyond the shared ones; -1 means "not registered".
  struct Case {
    std::string type;
    std::map<int, int> own;
    std::vector<int> absent;
  };
  const std::vector<Case> cases = {
      {"tinyint", {{0, 0}, {1, 0}, {3, 2}, {4, 2}, {33, 0}}, {7, 9}},
      {"smallint", {{0, 0}, {1, 0}, {3, 4}, {4, 4}, {33, 0}}, {7, 9}},
      {"int", {{0, 0}, {1, 0}, {3, 0}, {4, 0}, {33, 0}}, {7, 9}},
      {"bigint", {{0, 0}, {1, 0}, {3, 6}, {4, 6}, {33, 0}}, {7, 9}},
      {"double", {{0, 0}, {1, 0}, {3, 8}, {4, 8}, {33, 0}}, {7, 9}},
      // Decimals: the fixed-width chunker of the storage width's type, the decimal writer.
      {"decimal(2,1)", {{0, 0}, {1, 7}, {3, 2}, {9, 2}, {10, 1}, {33, 0}}, {4, 7, 8}},
      {"decimal(4,4)", {{0, 0}, {1, 7}, {3, 4}, {9, 4}, {10, 4}}, {4, 7, 8}},
      {"decimal(9,2)", {{0, 0}, {1, 7}, {3, 0}, {9, 9}, {10, 2}, {33, 0}}, {4, 7, 8}},
      {"DECIMAL( 10 , 0 )", {{0, 0}, {1, 7}, {3, 6}, {9, 10}, {10, 0}}, {4, 7, 8}},
      {"timestamp", {{0, 0}, {1, 3}, {3, 6}, {33, 0}}, {4, 7}},
      {"rowid", {{0, 0}, {1, 0}, {3, 1}, {4, 1}, {33, 1}}, {7, 9}},
      {"serial", {{0, 0}, {1, 0}, {3, 6}, {4, 6}, {33, 0}}, {7, 9}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.type);
    Manifest m = Parse(R"({"table": "t", "chunk_size": 1000, "columns": [{"name": "c", "type": ")" +
                       c.type + R"("}]})");
    auto attrs = Registered(m);
    EXPECT_EQ(attrs[2], Attribute::Int(2, 1000));
    EXPECT_EQ(attrs[5], Attribute::Str(5, "/farm/bat/01.tail"));
    EXPECT_EQ(attrs[6], Attribute::Int(6, 1));
    EXPECT_EQ(attrs[34], Attribute::Int(34, 1));
    EXPECT_EQ(attrs[36], Attribute::Int(36, 0));
    EXPECT_EQ(attrs[38], Attribute::Lng(38, 42));
    EXPECT_EQ(attrs[50], Attribute::Int(50, 0));
    for (auto [number, value] : c.own) EXPECT_EQ(attrs[number], Attribute::Int(number, value));
    for (int number : c.absent) EXPECT_EQ(attrs.count(number), 0u) << number;
  }
}

TEST(ManifestTest, QueueingFollowsManifestUnlessSyncForced) {
  const struct {
    std::string queued;  // JSON member, empty for the default
    bool sync;
    int want;
  } cases[] = {{"", false, 1},
               {R"("queued": false,)", false, 0},
               {R"("queued": true,)", true, 0},
               {R"("queued": 1,)", false, 1}};
  for (const auto& c : cases) {
    Manifest m =
        Parse(R"({"table": "t", )" + c.queued + R"( "columns": [{"name": "c", "type": "int"}]})");
    EXPECT_EQ(Registered(m, c.sync)[34], Attribute::Int(34, c.want)) << c.queued << c.sync;
    EXPECT_EQ(Registered(m)[2], Attribute::Int(2, 65536));
  }
}

TEST(ManifestTest, RawAttributesOverrideAfterTheEncodingsOwn) {
  Manifest m = Parse(R"({"table": "t", "columns": [{"name": "x", "type": "bigint",
      "attributes": {"34": 0, "38": 7, "43": "dir", "44": 5000000000, "12": -3}}]})");
  auto attrs = Registered(m);
  EXPECT_EQ(attrs[34], Attribute::Int(34, 0));
  EXPECT_EQ(attrs[38], Attribute::Lng(38, 7));  // keeps the 8-byte size the export reads
  EXPECT_EQ(attrs[43], Attribute::Str(43, "dir"));
  EXPECT_EQ(attrs[44], Attribute::Lng(44, 5000000000));
  EXPECT_EQ(attrs[12], Attribute::Int(12, -3));
}

TEST(ManifestTest, RejectsBadManifestsWithClearTexts) {
  const struct {
    std::string json;
    std::string error;
  } cases[] = {
      {"{",
       "manifest: not valid JSON at line 1, column 2: unexpected end of input; expected string "
       "literal"},
      {"{\"table\": \"t\",\n \"columns\": tru}",
       "manifest: not valid JSON at line 2, column 16: invalid literal; last read: "
       "'\"columns\": tru}'"},
      {R"({"table": "t", "chunk_size": 1e400})",
       "manifest: not valid JSON: number overflow parsing '1e400'"},
      {R"({"columns": []})", "manifest: missing \"table\""},
      {R"({"table": "t"})", "manifest: missing \"columns\""},
      {R"({"table": "t", "columns": []})", "manifest: \"columns\" must be a non-empty array"},
      {R"({"table": "t", "columns": [{"type": "int"}]})", "manifest: column 1: missing \"name\""},
      {R"({"table": "t", "columns": [{"name": "c"}]})", "manifest: column \"c\": missing \"type\""},
      {Column("c", "blob"),
       "manifest: column \"c\": unknown type \"blob\" (known: tinyint, smallint, int, bigint, "
       "double, decimal(p,s), timestamp, rowid, serial, string, and their SQL aliases)"},
      {Column("c", "INTEGR"),
       "manifest: column \"c\": unknown type \"INTEGR\" (did you mean \"integer\"?) (known: "
       "tinyint, smallint, int, bigint, double, decimal(p,s), timestamp, rowid, serial, string, "
       "and their SQL aliases)"},
      {Column("c", "numeric"),
       "manifest: column \"c\": decimal type must be written decimal(p,s), got \"numeric\""},
      {Column("c", "decimal(9,2,1)"),
       "manifest: column \"c\": decimal type must be written decimal(p,s), got \"decimal(9,2,1)\""},
      {Column("c", "decimal(19,2)"),
       "manifest: column \"c\": decimal precision must be 1 to 18, got 19"},
      {Column("c", "decimal(0,0)"),
       "manifest: column \"c\": decimal precision must be 1 to 18, got 0"},
      {Column("c", "decimal(4,5)"),
       "manifest: column \"c\": decimal scale must be 0 to the precision 4, got 5"},
      {R"({"table": "t", "chunk_size": 0, "columns": [{"name": "c", "type": "int"}]})",
       "manifest: \"chunk_size\" must be a positive 32-bit integer"},
      {R"({"table": "t", "columns": [{"name": "c", "type": "int"}, {"name": "c", "type": "int"}]})",
       "manifest: column \"c\": appears twice"},
      {R"({"table": "t", "columns": [{"name": "c", "type": "int", "attributes": {"51": 1}}]})",
       "manifest: column \"c\": attribute \"51\" is not a number from 0 to 50"},
      {R"({"table": "t", "columns": [{"name": "c", "type": "int", "attributes": {"3": 1.5}}]})",
       "manifest: column \"c\": attribute \"3\" must be an integer or a string"},
      {R"({"table": "t", "ignore": "c", "columns": [{"name": "c", "type": "int"}]})",
       "manifest: \"ignore\" must be an array of CSV column names"},
      {R"({"table": "t", "ignore": ["c"], "columns": [{"name": "c", "type": "int"}]})",
       "manifest: column \"c\" is both a column and in \"ignore\""},
      {R"({"table": "t", "columns": [{"name": "c", "type": "int", "mode": "upsert"}]})",
       "manifest: column \"c\": unknown mode \"upsert\" (known: append, replace)"},
  };
  for (const auto& c : cases) {
    Manifest m;
    Status s = ParseManifest(c.json, &m);
    EXPECT_FALSE(s.ok()) << c.json;
    EXPECT_EQ(s.message(), c.error) << c.json;
  }
}

TEST(ManifestTest, SqlTypeNamesAndAliasesReadAsTheToolsOwnWords) {
  const struct {
    const char* written;
    const char* name;  // EncodingName(), the SQL type recorded in the farm
  } cases[] = {
      {"int1", "tinyint"},
      {"INT2", "smallint"},
      {"integer", "int"},
      {"Int4", "int"},
      {"int8", "bigint"},
      {"float", "double"},
      {"float8", "double"},
      {" double   PRECISION ", "double"},
      {"datetime", "timestamp"},
      {"numeric(9,2)", "decimal(9,2)"},
      {"Dec( 18 , 0 )", "decimal(18,0)"},
      {"decimal (4)", "decimal(4,0)"},
      {"decimal( 9 , 2 )", "decimal(9,2)"},
  };
  for (const auto& c : cases)
    EXPECT_EQ(EncodingName(Parse(Column("c", c.written)).columns[0]), c.name) << c.written;
}

// What the tool registers for attributes 5, 6 and 38 of a column, given its manifest entry,
// --replace, and the rows its committed target holds (-1: no target yet); or the refusal.
std::string Plan(const std::string& column_json, bool replace_all, int64_t rows) {
  Manifest m;
  Status s = ParseManifest(R"({"table": "t", "columns": [)" + column_json + "]}", &m);
  if (s.ok()) s = ResolveModes(&m, replace_all);
  if (!s.ok()) return s.message();
  const ManifestColumn& c = m.columns[0];
  TargetInfo target{"/f/bat/07.tail", rows, false, false};
  if (rows < 0 || c.mode == Mode::kReplace) target = {"", 0, c.mode == Mode::kReplace, true};
  s = CheckTargetOverrides("t.c", c, target);
  if (!s.ok()) return s.message();
  if (target.new_file) target.tail_file = "/f/bat/09.tail";  // made once the checks passed
  std::map<int, Attribute> attrs;
  for (const Attribute& a : ColumnAttributes(m, c, target, false)) attrs[a.number] = a;
  return attrs[5].text + " 6=" + std::to_string(attrs[6].value) +
         " 38=" + std::to_string(attrs[38].value);
}

TEST(ColumnAttributesTest, ModesAndRawAttributesAgreeOrAreRefused) {
  const std::string c = R"({"name": "c", "type": "int")";
  const std::string kAppend5 = "/f/bat/07.tail 6=1 38=5", kFresh = "/f/bat/09.tail 6=0 38=0";
  const struct {
    std::string json;
    bool replace_all;
    int64_t rows;
    std::string want;
  } cases[] = {
      {c + "}", false, 5, kAppend5},
      {c + R"(, "mode": "append"})", false, -1, "/f/bat/09.tail 6=1 38=0"},
      {c + "}", true, 5, kFresh},
      {c + R"(, "mode": "replace"})", false, 5, kFresh},
      {c + R"(, "mode": "append"})", true, 5, kFresh},         // --replace is for every column
      {c + R"(, "attributes": {"6": 0}})", false, 5, kFresh},  // raw 6 = 0 is replace mode
      {c + R"(, "attributes": {"38": 5, "5": "/f/bat/07.tail"}})", false, 5, kAppend5},
      {c + R"(, "attributes": {"6": 0, "38": 5}})", false, 5,
       "manifest: column \"c\": attribute 38 = 5 contradicts attribute 6 = 0: a file written "
       "anew keeps no rows; leave attribute 38 out"},
      {c + R"(, "attributes": {"38": 0}})", false, 5,
       "column t.c: attribute 38 = 0 contradicts the 5 rows the column holds, behind which the "
       "export appends; leave attribute 38 out"},
      {c + R"(, "attributes": {"38": 5}})", true, 5,
       "manifest: column \"c\": attribute 38 = 5 contradicts --replace: a replaced column keeps "
       "no rows; leave attribute 38 out"},
      {c + R"(, "mode": "replace", "attributes": {"6": 1}})", false, 5,
       "manifest: column \"c\": attribute 6 = 1 (keep the rows) contradicts mode \"replace\": a "
       "replaced column keeps no rows; leave attribute 6 out"},
      {c + R"(, "mode": "append", "attributes": {"6": 0}})", false, 5,
       "manifest: column \"c\": attribute 6 = 0 (write anew) contradicts mode \"append\"; use "
       "mode \"replace\""},
      {c + R"(, "attributes": {"5": "/f/bat/08.tail"}})", false, 5,
       "column t.c: attribute 5 names /f/bat/08.tail, not the column's tail file /f/bat/07.tail; "
       "leave attribute 5 out"},
      {c + R"(, "mode": "replace", "attributes": {"5": "/f/bat/07.tail"}})", false, 5,
       "column t.c: attribute 5 names /f/bat/07.tail, but the export writes this column into a "
       "new file that it makes; leave attribute 5 out"},
  };
  for (const auto& k : cases)
    EXPECT_EQ(Plan(k.json, k.replace_all, k.rows), k.want) << k.json << " " << k.replace_all;
}

}  // namespace
}  // namespace qopci

TEST(ClosestNameTest, SuggestsOnlyNearNames) {
  const std::vector<std::string> keys = {"table", "chunk_size", "queued", "columns"};
  struct Case {
    const char* word;
    const char* want;
  } cases[] = {
      {"chunksize", "chunk_size"},
      {"CHUNK_SIZE", "chunk_size"},
      {"tabel", "table"},
      {"colums", "columns"},
      {"rows", ""},
      {"", ""},
  };
  for (const Case& c : cases) EXPECT_EQ(qopci::ClosestName(c.word, keys), c.want) << c.word;
  EXPECT_EQ(qopci::DidYouMean("queud", keys), " (did you mean \"queued\"?)");
}
