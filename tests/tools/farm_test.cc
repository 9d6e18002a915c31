#include "corvid/farm.h"

#include <gtest/gtest.h>

#include <cstring>
#include <sstream>

#include "tests/support/temp_dir.h"
#include "tools/inspect.h"
#include "tools/kernel_io.h"

namespace qopci {
namespace {

// Each test works in a fresh farm directory, removed afterwards.
class FarmTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(FromKernel(CVDfarm_open(dir_.c_str(), 1)).ok()); }
  void TearDown() override { CVDfarm_close(); }
  Manifest MakeManifest(const std::string& columns) {
    Manifest m;
    Status s = ParseManifest(R"({"table": "t", "columns": [)" + columns + "]}", &m);
    if (s.ok()) s = ResolveModes(&m, false);
    EXPECT_TRUE(s.ok()) << s.message();
    return m;
  }
  qopci_test::TempDir tmp_{"qopci_tool_farm"};
  const std::string dir_ = tmp_.path();
};

TEST_F(FarmTest, TargetsAreCreatedOnceWithTheirTypeAndCheckedOnAppend) {
  Manifest m = MakeManifest(R"j({"name": "a", "type": "tinyint"}, {"name": "b", "type": "smallint"},
      {"name": "c", "type": "int"}, {"name": "d", "type": "bigint"}, {"name": "e", "type": "double"},
      {"name": "f", "type": "decimal(4,1)"}, {"name": "g", "type": "timestamp"},
      {"name": "h", "type": "rowid"}, {"name": "i", "type": "serial"})j");
  const int want[] = {
      TYPE_bte, TYPE_sht, TYPE_int, TYPE_lng, TYPE_dbl, TYPE_sht, ATOMindex("timestamp"),
      TYPE_oid, TYPE_lng};
  std::vector<TargetColumn> targets;
  ASSERT_TRUE(PrepareTargets(m, &targets).ok());
  ASSERT_EQ(targets.size(), 9u);
  for (size_t i = 0; i < targets.size(); ++i) {
    SCOPED_TRACE(m.columns[i].name);
    EXPECT_TRUE(targets[i].created);
    EXPECT_EQ(targets[i].id, CVDbat_lookup(("t." + m.columns[i].name).c_str()));
    EXPECT_EQ(BBPgetdesc(targets[i].id)->ttype, want[i]);
    EXPECT_EQ(CVDbat_sqltype(targets[i].id), EncodingName(m.columns[i]));
  }
  lng three[] = {1, 2, 3};
  ASSERT_TRUE(FromKernel(CVDbat_append_n(targets[3].id, three, 3)).ok());
  bat old = 0;  // a column from before SQL types were recorded: only its atom type is known
  ASSERT_TRUE(FromKernel(CVDbat_create(TYPE_lng, "t.old", 0, &old)).ok());
  ASSERT_EQ(TMcommit(), 0);

  // A later run finds the committed targets and appends behind their rows.
  CVDfarm_close();
  ASSERT_TRUE(FromKernel(CVDfarm_open(dir_.c_str(), 0)).ok());
  std::vector<TargetColumn> again;
  ASSERT_TRUE(PrepareTargets(m, &again).ok());
  EXPECT_FALSE(again[3].created);
  EXPECT_EQ(again[3].info.existing_count, 3);
  char path[4096];
  EXPECT_EQ(again[3].info.tail_file, CVDbat_filename(again[3].id, "tail", path, sizeof path));

  // Another type, by its recorded name or (when none is recorded) its atom type, is refused
  // before any other target is made.
  const struct {
    std::string column, error;
  } clashes[] = {
      {R"({"name": "d", "type": "int"})", "t.d is bigint in the farm, the manifest asks for int"},
      {R"j({"name": "f", "type": "decimal(4,2)"})j",  // stored as smallint all the same
       "t.f is decimal(4,1) in the farm, the manifest asks for decimal(4,2)"},
      {R"j({"name": "old", "type": "decimal(9,2)"})j",
       "t.old is bigint in the farm, the manifest asks for decimal(9,2)"},
      {R"({"name": "old", "type": "bigint"})", ""},
  };
  for (const auto& c : clashes) {
    Manifest clash = MakeManifest(R"({"name": "new", "type": "int"}, )" + c.column);
    Status s = PrepareTargets(clash, &again);
    EXPECT_EQ(s.message(),
              c.error.empty() ? "" : "column " + c.error + "; use --replace to change it");
    EXPECT_EQ(CVDbat_lookup("t.new") != 0, c.error.empty()) << c.column;
  }
}

TEST_F(FarmTest, ResultTableHoldsTheLoadedColumns) {
  Manifest m =
      MakeManifest(R"j({"name": "n", "type": "rowid"}, {"name": "p", "type": "decimal(9,2)"},
      {"name": "i", "type": "int"})j");
  ResultData data;
  ASSERT_TRUE(GenerateRows(m, 5, &data).ok());
  mvc* ctx = mvc_create();
  int id = 0;
  Status s = BuildResultTable(ctx, m, data, /*single_row=*/true, &id);
  EXPECT_EQ(s.message(), "--single-row needs a result of exactly one row, this one has 5");
  EXPECT_EQ(ctx->results, nullptr);

  ASSERT_TRUE(BuildResultTable(ctx, m, data, false, &id).ok());
  res_table* t = res_tables_find(ctx->results, id);
  ASSERT_NE(t, nullptr);
  ASSERT_EQ(t->nr_cols, 2);  // the rowid column is made by the export
  EXPECT_EQ(BBPgetdesc(t->order)->batCount, 5u);
  EXPECT_STREQ(t->cols[0].name, "p");
  EXPECT_STREQ(t->cols[0].type.type_name, "decimal");
  EXPECT_EQ(t->cols[0].type.digits, 9);
  EXPECT_EQ(t->cols[0].type.scale, 2);
  EXPECT_STREQ(t->cols[1].tn, "t");
  EXPECT_STREQ(t->cols[1].type.type_name, "int");
  for (int c = 0; c < 2; ++c) {
    BAT* b = BBPdescriptor(t->cols[c].b);
    ASSERT_NE(b, nullptr);
    EXPECT_EQ(b->batCount, 5u);
    EXPECT_FALSE(b->batPersistent);
    EXPECT_EQ(std::memcmp(Tloc(b, 0), data.columns[c].values.data(), 5 * b->twidth), 0);
    BBPreleaseref(t->cols[c].b);
  }

  ResultData one;
  ASSERT_TRUE(GenerateRows(m, 1, &one).ok());
  ASSERT_TRUE(BuildResultTable(ctx, m, one, true, &id).ok());
  EXPECT_EQ(res_tables_find(ctx->results, id)->order, 0);
  mvc_destroy(ctx);
}

TEST_F(FarmTest, InspectPrintsCatalogAndValues) {
  Manifest m =
      MakeManifest(R"j({"name": "a", "type": "int"}, {"name": "ts", "type": "timestamp"})j");
  std::vector<TargetColumn> targets;
  ASSERT_TRUE(PrepareTargets(m, &targets).ok());
  ResultData data;
  ASSERT_TRUE(GenerateRows(m, 4, &data).ok());
  for (size_t c = 0; c < 2; ++c)
    ASSERT_TRUE(FromKernel(CVDbat_append_n(targets[c].id, data.columns[c].values.data(), 4)).ok());
  ASSERT_EQ(TMcommit(), 0);

  std::ostringstream all;
  ASSERT_TRUE(PrintFarm(all, {}, 3).ok());
  EXPECT_NE(all.str().find("\nt.a: 0, 1, 2, ...\n"), std::string::npos) << all.str();
  EXPECT_NE(all.str().find("t.ts: 2013-01-01 00:00:00"), std::string::npos) << all.str();

  std::ostringstream one;
  ASSERT_TRUE(PrintFarm(one, {"ts"}, 0).ok());
  EXPECT_EQ(one.str().find("t.a"), std::string::npos);
  EXPECT_NE(one.str().find("t.ts"), std::string::npos);
  EXPECT_EQ(PrintFarm(one, {"zz"}, 1).message(), "no column named \"zz\" in farm " + dir_);
  EXPECT_EQ(PrintFarm(one, {"tss"}, 1).message(),
            "no column named \"tss\" in farm " + dir_ + " (did you mean \"ts\"?)");
}

}  // namespace
}  // namespace qopci
