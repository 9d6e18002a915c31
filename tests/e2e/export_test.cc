// End-to-end exports through the five C functions into the embedded host's farm; every
// column is read back by the host after the farm is closed and reopened.
#include <string>
#include <vector>

#include "corvid/mtime.h"
#include "tests/e2e/e2e_fixture.h"

namespace qopci_test {
namespace {

class ExportTest : public FarmTest {
 public:
  // Exports `values` of host type `type` through simple type `code` into a new column and
  // checks what the reopened farm holds.
  template <typename T>
  void RoundTrip(int code, int type, const std::vector<T>& values, bool queued = true) {
    SCOPED_TRACE(std::string("type ") + ATOMname(type) + " code " + std::to_string(code));
    const std::string name = "c" + std::to_string(code) + (queued ? "q" : "s");
    bat target = Target(name.c_str(), type);
    int id = Result({{name, Column<T>(type, values)}}, DenseOrder(values.size()));
    Fixed(name, target, code, queued, 7);
    ASSERT_EQ(Export(id), "");
    Reopen();
    EXPECT_EQ(Read<T>(name.c_str()), values);
    EXPECT_EQ(BBPgetdesc(CVDbat_lookup(name.c_str()))->batCount, values.size());
  }
};

TEST_F(ExportTest, EveryFixedWidthTypeRoundTrips) {
  RoundTrip<int>(0, TYPE_int, {5, -1, int_nil, 2147483647, 0, 9, 10, 11, 12});
  RoundTrip<oid>(1, TYPE_oid, {0, 1, 4000000000u, 7});
  RoundTrip<bte>(2, TYPE_bte, {1, -1, bte_nil, 127});
  RoundTrip<bte>(3, TYPE_bte, {1, -1, 127, 0});
  RoundTrip<sht>(4, TYPE_sht, {300, -300, sht_nil});
  RoundTrip<sht>(5, TYPE_sht, {300, -300, 0});
  RoundTrip<lng>(6, TYPE_lng, {1LL << 40, -(1LL << 40), lng_nil, 0, 1, 2, 3, 4});
  RoundTrip<lng>(7, TYPE_lng, {1LL << 40, 3});
  RoundTrip<dbl>(8, TYPE_dbl, {0.5, -2.25, dbl_nil, 1e300});
}

TEST_F(ExportTest, QueuedAndSynchronousWritersWriteTheSameBytes) {
  std::vector<int> values;
  for (int i = 0; i < 10000; i++) values.push_back(i * 37 % 1001);
  RoundTrip<int>(0, TYPE_int, values, true);
  RoundTrip<int>(0, TYPE_int, values, false);
  const std::string queued = ReadFile(TailFile(CVDbat_lookup("c0q")));
  EXPECT_EQ(queued.size(), values.size() * sizeof(int));
  EXPECT_EQ(queued, ReadFile(TailFile(CVDbat_lookup("c0s"))));
}

TEST_F(ExportTest, DecimalsTakeTheWidthOfTheirPrecision) {
  struct Case { int precision; int width; };
  const std::vector<Case> cases = {{2, 1}, {4, 2}, {9, 4}, {10, 8}, {18, 8}};
  // The decimal chunker keeps the lowest byte of each value; these survive every width.
  const std::vector<lng> values = {0, 1, 99, 100, 127};
  std::vector<std::pair<std::string, bat>> cols;
  for (const Case& c : cases) {
    std::string name = "d" + std::to_string(c.precision);
    bat target = Target(name.c_str(), TYPE_lng);
    cols.push_back({name, Column<lng>(TYPE_lng, values)});
    Decimal(name, target, c.precision, 2);
  }
  ASSERT_EQ(Export(Result(cols, DenseOrder(values.size()))), "");
  Reopen();
  for (const Case& c : cases) {
    std::string name = "d" + std::to_string(c.precision);
    SCOPED_TRACE(name);
    EXPECT_EQ(BBPgetdesc(CVDbat_lookup(name.c_str()))->twidth, c.width);
    EXPECT_EQ(Read<lng>(name.c_str()), values);
  }
}

TEST_F(ExportTest, DecimalScaleChecks) {
  struct Case { int precision, scale; std::string error; };
  const std::vector<Case> cases = {
      {4, 5, "CIManager::CopyIntoOneColumn(): m: Scale should be <= precision."},
      {20, 19, "CIManager::CopyIntoOneColumn(): m: Precision over 18 not supported."},
      {20, 2, ""}};  // the limit is on the scale
  for (const Case& c : cases) {
    bat target = Target(("m" + std::to_string(c.scale)).c_str(), TYPE_lng);
    Decimal("m", target, c.precision, c.scale);
    EXPECT_EQ(Export(Result({{"m", Column<lng>(TYPE_lng, {7})}}, DenseOrder(1))), c.error);
  }
}

TEST_F(ExportTest, TimestampsAndRowIds) {
  const int ts_type = ATOMindex("timestamp");
  const std::vector<lng> ts = {cvd_timestamp(cvd_date_days(2013, 1, 1), 0),
                               cvd_timestamp(cvd_date_days(2024, 2, 29), 86399999), lng_nil};
  bat target = Target("ts", ts_type), rows = Target("row_no", TYPE_oid);
  int id = Result({{"ts", Column<lng>(ts_type, ts)}}, DenseOrder(ts.size()));
  Common("ts", target);
  AttrInt("ts", 0, 0);
  AttrInt("ts", 1, 3);
  AttrInt("ts", 3, 6);
  Fixed("row_no", rows, 1, true, 1000, /*source=*/1);  // generated: not in the result
  ASSERT_EQ(Export(id), "");
  Reopen();
  EXPECT_EQ(Read<lng>("ts"), ts);
  EXPECT_EQ(Read<oid>("row_no"), (std::vector<oid>{1, 2, 3}));
}

TEST_F(ExportTest, StringSourcesParsedAsTimestampsWithAttribute50) {
  const int ts_type = ATOMindex("timestamp");
  bat text = 0;
  ASSERT_EQ(CVDbat_create(TYPE_str, nullptr, 0, &text), nullptr);
  for (const char* v : {"2013-01-01 00:00:00", "2024-02-29 23:59:59.999", "\200"})
    ASSERT_EQ(CVDbat_append(text, v), nullptr);
  bat target = Target("parsed", ts_type);
  Common("parsed", target);
  AttrInt("parsed", 0, 0);
  AttrInt("parsed", 1, 3);
  AttrInt("parsed", 3, 6);
  AttrInt("parsed", 50, 1);
  ASSERT_EQ(Export(Result({{"parsed", text}}, DenseOrder(3))), "");
  Reopen();
  EXPECT_EQ(Read<lng>("parsed"),
            (std::vector<lng>{cvd_timestamp(cvd_date_days(2013, 1, 1), 0),
                              cvd_timestamp(cvd_date_days(2024, 2, 29), 86399999), lng_nil}));
}

TEST_F(ExportTest, OrderBATDecidesTheRowOrder) {
  struct Case { std::vector<oid> order; std::vector<int> expected; };
  const std::vector<Case> cases = {{{2, 1, 0}, {30, 20, 10}}, {{1, 2, 0}, {20, 30, 10}}};
  int n = 0;
  for (const Case& c : cases) {
    std::string name = "o" + std::to_string(n++);
    bat target = Target(name.c_str(), TYPE_int);
    int id = Result({{name, Column<int>(TYPE_int, {10, 20, 30})}}, Order(c.order));
    Fixed(name, target, 0);
    ASSERT_EQ(Export(id), "");
    EXPECT_EQ(Read<int>(name.c_str()), c.expected);
  }
}

TEST_F(ExportTest, WithoutOrderBATTheSingleValueIsCopied) {
  bat a = Target("one", TYPE_int), b = Target("none", TYPE_int);
  int id = Result({{"one", Column<int>(TYPE_int, {42})}, {"none", Column<int>(TYPE_int, {})}}, 0);
  Fixed("one", a, 0);
  Fixed("none", b, 0);
  ASSERT_EQ(Export(id), "");
  EXPECT_EQ(Read<int>("one"), std::vector<int>{42});
  EXPECT_EQ(Read<int>("none"), std::vector<int>{int_nil});
}

TEST_F(ExportTest, EmptyOrderBATCopiesNothingButCommits) {
  bat target = Target("e", TYPE_int);
  Fixed("e", target, 0);
  int rc = 0;
  EXPECT_EQ(Export(Result({{"e", Column<int>(TYPE_int, {})}}, DenseOrder(0)), &rc), "");
  EXPECT_EQ(rc, 1);
  Reopen();  // the commit made the new BAT part of the farm
  EXPECT_NE(CVDbat_lookup("e"), 0);
  EXPECT_EQ(BBPgetdesc(CVDbat_lookup("e"))->batCount, 0u);
}

TEST_F(ExportTest, AppendingAddsToTheExistingRows) {
  bat target = Target("a", TYPE_lng);
  Fixed("a", target, 6);
  ASSERT_EQ(Export(Result({{"a", Column<lng>(TYPE_lng, {1, 2, 3})}}, DenseOrder(3))), "");
  Fixed("a", target, 6);  // existing count 3, keep-existing
  ASSERT_EQ(Export(Result({{"a", Column<lng>(TYPE_lng, {4, 5})}}, DenseOrder(2))), "");
  Reopen();
  EXPECT_EQ(Read<lng>("a"), (std::vector<lng>{1, 2, 3, 4, 5}));
}

TEST_F(ExportTest, RefreshCallbackSeesEveryRewrittenBAT) {
  static std::vector<int> seen;
  seen.clear();
  qopci_set_refresh_columns_structs_function([](int id) { seen.push_back(id); });
  bat a = Target("r1", TYPE_int), b = Target("r2", TYPE_int);
  Fixed("r1", a, 0);
  Fixed("r2", b, 0);
  ASSERT_EQ(Export(Result({{"r1", Column<int>(TYPE_int, {1})}, {"r2", Column<int>(TYPE_int, {2})}},
                          DenseOrder(1))), "");
  qopci_set_refresh_columns_structs_function(nullptr);
  EXPECT_EQ(seen, (std::vector<int>{a, b}));
}

TEST_F(ExportTest, ErrorsAreReportedAndTheFirstWins) {
  struct Case {
    std::string name;
    void (*setup)(ExportTest*, bat);
    std::string error;
  };
  const std::vector<Case> cases = {
      {"missing attribute", [](ExportTest* t, bat b) { t->Common("x", b); t->AttrInt("x", 0, 0); t->AttrInt("x", 1, 0); t->AttrInt("x", 4, 0); },
       "GET_COL_ATTR : Column attribute 3 not found at line 632"},
      {"later lookups overwrite", [](ExportTest* t, bat b) { t->Common("x", b); t->AttrInt("x", 0, 0); t->AttrInt("x", 1, 0); },
       "GET_COL_ATTR : Column attribute 4 not found at line 847"},
      {"mis-sized attribute", [](ExportTest* t, bat b) { t->Fixed("x", b, 0); t->AttrLng("x", 2, 5); },
       "GET_COL_ATTR : Value size mismatch at line 633"},
      {"unknown chunker kind", [](ExportTest* t, bat b) { t->Fixed("x", b, 0); t->AttrInt("x", 0, 5); },
       "ChunkerFactory(): x: Chunker kind 5 not supported"},
      {"unknown writer kind", [](ExportTest* t, bat b) { t->Fixed("x", b, 0); t->AttrInt("x", 1, 42); },
       "WriterFactory(): x: Writer kind 42 not supported"},
      {"empty chunks", [](ExportTest* t, bat b) { t->Fixed("x", b, 0, true, 0); },
       "CIManager::CopyIntoOneColumn(): x: Chunk size must be at least 1"},
      {"chunk size above the bound", [](ExportTest* t, bat b) { t->Fixed("x", b, 0, true, 16777217); },
       "CIManager::CopyIntoOneColumn(): x: Chunk size must be at most 16777216"},
      {"bad type code", [](ExportTest* t, bat b) { t->Fixed("x", b, 0); t->AttrInt("x", 3, 9); },
       "CIManager::CopyIntoOneColumn(): x: Simple Type Chunker not supported"},
      {"element size", [](ExportTest* t, bat b) { t->Fixed("x", b, 6); },
       "UpdateBBPWithGo(): x: Chunker element size 8 is different from BAT element size 4 of type int"},
      {"column not in result", [](ExportTest* t, bat b) { t->Fixed("y", b, 0); },
       "CIManager::ExecuteCopyInto(): y: Can't find result column"},
      {"first error wins", [](ExportTest* t, bat b) { t->Fixed("x", b, 0); t->AttrInt("x", 3, 9); t->Fixed("y", b, 0); },
       "CIManager::CopyIntoOneColumn(): x: Simple Type Chunker not supported"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    bat target = Target(("t" + std::to_string(&c - cases.data())).c_str(), TYPE_int);
    c.setup(this, target);
    int id = Result({{"x", Column<int>(TYPE_int, {1, 2})}}, DenseOrder(2));
    EXPECT_EQ(Export(id), c.error);
    EXPECT_EQ(res_tables_find(ctx_->results, id), nullptr);  // consumed either way
  }
}

TEST_F(ExportTest, BadAttributeNumbersAndEmptyExports) {
  EXPECT_EQ(AttrInt("x", 51, 0), "IllegalArgumentException:qopci_validate_add_md:Bad attribute enum");
  EXPECT_EQ(AttrInt("x", -1, 0), "IllegalArgumentException:qopci_validate_add_md:Bad attribute enum");
  char* untouched = reinterpret_cast<char*>(0x1);
  EXPECT_EQ(qopci_export_result(ctx_, 1, CVDfarm_logger(), &untouched), 0);  // nothing registered
  EXPECT_EQ(untouched, reinterpret_cast<char*>(0x1));
  EXPECT_EQ(AttrInt("x", 50, 0), "");  // 50 is the last valid number
  EXPECT_EQ(Export(12345), "CIManager::ExecuteCopyInto(): : Can't find result table");
}

TEST_F(ExportTest, StringAttributeOutlivesTheCallersCopy) {
  bat target = Target("s", TYPE_int);
  Fixed("s", target, 0);
  std::string* file = new std::string(TailFile(target));
  AttrStr("s", 5, *file);
  delete file;
  ASSERT_EQ(Export(Result({{"s", Column<int>(TYPE_int, {3})}}, DenseOrder(1))), "");
  EXPECT_EQ(Read<int>("s"), std::vector<int>{3});
}

}  // namespace
}  // namespace qopci_test
