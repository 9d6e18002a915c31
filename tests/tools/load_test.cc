#include <gtest/gtest.h>

#include <cstring>
#include <sstream>

#include "corvid/gdk.h"
#include "corvid/mtime.h"
#include "tools/result_data.h"

namespace qopci {
namespace {

Manifest OneColumn(const std::string& type) {
  Manifest m;
  Status s = ParseManifest(R"({"table": "t", "columns": [{"name": "c", "type": ")" + type +
                               R"("}, {"name": "r", "type": "rowid"}]})",
                           &m);
  EXPECT_TRUE(s.ok()) << s.message();
  return m;
}

Status Load(const Manifest& m, const std::string& csv, ResultData* out) {
  std::istringstream in(csv);
  return LoadCsv(m, &in, nullptr, out);
}

template <typename T>
std::string Bytes(T v) {
  return std::string(reinterpret_cast<const char*>(&v), sizeof v);
}

int64_t Ts(int y, int mo, int d, int64_t msec_of_day) {
  return cvd_timestamp(cvd_date_days(y, mo, d), static_cast<int32_t>(msec_of_day));
}

TEST(LoadCsvTest, FieldsParseExactlyOrFailWithTheirLine) {
  const struct {
    std::string type, text;
    std::string want;   // the value's bytes; "" when an error is expected
    std::string error;  // after "line 3: column \"c\": "
  } cases[] = {
      {"decimal(9,2)", "12.5", Bytes<lng>(1250), ""},
      {"decimal(9,2)", "-0.07", Bytes<lng>(-7), ""},
      {"decimal(9,2)", "007.10", Bytes<lng>(710), ""},
      {"decimal(9,2)", "1234567.89", Bytes<lng>(123456789), ""},
      {"decimal(18,0)", "-999999999999999999", Bytes<lng>(-999999999999999999), ""},
      {"decimal(9,2)", "", Bytes<lng>(lng_nil), ""},
      {"decimal(9,2)", "12.345", "",
       "malformed number \"12.345\" for decimal(9,2) (more than 2 digits after the point)"},
      {"decimal(9,2)", "12345678.9", "",
       "malformed number \"12345678.9\" for decimal(9,2) (more than 9 digits)"},
      {"decimal(9,2)", "1e3", "",
       "malformed number \"1e3\" for decimal(9,2) (not a decimal number)"},
      {"decimal(9,2)", "-", "", "malformed number \"-\" for decimal(9,2) (not a decimal number)"},
      {"timestamp", "2013-01-01 00:00:00", Bytes<lng>(Ts(2013, 1, 1, 0)), ""},
      {"timestamp", "2013-01-02 09:30:00.093", Bytes<lng>(Ts(2013, 1, 2, 34200093)), ""},
      {"timestamp", "", Bytes<lng>(lng_nil), ""},
      {"timestamp", "2013-13-01 00:00:00", "",
       "malformed timestamp \"2013-13-01 00:00:00\" (expected YYYY-MM-DD HH:MM:SS[.mmm])"},
      {"int", "-2147483647", Bytes<int>(-2147483647), ""},
      {"int", "", Bytes<int>(int_nil), ""},
      {"int", "-2147483648", "",
       "malformed number \"-2147483648\" for int (out of range -2147483647 to 2147483647)"},
      {"int", "12x", "", "malformed number \"12x\" for int (not an integer)"},
      {"tinyint", "127", Bytes<bte>(127), ""},
      {"tinyint", "128", "", "malformed number \"128\" for tinyint (out of range -127 to 127)"},
      {"smallint", "", Bytes<sht>(sht_nil), ""},
      {"bigint", "9223372036854775807", Bytes<lng>(INT64_MAX), ""},
      {"double", "0.5", Bytes<dbl>(0.5), ""},
      {"double", "", Bytes<dbl>(dbl_nil), ""},
      {"double", "abc", "", "malformed number \"abc\" for double (not a number)"},
      {"double", "2.2250738585072009e-308", Bytes<dbl>(2.2250738585072009e-308), ""},
      {"double", "1e309", "",
       "malformed number \"1e309\" for double (beyond the largest double; write inf for "
       "infinity)"},
      {"double", "1.5e", "", "malformed number \"1.5e\" for double (not a number)"},
      {"double", "nan(1)", "", "malformed number \"nan(1)\" for double (not a number)"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.type + " \"" + c.text + "\"");
    ResultData data;
    // Line 2 is a good row, so the failing field sits on line 3.
    std::string good = c.type == "timestamp" ? "2013-01-01" : "1";
    Status s = Load(OneColumn(c.type), "x,c\nx," + good + "\nx," + c.text + "\n", &data);
    if (c.want.empty()) {
      EXPECT_EQ(s.message(), "line 3: column \"c\": " + c.error);
      continue;
    }
    ASSERT_TRUE(s.ok()) << s.message();
    ASSERT_EQ(data.rows, 2u);
    ASSERT_EQ(data.columns.size(), 1u);  // the rowid column has no result values
    const auto& values = data.columns[0].values;
    EXPECT_EQ(std::string(values.end() - c.want.size(), values.end()), c.want);
  }
}

TEST(GenerateRowsTest, SequentialValuesPerEncoding) {
  Manifest m;
  const std::string json = R"j({"table": "t", "columns": [{"name": "i", "type": "int"},
      {"name": "b", "type": "bigint"}, {"name": "d", "type": "double"},
      {"name": "p", "type": "decimal(3,1)"}, {"name": "ts", "type": "timestamp"},
      {"name": "s", "type": "smallint"}, {"name": "n", "type": "rowid"},
      {"name": "k", "type": "serial"}]})j";
  ASSERT_TRUE(ParseManifest(json, &m).ok());
  ResultData data;
  ASSERT_TRUE(GenerateRows(m, 90001, &data).ok());
  ASSERT_EQ(data.columns.size(), 7u);
  auto at = [&](size_t col, uint64_t row, auto sample) {
    decltype(sample) v;
    std::memcpy(&v, data.columns[col].values.data() + row * sizeof v, sizeof v);
    return v;
  };
  const uint64_t r = 90000;
  EXPECT_EQ(at(0, r, int{}), 90000);
  EXPECT_EQ(at(1, r, lng{}), 630000);
  EXPECT_EQ(at(2, r, dbl{}), 45000.0);
  EXPECT_EQ(at(3, r, lng{}), 0);  // 90000 modulo 10^3
  EXPECT_EQ(at(3, 999, lng{}), 999);
  EXPECT_EQ(at(4, r, lng{}), Ts(2013, 1, 2, 3600 * 1000));  // a day and an hour later
  EXPECT_EQ(at(5, r, sht{}), 90000 % 32768);
  EXPECT_EQ(at(6, r, lng{}), 90001);
  EXPECT_FALSE(GenerateRows(m, kMaxResultRows + 1, &data).ok());
}

}  // namespace
}  // namespace qopci
