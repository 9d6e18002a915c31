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
  // checks what the reopened farm holds, and that the tail file holds nothing more.
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
    EXPECT_EQ(ReadFile(TailFile(CVDbat_lookup(name.c_str()))).size(), values.size() * sizeof(T));
  }
};

TEST_F(ExportTest, EveryFixedWidthTypeRoundTrips) {
  // Many chunks of 7 ints, queued and written on the calling thread: the same bytes.
  std::vector<int> ints = {5, -1, int_nil, 2147483647, 0};
  for (int i = 0; i < 10000; i++) ints.push_back(i * 37 % 1001);
  RoundTrip<int>(0, TYPE_int, ints, true);
  RoundTrip<int>(0, TYPE_int, ints, false);
  EXPECT_EQ(ReadFile(TailFile(CVDbat_lookup("c0q"))), ReadFile(TailFile(CVDbat_lookup("c0s"))));
  RoundTrip<oid>(1, TYPE_oid, {0, 1, 4000000000u, 7});
  RoundTrip<bte>(2, TYPE_bte, {1, -1, bte_nil, 127});
  RoundTrip<bte>(3, TYPE_bte, {1, -1, 127, 0});
  RoundTrip<sht>(4, TYPE_sht, {300, -300, sht_nil});
  RoundTrip<sht>(5, TYPE_sht, {300, -300, 0});
  RoundTrip<lng>(6, TYPE_lng, {1LL << 40, -(1LL << 40), lng_nil, 0, 1, 2, 3, 4});
  RoundTrip<lng>(7, TYPE_lng, {1LL << 40, 3});
  RoundTrip<dbl>(8, TYPE_dbl, {0.5, -2.25, dbl_nil, 1e300});
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

// Timestamps from timestamp values and, with attribute 50, from text (a malformed text is
// nil); row ids made by the export, not read from the result.
TEST_F(ExportTest, TimestampsAndRowIds) {
  const int ts_type = ATOMindex("timestamp");
  const std::vector<lng> ts = {cvd_timestamp(cvd_date_days(2013, 1, 1), 0),
                               cvd_timestamp(cvd_date_days(2024, 2, 29), 86399999), lng_nil};
  bat text = 0;
  ASSERT_EQ(CVDbat_create(TYPE_str, nullptr, 0, &text), nullptr);
  for (const char* v : {"2013-01-01 00:00:00", "2024-02-29 23:59:59.999", "\200"})
    ASSERT_EQ(CVDbat_append(text, v), nullptr);
  const bat targets[] = {Target("ts", ts_type), Target("parsed", ts_type)};
  for (int k = 0; k < 2; k++) {
    const std::string col = k == 0 ? "ts" : "parsed";
    Common(col, targets[k]);
    AttrInt(col, 0, 0);
    AttrInt(col, 1, 3);
    AttrInt(col, 3, 6);
    AttrInt(col, 50, k);
  }
  Fixed("row_no", Target("row_no", TYPE_oid), 1, true, 1000, /*source=*/1);
  ASSERT_EQ(Export(Result({{"ts", Column<lng>(ts_type, ts)}, {"parsed", text}}, DenseOrder(3))),
            "");
  Reopen();
  EXPECT_EQ(Read<lng>("ts"), ts);
  EXPECT_EQ(Read<lng>("parsed"), ts);
  EXPECT_EQ(Read<oid>("row_no"), (std::vector<oid>{1, 2, 3}));
}

// The rows a result puts into its column, behind the committed ones: those its order BAT
// names, in that order; with no order BAT its single value, or nil when it has none.
TEST_F(ExportTest, TheOrderBATDecidesTheRows) {
  enum OrderKind { kNone, kDense, kList };
  struct Batch {
    std::vector<int> values;
    OrderKind kind;
    std::vector<oid> order;
  };
  const struct {
    const char* name;
    std::vector<Batch> exports;
    std::vector<int> want;  // after the farm is reopened
  } cases[] = {
      {"rotated", {{{10, 20, 30}, kList, {1, 2, 0}}}, {20, 30, 10}},
      {"one", {{{42}, kNone, {}}}, {42}},
      {"none", {{{}, kNone, {}}}, {int_nil}},
      {"empty", {{{}, kDense, {}}}, {}},  // copies nothing but commits the new BAT
      {"appended", {{{1, 2, 3}, kDense, {}}, {{4, 5}, kDense, {}}}, {1, 2, 3, 4, 5}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const bat target = Target(c.name, TYPE_int);
    for (const Batch& r : c.exports) {
      Fixed(c.name, target, 0);  // existing count: what the BAT holds
      const bat order = r.kind == kNone    ? 0
                        : r.kind == kDense ? DenseOrder(r.values.size())
                                           : Order(r.order);
      int rc = 0;
      EXPECT_EQ(Export(Result({{c.name, Column<int>(TYPE_int, r.values)}}, order), &rc), "");
      EXPECT_EQ(rc, 1);
    }
    Reopen();
    EXPECT_EQ(Read<int>(c.name), c.want);
  }
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

}  // namespace
}  // namespace qopci_test
