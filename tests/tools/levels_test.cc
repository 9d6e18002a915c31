// Time-level columns on the tool's side that need no export: the manifest's "levels" key and
// its refusals, the attributes a levels column registers, and the levels verify expects of
// a timestamp.
#include <gtest/gtest.h>

#include <map>
#include <nlohmann/json.hpp>
#include <sstream>

#include "corvid/gdk.h"
#include "corvid/mtime.h"
#include "tests/support/temp_dir.h"
#include "tools/bench_command.h"
#include "tools/column_attributes.h"
#include "tools/level_target.h"
#include "tools/manifest.h"

namespace qopci {
namespace {

std::string OneColumn(const std::string& members) {
  return R"({"table": "t", "columns": [{"name": "ts", )" + members + "}]}";
}

// "ok <type name>" or the refusal.
std::string ParseText(const std::string& members) {
  Manifest m;
  Status s = ParseManifest(OneColumn(members), &m);
  return s.ok() ? "ok " + ColumnTypeName(m.columns[0]) : s.message();
}

TEST(LevelsManifestTest, LevelsAreForTimestampsAndNameTheColumnWhenRefused) {
  const struct {
    std::string members, want;
  } cases[] = {
      {R"("type": "timestamp", "levels": true)", "ok timestamp levels"},
      {R"("type": "datetime", "levels": true, "encoding": "dictionary")",
       "ok timestamp levels dictionary"},
      {R"("type": "timestamp", "levels": false)", "ok timestamp"},
      {R"("type": "int", "levels": true)",
       R"(manifest: column "ts": "levels" is for timestamp columns, not int)"},
      {R"j("type": "decimal(9,2)", "levels": true, "encoding": "dictionary")j",
       R"j(manifest: column "ts": "levels" is for timestamp columns, not decimal(9,2))j"},
      {R"("type": "string", "levels": false, "encoding": "dictionary")", "ok string dictionary"},
      {R"("type": "timestamp", "levels": "yes")",
       R"(manifest: column "ts": "levels" must be true or false)"},
      {R"("type": "timestamp", "levels": 1)",
       R"(manifest: column "ts": "levels" must be true or false)"},
      {R"("type": "timestamp", "encoding": "dictionary")",
       R"j(manifest: column "ts": "encoding": "dictionary" on a timestamp column needs )j"
       R"j("levels": true (its dictionary holds the distinct hours))j"},
      {R"("type": "timestamp", "levels": true, "from": "u.ts")",
       R"j(manifest: column "ts": a time-level column cannot copy another column ("from"))j"},
      {R"("type": "timestamp", "levels": true, "encoding": "dictionary", "store": "leveldb")",
       R"(manifest: column "ts": "store": "leveldb" is for string columns with "encoding": )"
       R"("dictionary")"},
  };
  for (const auto& c : cases) EXPECT_EQ(ParseText(c.members), c.want) << c.members;
}

// The attributes of both forms, as the export reads them: kinds, the files of every level
// BAT, and for the dictionary form the reload and append counts.
TEST(LevelsManifestTest, BothFormsRegisterTheirKindsAndEveryLevelFile) {
  TargetInfo target;
  target.tail_file = "/f/bat/01.tail";
  target.existing_count = 7;
  for (int k = 0; k < 5; ++k) target.level_files.push_back("/f/row" + std::to_string(k));
  TargetInfo dict_target = target;
  for (int k = 0; k < 5; ++k) dict_target.dict_level_files.push_back("/f/dict" + std::to_string(k));
  dict_target.dict.key_file = "/f/dict0";
  dict_target.dict.code_file = "/f/codes";
  dict_target.dict.entries = 3;
  const std::map<int, Attribute> plain = {
      {0, Attribute::Int(0, 6)},
      {1, Attribute::Int(1, 2)},
      {5, Attribute::Str(5, "/f/bat/01.tail")},
      {6, Attribute::Int(6, 1)},
      {15, Attribute::Str(15, "/f/row0")},
      {16, Attribute::Str(16, "/f/row1")},
      {17, Attribute::Str(17, "/f/row2")},
      {18, Attribute::Str(18, "/f/row3")},
      {19, Attribute::Str(19, "/f/row4")},
      {38, Attribute::Lng(38, 7)},
  };
  std::map<int, Attribute> dict = plain;
  dict[0] = Attribute::Int(0, 7);
  dict[1] = Attribute::Int(1, 4);
  for (const Attribute& a :
       {Attribute::Int(35, 0), Attribute::Str(30, "/f/dict0"), Attribute::Str(31, ""),
        Attribute::Str(32, "/f/codes"), Attribute::Lng(37, 3), Attribute::Str(24, "/f/codes"),
        Attribute::Str(25, "/f/dict0"), Attribute::Str(26, "/f/dict1"),
        Attribute::Str(27, "/f/dict2"), Attribute::Str(28, "/f/dict3"),
        Attribute::Str(29, "/f/dict4"), Attribute::Lng(39, 3), Attribute::Lng(40, 7)})
    dict[a.number] = a;
  const struct {
    std::string members;
    const TargetInfo* target;
    const std::map<int, Attribute>* want;
    std::vector<int> absent;
  } cases[] = {
      {R"("type": "timestamp", "levels": true)", &target, &plain, {3, 4, 24, 25, 30, 37, 39}},
      {R"("type": "timestamp", "levels": true, "encoding": "dictionary")",
       &dict_target,
       &dict,
       {3, 4, 20, 21}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.members);
    Manifest m;
    ASSERT_TRUE(ParseManifest(OneColumn(c.members), &m).ok());
    std::map<int, Attribute> got;
    for (const Attribute& a : ColumnAttributes(m, m.columns[0], *c.target, false))
      got[a.number] = a;
    for (const auto& [number, a] : *c.want) EXPECT_EQ(got[number], a) << number;
    for (int number : c.absent) EXPECT_EQ(got.count(number), 0u) << number;
  }
}

// Raw level-file attributes must name the column's own files; on a new column there are
// none to name yet.
TEST(LevelsManifestTest, RawLevelFilesMustBeTheColumnsOwn) {
  TargetInfo kept;
  kept.tail_file = "/f/ts";
  kept.level_files = {"/f/l0", "/f/l1", "/f/l2", "/f/l3", "/f/l4"};
  kept.dict_level_files = {"/f/d0", "/f/d1", "/f/d2", "/f/d3", "/f/d4"};
  kept.dict.code_file = "/f/codes";
  TargetInfo fresh;
  fresh.new_file = true;
  const std::string dict = R"("type": "timestamp", "levels": true, "encoding": "dictionary", )";
  const struct {
    std::string members;
    const TargetInfo* target;
    std::string want;  // "" for accepted
  } cases[] = {
      {dict + R"("attributes": {"16": "/f/l1", "24": "/f/codes", "29": "/f/d4"})", &kept, ""},
      {dict + R"("attributes": {"17": "/f/l3"})", &kept,
       "column t.ts: attribute 17 names /f/l3, not the column's level file /f/l2; leave "
       "attribute 17 out"},
      {dict + R"("attributes": {"24": "/f/l0"})", &kept,
       "column t.ts: attribute 24 names /f/l0, not the column's level file /f/codes; leave "
       "attribute 24 out"},
      {dict + R"("attributes": {"15": "/f/l0"})", &fresh,
       "column t.ts: attribute 15 names /f/l0, but the export writes this column's levels "
       "into new files that it makes; leave attribute 15 out"},
      // The plain form's writer reads no dictionary files: those numbers change nothing.
      {R"("type": "timestamp", "levels": true, "attributes": {"25": "/x"})", &kept, ""},
  };
  for (const auto& c : cases) {
    Manifest m;
    ASSERT_TRUE(ParseManifest(OneColumn(c.members), &m).ok()) << c.members;
    EXPECT_EQ(CheckTargetOverrides("t.ts", m.columns[0], *c.target).message(), c.want) << c.members;
  }
}

// The levels verify recomputes, from the host's calendar: period starts at midnight, the
// level number in 32-bit arithmetic, nil for nil and for 0.
TEST(LevelsOfTest, PeriodsAndLevelNumbers) {
  auto at = [](int y, int m, int d, int32_t ms) {
    return cvd_timestamp(cvd_date_days(y, m, d), ms);
  };
  auto day = [&](int y, int m, int d) { return at(y, m, d, 0); };
  const struct {
    int64_t t;
    Levels want;
  } cases[] = {
      {at(2013, 5, 17, 52200000),
       {2013051714, day(2013, 1, 1), day(2013, 4, 1), day(2013, 5, 1), day(2013, 5, 17)}},
      {at(2012, 12, 31, 86399999),
       {2012123123, day(2012, 1, 1), day(2012, 10, 1), day(2012, 12, 1), day(2012, 12, 31)}},
      {at(2000, 2, 29, 0),
       {2000022900, day(2000, 1, 1), day(2000, 1, 1), day(2000, 2, 1), day(2000, 2, 29)}},
      {at(2013, 9, 30, 3600000),
       {2013093001, day(2013, 1, 1), day(2013, 7, 1), day(2013, 9, 1), day(2013, 9, 30)}},
      // A nil time of day is hour 0x80000000, added in 32-bit arithmetic; the day part of
      // such a timestamp is one lower (the time part is sign-extended).
      {cvd_timestamp(cvd_date_days(2013, 5, 18), CVD_MSEC_NIL),
       {static_cast<int32_t>(2013051700u + 0x80000000u), day(2013, 1, 1), day(2013, 4, 1),
        day(2013, 5, 1), day(2013, 5, 17)}},
      // Years past 2147 wrap.
      {at(2200, 1, 1, 0),
       {static_cast<int32_t>(2200010100u), day(2200, 1, 1), day(2200, 1, 1), day(2200, 1, 1),
        day(2200, 1, 1)}},
      {0, {int_nil, lng_nil, lng_nil, lng_nil, lng_nil}},
      {lng_nil, {int_nil, lng_nil, lng_nil, lng_nil, lng_nil}},
  };
  for (const auto& c : cases) {
    const Levels got = LevelsOf(c.t);
    EXPECT_EQ(got.level, c.want.level) << c.t;
    EXPECT_TRUE(got == c.want) << c.t;
  }
}

TEST(LevelsBenchTest, LevelColumnsInTheSpec) {
  const struct {
    std::string spec, want;  // want: the column's type, or the refusal
  } cases[] = {
      {"levels", "timestamp levels"},
      {"levels:dict", "timestamp levels dictionary"},
      {"levels:random", "timestamp levels"},
      {"levels:dict:random", "timestamp levels dictionary"},
      {"levels:dictionary",
       "--columns item 1 \"levels:dictionary\": only \":random\" may follow a type"},
      {"int:dict", "--columns item 1 \"int:dict\": only \":random\" may follow a type"},
  };
  for (const auto& c : cases) {
    BenchColumns cols;
    Status s = ParseBenchColumns(c.spec, false, 1000, false, &cols);
    EXPECT_EQ(s.ok() ? ColumnTypeName(cols.manifest.columns[0]) : s.message(), c.want) << c.spec;
    if (s.ok()) {
      EXPECT_EQ(cols.random[0], c.spec.find("random") != std::string::npos) << c.spec;
    }
  }
}

// The bench's byte count holds every level file: per row 8 bytes of timestamp, 4 of level
// number and 32 of period starts, and per distinct hour of the dictionary form 40 more (its
// five levels and its ordinal). Two hours of timestamps, one a second, hold two hours.
TEST(LevelsBenchTest, EveryLevelFileIsCounted) {
  qopci_test::TempDir tmp("qopci_bench_levels");
  BenchOptions o;
  o.rows = 7200;
  o.runs = 1;
  o.columns = "levels,levels:dict";
  o.chunk_size = 1000;
  o.dir = tmp.path();
  o.json = true;
  std::ostringstream out, log;
  Status s = RunBench(o, out, log);
  ASSERT_TRUE(s.ok()) << s.message();
  const nlohmann::json j = nlohmann::json::parse(out.str());
  const double bytes = j["bytes_per_s"].get<double>() * j["seconds"][0].get<double>();
  EXPECT_NEAR(bytes, 2 * 7200 * (8 + 4 + 4 * 8) + 2 * (4 + 4 * 8 + 4), 1e-6 * bytes);
}

}  // namespace
}  // namespace qopci
