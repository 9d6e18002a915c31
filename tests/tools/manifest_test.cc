#include "tools/manifest.h"

#include <gtest/gtest.h>

#include <map>

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
      {"{", "manifest: not valid JSON"},
      {R"({"columns": []})", "manifest: missing \"table\""},
      {R"({"table": "t"})", "manifest: missing \"columns\""},
      {R"({"table": "t", "columns": []})", "manifest: \"columns\" must be a non-empty array"},
      {R"({"table": "t", "columns": [{"type": "int"}]})", "manifest: column 1: missing \"name\""},
      {R"({"table": "t", "columns": [{"name": "c"}]})", "manifest: column \"c\": missing \"type\""},
      {Column("c", "varchar"),
       "manifest: column \"c\": unknown type \"varchar\" (known: tinyint, smallint, int, bigint, "
       "double, decimal(p,s), timestamp, rowid)"},
      {Column("c", "decimal(19,2)"),
       "manifest: column \"c\": decimal precision must be 1 to 18, got 19"},
      {Column("c", "decimal(0,0)"),
       "manifest: column \"c\": decimal precision must be 1 to 18, got 0"},
      {Column("c", "decimal(4,5)"),
       "manifest: column \"c\": decimal scale must be 0 to the precision 4, got 5"},
      {Column("c", "decimal(4)"),
       "manifest: column \"c\": decimal type must be written decimal(p,s), got \"decimal(4)\""},
      {R"({"table": "t", "chunk_size": 0, "columns": [{"name": "c", "type": "int"}]})",
       "manifest: \"chunk_size\" must be a positive 32-bit integer"},
      {R"({"table": "t", "columns": [{"name": "c", "type": "int"}, {"name": "c", "type": "int"}]})",
       "manifest: column \"c\": appears twice"},
      {R"({"table": "t", "columns": [{"name": "c", "type": "int", "attributes": {"51": 1}}]})",
       "manifest: column \"c\": attribute \"51\" is not a number from 0 to 50"},
      {R"({"table": "t", "columns": [{"name": "c", "type": "int", "attributes": {"3": 1.5}}]})",
       "manifest: column \"c\": attribute \"3\" must be an integer or a string"},
  };
  for (const auto& c : cases) {
    Manifest m;
    Status s = ParseManifest(c.json, &m);
    EXPECT_FALSE(s.ok()) << c.json;
    EXPECT_EQ(s.message(), c.error) << c.json;
  }
}

}  // namespace
}  // namespace qopci
