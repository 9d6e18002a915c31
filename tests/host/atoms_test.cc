// Atoms as text: parsing, formatting, nil handling and rejections; exception texts.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "corvid/exception.h"
#include "corvid/gdk.h"
#include "corvid/mtime.h"

namespace {

std::string Format(int type, const void* v) {
  char* buf = nullptr;
  size_t len = 0;
  int n = ATOMformat(type, v, &buf, &len);
  std::string s = n < 0 ? "<error>" : std::string(buf, n);
  GDKfree(buf);
  return s;
}

TEST(AtomsTest, TextRoundTripsAndRejections) {
  struct Case {
    const char* type;
    const char* text;
    const char* formatted;  // nullptr: the text must be rejected
  };
  const Case cases[] = {
      {"bit", "true", "true"},
      {"bit", "0", "false"},
      {"bit", "yes", nullptr},
      {"bte", "-127", "-127"},
      {"bte", "-128", nullptr},
      {"bte", "128", nullptr},
      {"sht", "32767", "32767"},
      {"sht", "12x", nullptr},
      {"int", " 42 ", "42"},
      {"int", "2147483648", nullptr},
      {"int", "", nullptr},
      {"oid", "2147483647", "2147483647"},
      {"oid", "2147483648", nullptr},
      {"oid", "-1", nullptr},
      {"lng", "-9223372036854775807", "-9223372036854775807"},
      {"lng", "-9223372036854775808", nullptr},
      {"lng", "9223372036854775808", nullptr},
      {"wrd", "nil", "nil"},
      {"int", "NIL", "nil"},
      {"flt", "1.5", "1.5"},
      {"flt", "1e39", nullptr},
      {"dbl", "0.1", "0.1"},
      {"dbl", "2.2250738585072014e-308", "2.2250738585072014e-308"},
      {"dbl", "inf", nullptr},
      {"dbl", "1e309", nullptr},
      {"chr", "a", "a"},
      {"chr", "ab", nullptr},
      {"str", "nil text", "nil text"},
      {"date", "2000-02-29", "2000-02-29"},
      {"date", "1900-02-29", nullptr},
      {"date", "2004-02-29", "2004-02-29"},
      {"date", "-1-06-30", "-001-06-30"},
      {"date", "0-01-01", nullptr},
      {"daytime", "23:59:59.999", "23:59:59.999"},
      {"daytime", "24:00:00", nullptr},
      {"timestamp", "1999-12-31 23:59:59.999", "1999-12-31 23:59:59.999"},
      {"timestamp", "2000-02-29 12:00", "2000-02-29 12:00:00.000"},
      {"timestamp", "2016-02-29", "2016-02-29 00:00:00.000"},
      {"timestamp", "2015-02-29 00:00:00", nullptr},
      {"timestamp", "2000-01-01 x", nullptr},
      {"timestamp", "nil", "nil"},
      {"nosuchtype", "1", nullptr},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.type) + " '" + c.text + "'");
    void* v = ATOMstrConvert(c.type, c.text);
    if (!c.formatted) {
      EXPECT_EQ(v, nullptr);
      continue;
    }
    ASSERT_NE(v, nullptr);
    int type = ATOMindex(c.type);
    std::string text = Format(type, v);
    EXPECT_EQ(text, c.formatted);
    void* again = ATOMstrConvert(c.type, text.c_str());  // the formatted text reads back
    ASSERT_NE(again, nullptr);
    EXPECT_EQ(ATOMcmp(type, v, again), 0);
    EXPECT_EQ(std::string(c.formatted) == "nil",
              type != TYPE_str && ATOMcmp(type, ATOMnil(type), v) == 0);
    GDKfree(v);
    GDKfree(again);
  }
}

// Type names and widths are pinned by the round trips of every type through text and
// through the farm's files; what is left is the order of nils and the timestamp layout.
TEST(AtomsTest, NilOrderAndTimestampLayout) {
  EXPECT_STREQ(ATOMname(17), "unknown");
  oid small = 0;  // the oid nil is 0x80000000 yet sorts before 0
  EXPECT_LT(ATOMcmp(TYPE_oid, ATOMnil(TYPE_oid), &small), 0);
  EXPECT_GT(ATOMcmp(TYPE_str, "", ATOMnil(TYPE_str)), 0);

  void* ts = ATOMstrConvertToTimeStamp("str", "2013-05-17 14:30:00.250");
  ASSERT_NE(ts, nullptr);
  int64_t v;
  std::memcpy(&v, ts, 8);
  EXPECT_EQ(cvd_timestamp_days(v), cvd_date_days(2013, 5, 17));
  EXPECT_EQ(cvd_timestamp_msecs(v), (14 * 3600 + 30 * 60) * 1000 + 250);
  GDKfree(ts);
  EXPECT_EQ(ATOMstrConvertToTimeStamp("timestamp", "2013-13-01"), nullptr);
}

TEST(AtomsTest, ExceptionTextAndMemoryBooks) {
  int64_t blocks0, bytes0;
  GDKmemstat(&blocks0, &bytes0, nullptr);
  char* e = createException(IO, "CVDfarm_open", "cannot open %s (%d)", "x", 2);
  EXPECT_STREQ(e, "IOException:CVDfarm_open:cannot open x (2)");
  int64_t blocks, bytes;
  GDKmemstat(&blocks, &bytes, nullptr);
  EXPECT_EQ(blocks, blocks0 + 1);
  EXPECT_EQ(bytes, bytes0 + static_cast<int64_t>(std::strlen(e) + 1));
  GDKfree(e);
  GDKmemstat(&blocks, &bytes, nullptr);
  EXPECT_EQ(blocks, blocks0);
  EXPECT_STREQ(exceptionName(static_cast<exception_type>(9)), "UnknownException");
  const char* classes[] = {"MALException", "IllegalArgumentException", "OutOfBoundsException",
                           "IOException", "SQLException"};
  for (int t = 0; t < 5; t++)
    EXPECT_STREQ(exceptionName(static_cast<exception_type>(t)), classes[t]);
}

}  // namespace
