// Timestamp columns with time levels through the copy command, the real plugin and kernel:
// both forms created, appended and replaced, read back with their levels in every row
// format, refused where a form would leave BATs behind, and checked by verify.
#include <gtest/gtest.h>

#include <filesystem>
#include <functional>
#include <sstream>

#include "corvid/farm.h"
#include "corvid/mtime.h"
#include "tests/support/temp_dir.h"
#include "tools/copy_command.h"
#include "tools/inspect.h"
#include "tools/kernel_io.h"
#include "tools/row_view.h"
#include "tools/verify.h"

namespace qopci {
namespace {

const std::string kPlain = R"("type": "timestamp", "levels": true)";
const std::string kDict = R"("type": "timestamp", "levels": true, "encoding": "dictionary")";

class LevelsCopyTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_NE(tmp_.path(), "");
    options_.farm = tmp_.path() + "/farm";
  }

  // One copy of `csv` (header "v") into t.v, the column given as JSON members.
  Status Copy(const std::string& column, const std::string& csv, bool replace = false) {
    Manifest m;
    Status s = ParseManifest(R"({"table": "t", "columns": [{"name": "v", )" + column + "}]}", &m);
    if (s.ok()) s = ResolveModes(&m, replace);
    std::istringstream in("v\n" + csv);
    ResultData data;
    CsvOptions null_word;
    null_word.null_text = "NULL";
    if (s.ok()) s = LoadCsv(m, &in, nullptr, &data, null_word);
    summary_.str("");
    return s.ok() ? CopyResult(m, &data, options_, summary_) : s;
  }

  // t's rows as inspect prints them, header included.
  std::string Rows(RowFormat format) {
    if (!FromKernel(CVDfarm_open(options_.farm.c_str(), CVD_FARM_READONLY)).ok()) return "?";
    std::ostringstream out;
    RowViewOptions o;
    o.table = "t";
    o.limit = kAllRows;
    o.format = format;
    Status s = PrintRows(out, o);
    CVDfarm_close();
    return s.ok() ? out.str() : s.message();
  }

  std::string Catalog() {
    if (!FromKernel(CVDfarm_open(options_.farm.c_str(), CVD_FARM_READONLY)).ok()) return "?";
    std::ostringstream out;
    Status s = PrintFarm(out, {}, 2);
    CVDfarm_close();
    return s.ok() ? out.str() : s.message();
  }

  // verify's lines about t.v, then "ok" or its verdict.
  std::string Verify() {
    std::ostringstream report;
    Status s = RunVerify(options_.farm, report);
    std::istringstream lines(report.str());
    std::string ours;
    for (std::string line; std::getline(lines, line);)
      if (line.rfind("t.v", 0) == 0) ours += line + "\n";
    return ours + (s.ok() ? "ok" : s.message());
  }

  qopci_test::TempDir tmp_{"qopci_tool_levels"};
  CopyOptions options_;
  std::ostringstream summary_;
};

// A CSV row of t as inspect prints it: the timestamp, then its five levels.
std::string Row(const std::string& ts, const std::string& levels) {
  return ts + "," + levels + "\n";
}

const std::string kHeader = "v,v.level,v.year,v.quarter,v.month,v.day\n";
const std::string kMay =
    Row("2013-05-17 14:30:00", "2013051714,2013-01-01,2013-04-01,2013-05-01,2013-05-17");
const std::string kMayLater =
    Row("2013-05-17 14:59:59.250", "2013051714,2013-01-01,2013-04-01,2013-05-01,2013-05-17");
const std::string kNil = Row("", ",,,,");
const std::string kNewYear =
    Row("2012-12-31 23:00:00", "2012123123,2012-01-01,2012-10-01,2012-12-01,2012-12-31");
const std::string kLeap =
    Row("2016-02-29 00:00:01", "2016022900,2016-01-01,2016-01-01,2016-02-01,2016-02-29");

// Both forms: created, appended and replaced, each read back with its levels; the summary and
// the catalog give the type and, for the dictionary form, its number of distinct hours.
TEST_F(LevelsCopyTest, CreatedAppendedReplacedAndReadBackWithTheirLevels) {
  const std::string first = "2013-05-17 14:30:00\n2013-05-17 14:59:59.250\nNULL\n";
  const std::string second = "2012-12-31 23:00:00\n2013-05-17 14:30:00\n";
  const std::string third = "2016-02-29 00:00:01\n";
  const struct {
    std::string column, type;
    std::string entries[3];  // the summary's dictionary sizes after each copy, "" for none
  } cases[] = {
      {kPlain, "timestamp levels", {"", "", ""}},
      {kDict, "timestamp levels dictionary", {"[1]", "[2]", "[1]"}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.type);
    std::filesystem::remove_all(options_.farm);
    ASSERT_TRUE(Copy(c.column, first).ok());
    EXPECT_NE(summary_.str().find(c.type + c.entries[0] + " created"), std::string::npos)
        << summary_.str();
    EXPECT_EQ(Rows(RowFormat::kCsv), kHeader + kMay + kMayLater + kNil);
    const std::string catalog = Catalog();
    EXPECT_NE(catalog.find(" " + c.type + " "), std::string::npos) << catalog;
    EXPECT_NE(catalog.find("levels: t.v.level, .year, .quarter, .month, .day"), std::string::npos)
        << catalog;
    EXPECT_NE(catalog.find("t.v.year: 2013-01-01, 2013-01-01, ..."), std::string::npos) << catalog;
    EXPECT_EQ(catalog.find("t.v.level "), std::string::npos) << catalog;  // not a column
    if (c.entries[0].empty()) {
      EXPECT_EQ(catalog.find("t.v.dict"), std::string::npos) << catalog;
    } else {
      EXPECT_NE(catalog.find("; dictionary: 1 entries (t.v.dict.level, ...)"), std::string::npos)
          << catalog;
    }
    EXPECT_EQ(Verify(), "ok");

    ASSERT_TRUE(Copy(c.column, second).ok());
    EXPECT_NE(summary_.str().find(c.type + c.entries[1] + " appended"), std::string::npos)
        << summary_.str();
    EXPECT_EQ(Rows(RowFormat::kCsv), kHeader + kMay + kMayLater + kNil + kNewYear + kMay);
    EXPECT_EQ(Verify(), "ok");

    ASSERT_TRUE(Copy(c.column, third, /*replace=*/true).ok());
    EXPECT_NE(summary_.str().find(c.type + c.entries[2] + " replaced"), std::string::npos)
        << summary_.str();
    EXPECT_EQ(Rows(RowFormat::kCsv), kHeader + kLeap);
    EXPECT_EQ(Verify(), "ok");
  }
}

// The table and JSON views carry the same levels; JSON gives level numbers as numbers and
// the dictionary's size with the column.
TEST_F(LevelsCopyTest, TableAndJsonViewsShowTheLevels) {
  const std::string table =
      "                  v     v.level      v.year   v.quarter     v.month       v.day\n"
      "2013-05-17 14:30:00  2013051714  2013-01-01  2013-04-01  2013-05-01  2013-05-17\n"
      "2012-12-31 23:00:00  2012123123  2012-01-01  2012-10-01  2012-12-01  2012-12-31\n"
      "               NULL        NULL        NULL        NULL        NULL        NULL\n";
  // The JSON after the first column's type.
  const std::string json =
      R"(, {"name": "v.level", "type": "int"}, {"name": "v.year", "type": "timestamp"}, )"
      R"({"name": "v.quarter", "type": "timestamp"}, {"name": "v.month", "type": "timestamp"}, )"
      R"({"name": "v.day", "type": "timestamp"}], "count": 3, "rows": [)"
      "\n"
      R"(["2013-05-17 14:30:00", 2013051714, "2013-01-01", "2013-04-01", "2013-05-01", )"
      R"("2013-05-17"],)"
      "\n"
      R"(["2012-12-31 23:00:00", 2012123123, "2012-01-01", "2012-10-01", "2012-12-01", )"
      R"("2012-12-31"],)"
      "\n[null, null, null, null, null, null]]}\n";
  const std::string head = R"({"table": "t", "columns": [{"name": "v", "type": "timestamp levels)";
  const struct {
    std::string column, table, json;
  } cases[] = {
      {kPlain, table, head + R"("})" + json},
      {kDict, table + "(v: dictionary of 2 entries)\n",
       head + R"( dictionary", "dictionary_entries": 2})" + json},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.column);
    std::filesystem::remove_all(options_.farm);
    ASSERT_TRUE(Copy(c.column, "2013-05-17 14:30:00\n2012-12-31 23:00:00\nNULL\n").ok());
    EXPECT_EQ(Rows(RowFormat::kTable), c.table);
    EXPECT_EQ(Rows(RowFormat::kJson), c.json);
  }
}

// A form with fewer BATs cannot replace one with more: the kernel could not drop the rest.
// An append must ask for the type the farm holds.
TEST_F(LevelsCopyTest, FormsThatWouldLeaveBatsBehindAreRefused) {
  const struct {
    std::string before, after;
    bool replace;
    std::string want;
  } cases[] = {
      {kPlain, R"("type": "timestamp")", true,
       "column t.v is timestamp levels; replacing it by a timestamp column would leave its "
       "t.v.level behind: keep its type or use a new column"},
      {kDict, kPlain, true,
       "column t.v is timestamp levels dictionary; replacing it by a timestamp levels column "
       "would leave its t.v.dict_codes behind: keep its type or use a new column"},
      {R"("type": "int", "encoding": "dictionary")", kDict, true,
       "column t.v is int dictionary; replacing it by a timestamp levels dictionary column "
       "would leave its t.v.dict behind: keep its type or use a new column"},
      {R"("type": "timestamp")", kPlain, false,
       "column t.v is timestamp in the farm, the manifest asks for timestamp levels; use "
       "--replace to change it"},
      {kPlain, kDict, false,
       "column t.v is timestamp levels in the farm, the manifest asks for timestamp levels "
       "dictionary; use --replace to change it"},
      // More BATs replace fewer: the new ones are made.
      {R"("type": "timestamp")", kDict, true, ""},
      {kPlain, kDict, true, ""},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.before + " -> " + c.after);
    std::filesystem::remove_all(options_.farm);
    const bool ints = c.before.find("int") != std::string::npos;
    ASSERT_TRUE(Copy(c.before, ints ? "1\n" : "2013-05-17 14:30:00\n").ok());
    EXPECT_EQ(Copy(c.after, "2013-05-17 15:30:00\n", c.replace).message(), c.want);
    if (c.want.empty()) {
      EXPECT_EQ(Verify(), "ok");
    }
  }
}

// verify recomputes each row's levels and checks the counts and the dictionary: a farm
// whose files are sound but whose levels are wrong (values appended by hand and committed)
// has one fault for the column.
TEST_F(LevelsCopyTest, VerifyFindsLevelsThatDisagreeWithTheirTimestamps) {
  const int64_t ts = cvd_timestamp(cvd_date_days(2013, 5, 17), 52200000);
  const int64_t wrong_year = cvd_timestamp(cvd_date_days(2012, 1, 1), 0);
  const int32_t level = 2013051714, other_level = 2013051715;
  // Appends one value to BAT `name`.
  auto append = [](const char* name, const void* v) {
    return FromKernel(CVDbat_append(CVDbat_lookup(name), v)).ok();
  };
  const struct {
    std::string column;
    std::function<bool()> damage;
    std::string want;
  } cases[] = {
      {kPlain,
       [&] {
         return append("t.v", &ts) && append("t.v.level", &level) &&
                append("t.v.year", &wrong_year) && append("t.v.quarter", &wrong_year) &&
                append("t.v.month", &wrong_year) && append("t.v.day", &wrong_year);
       },
       "t.v: row 1 of column t.v: t.v.year holds 2012-01-01 00:00:00, but its timestamp "
       "2013-05-17 14:30:00 gives 2013-01-01 00:00:00\n"},
      {kPlain, [&] { return append("t.v.level", &other_level); },
       "t.v: t.v.level holds 2 rows but t.v holds 1\n"},
      {kDict, [&] { return append("t.v.dict.level", &other_level); },
       "t.v: t.v.dict.year holds 1 entries but t.v.dict.level holds 2\n"},
      {kDict,
       [&] {
         const int32_t code = 7;
         const int64_t day = cvd_timestamp(cvd_date_days(2013, 5, 17), 0);
         const int64_t year = cvd_timestamp(cvd_date_days(2013, 1, 1), 0);
         const int64_t quarter = cvd_timestamp(cvd_date_days(2013, 4, 1), 0);
         const int64_t month = cvd_timestamp(cvd_date_days(2013, 5, 1), 0);
         return append("t.v.dict.level", &other_level) && append("t.v.dict.year", &year) &&
                append("t.v.dict.quarter", &quarter) && append("t.v.dict.month", &month) &&
                append("t.v.dict.day", &day) && append("t.v.dict_codes", &code);
       },
       "t.v: entry 1 of the dictionary of t.v: t.v.dict_codes holds 7, not its ordinal 2\n"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.want);
    std::filesystem::remove_all(options_.farm);
    ASSERT_TRUE(Copy(c.column, "2013-05-17 14:30:00\n").ok());
    ASSERT_EQ(Verify(), "ok");
    ASSERT_TRUE(FromKernel(CVDfarm_open(options_.farm.c_str(), 0)).ok());
    ASSERT_TRUE(c.damage());
    ASSERT_EQ(TMcommit(), 0);
    CVDfarm_close();
    EXPECT_EQ(Verify(), c.want + "farm " + options_.farm + " has 1 fault");
  }
}

// Nil rows stay out of a dictionary whose nil is not a key, and a reloaded dictionary
// finds its hours again, so appends of the same hours add nothing.
TEST_F(LevelsCopyTest, NilRowsStayOutOfTheDictionaryAcrossAppends) {
  for (int copy = 1; copy <= 3; ++copy) {
    SCOPED_TRACE(copy);
    ASSERT_TRUE(Copy(kDict, "2013-05-17 14:30:00\nNULL\nNULL\n").ok());
    EXPECT_NE(summary_.str().find("timestamp levels dictionary[1]"), std::string::npos)
        << summary_.str();
  }
  EXPECT_EQ(Verify(), "ok");
}

}  // namespace
}  // namespace qopci
