// The copy command through the real plugin and kernel: what a farm holds after appends and
// replacements, read back through the kernel and through inspect.
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <map>
#include <sstream>

#include "corvid/farm.h"
#include "tests/support/run_tool.h"
#include "tools/column_attributes.h"
#include "tools/copy_command.h"
#include "tools/inspect.h"
#include "tools/kernel_io.h"

namespace qopci {
namespace {

namespace fs = std::filesystem;
using qopci_test::RunQopci;
using qopci_test::ToolRun;
using qopci_test::WriteFile;

class CopyTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_FALSE(dir_.empty());
    options_.farm = dir_ + "/farm";
  }
  void TearDown() override { CVDfarm_fail_commit(-1); }

  // One copy of `csv` into table t, the manifest's columns given as JSON.
  Status Copy(const std::string& columns, const std::string& csv, bool replace = false) {
    Manifest m;
    Status s = ParseManifest(R"({"table": "t", "columns": [)" + columns + "]}", &m);
    if (s.ok()) s = ResolveModes(&m, replace);
    std::istringstream in(csv);
    ResultData data;
    if (s.ok()) s = LoadCsv(m, &in, nullptr, &data);
    summary_.str("");
    return s.ok() ? CopyResult(m, &data, options_, summary_) : s;
  }

  // The values line inspect prints for column t.<name> ("t.c: 1, 2"), read from a farm
  // opened as a reader.
  std::string Values(const std::string& name, uint64_t limit = 100) {
    if (!FromKernel(CVDfarm_open(options_.farm.c_str(), CVD_FARM_READONLY)).ok()) return "?";
    std::ostringstream out;
    Status s = PrintFarm(out, {"t." + name}, limit);
    CVDfarm_close();
    if (!s.ok()) return s.message();
    std::string text = out.str();
    size_t at = text.find("\nt." + name + ":");
    return at == std::string::npos ? text : text.substr(at + 1, text.find('\n', at + 1) - at - 1);
  }

  // Every file of the farm with its bytes.
  std::map<std::string, std::string> Files() {
    std::map<std::string, std::string> files;
    for (const auto& e : fs::recursive_directory_iterator(options_.farm))
      if (e.is_regular_file()) files[e.path().string()] = qopci_test::ReadFile(e.path());
    return files;
  }

  qopci_test::TempDir tmp_{"qopci_tool_copy"};
  const std::string dir_ = tmp_.path();
  CopyOptions options_;
  std::ostringstream summary_;
};

TEST_F(CopyTest, DecimalsSurviveAtEveryPrecision) {
  // Per precision p, at scale p/2: the largest and smallest values, zero, the negative value
  // nearest zero, and nil; stored whole at the width the precision needs.
  std::string columns, header, rows[5], printed[19];
  for (int p = 1; p <= 18; ++p) {
    const int s = p / 2;
    const std::string name = "d" + std::to_string(p);
    const std::string max =
        (p > s ? std::string(p - s, '9') : "0") + (s > 0 ? "." + std::string(s, '9') : "");
    const std::string cells[5] = {max, "-" + max, s > 0 ? "0." + std::string(s, '0') : "0",
                                  s > 0 ? "-0." + std::string(s - 1, '0') + "1" : "-1", ""};
    columns += (p > 1 ? ", {\"name\": \"" : "{\"name\": \"") + name + "\", \"type\": \"decimal(" +
               std::to_string(p) + "," + std::to_string(s) + ")\"}";
    header += (p > 1 ? "," : "") + name;
    for (int r = 0; r < 5; ++r) rows[r] += (p > 1 ? "," : "") + cells[r];
    printed[p] =
        "t." + name + ": " + max + ", -" + max + ", " + cells[2] + ", " + cells[3] + ", nil";
  }
  std::string csv = header + "\n";
  for (const std::string& r : rows) csv += r + "\n";
  ASSERT_TRUE(Copy(columns, csv).ok());

  ASSERT_TRUE(FromKernel(CVDfarm_open(options_.farm.c_str(), CVD_FARM_READONLY)).ok());
  for (int p = 1; p <= 18; ++p) {
    SCOPED_TRACE(p);
    const bat id = CVDbat_lookup(("t.d" + std::to_string(p)).c_str());
    BAT* b = BBPdescriptor(id);
    ASSERT_NE(b, nullptr);
    const int width = p <= 2 ? 1 : p <= 4 ? 2 : p <= 9 ? 4 : 8;
    const int type = width == 1   ? TYPE_bte
                     : width == 2 ? TYPE_sht
                     : width == 4 ? TYPE_int
                                  : TYPE_lng;
    EXPECT_EQ(b->ttype, type);
    EXPECT_EQ(b->twidth, width);
    ASSERT_EQ(b->batCount, 5u);
    int64_t max = 9;
    for (int k = 1; k < p; ++k) max = max * 10 + 9;
    const int64_t want[4] = {max, -max, 0, -1};
    for (int r = 0; r < 5; ++r) {
      const void* v = BUNtail(b, r);
      int64_t got = width == 1   ? *static_cast<const bte*>(v)
                    : width == 2 ? *static_cast<const sht*>(v)
                    : width == 4 ? *static_cast<const int*>(v)
                                 : *static_cast<const lng*>(v);
      const bool ok = r < 4 ? got == want[r] : ATOMcmp(type, v, ATOMnil(type)) == 0;
      EXPECT_TRUE(ok) << "row " << r << " holds " << got;
    }
    BBPreleaseref(id);
  }
  CVDfarm_close();
  for (int p = 1; p <= 18; ++p) EXPECT_EQ(Values("d" + std::to_string(p)), printed[p]);
}

TEST_F(CopyTest, ReplaceSwapsTheColumnAtTheCommitOnly) {
  const std::string old_columns = R"({"name": "a", "type": "int"}, {"name": "b", "type": "int"})";
  ASSERT_TRUE(Copy(old_columns, "a,b\n1,10\n2,20\n3,30\n").ok());
  ASSERT_TRUE(FromKernel(CVDfarm_open(options_.farm.c_str(), CVD_FARM_READONLY)).ok());
  char path[4096];
  const std::string old_tail = CVDbat_filename(CVDbat_lookup("t.a"), "tail", path, sizeof path);
  CVDfarm_close();

  // A replacement of another type whose commit fails leaves the old column as it was.
  const std::string new_columns =
      R"j({"name": "a", "type": "decimal(4,1)", "mode": "replace"}, {"name": "b", "type": "int"})j";
  CVDfarm_fail_commit(1);
  EXPECT_EQ(Copy(new_columns, "a,b\n1.5,40\n").message(),
            "CIManager::UpdateBBP(): : Commit failed");
  CVDfarm_fail_commit(-1);
  EXPECT_EQ(Values("a"), "t.a: 1, 2, 3");
  EXPECT_EQ(Values("b"), "t.b: 10, 20, 30");

  // Committed, it takes the old column's place; the other column is appended to.
  ASSERT_TRUE(Copy(new_columns, "a,b\n1.5,40\n-0.5,50\n").ok());
  EXPECT_NE(summary_.str().find("t.a                      decimal(4,1)   replaced             2"),
            std::string::npos)
      << summary_.str();
  EXPECT_EQ(Values("a"), "t.a: 1.5, -0.5");
  EXPECT_EQ(Values("b"), "t.b: 10, 20, 30, 40, 50");
  EXPECT_FALSE(fs::exists(old_tail)) << old_tail;
}

TEST_F(CopyTest, SerialContinuesWhereRowIdStartsAgain) {
  const std::string columns = R"({"name": "x", "type": "int"}, {"name": "s", "type": "serial"},
      {"name": "r", "type": "rowid"})";
  ASSERT_TRUE(Copy(columns, "x\n7\n8\n9\n").ok());
  ASSERT_TRUE(Copy(columns, "x\n10\n11\n").ok());
  EXPECT_EQ(Values("s"), "t.s: 1, 2, 3, 4, 5");
  EXPECT_EQ(Values("r"), "t.r: 1, 2, 3, 1, 2");
  ASSERT_TRUE(Copy(columns, "x\n12\n", /*replace=*/true).ok());  // --replace: every column
  EXPECT_EQ(Values("s"), "t.s: 1");
  EXPECT_EQ(Values("x"), "t.x: 12");
}

TEST_F(CopyTest, InspectOnlyReadsAndASecondWriterIsRefused) {
  ASSERT_TRUE(Copy(R"({"name": "x", "type": "int"})", "x\n1\n").ok());
  const std::string manifest =
      WriteFile(dir_ + "/m.json", R"({"table": "t", "columns": [{"name": "x", "type": "int"}]})");
  // What an interrupted commit leaves is for the next writer to clear, not for a reader.
  WriteFile(options_.farm + "/catalog.new", "partial");
  const auto before = Files();
  ToolRun r = RunQopci("inspect --farm " + options_.farm);
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_NE(r.out.find("\nt.x: 1\n"), std::string::npos) << r.out;
  EXPECT_EQ(Files(), before);

  // While this process writes to the farm, inspect still reads it, and copy is refused in
  // words that name the farm and this process; --verbose adds the kernel's own text.
  ASSERT_TRUE(FromKernel(CVDfarm_open(options_.farm.c_str(), 0)).ok());
  EXPECT_EQ(RunQopci("inspect --farm " + options_.farm).status, 0);
  r = RunQopci("copy --farm " + options_.farm + " --manifest " + manifest +
               " --generate 1 --verbose");
  CVDfarm_close();
  EXPECT_EQ(r.status, 1);
  const std::string why = "farm " + options_.farm + " is locked by another writer (process " +
                          std::to_string(getpid()) + ")";
  EXPECT_EQ(r.out + r.err,
            "qopci: " + why + "\nqopci: detail: MALException:CVDfarm_open:" + why + "\n");
  EXPECT_EQ(Values("x"), "t.x: 1");
}

TEST_F(CopyTest, ManifestAttributesAreCheckedAgainstTheTable) {
  const std::string c = R"("name": "id", "type": "int")";
  const std::string id = "manifest: column \"id\": attribute ";
  const struct {
    std::string head;  // members before "columns"
    std::string attrs;
    int status;
    std::string want;  // the whole output when refused; stderr on success
  } cases[] = {
      {"", R"("5": 1099511627776)", 1, id + "5 (tail file) must be a string, not a number"},
      {"", R"("2": "64")", 1, id + "2 (chunk size) must be a number, not a string"},
      {"", R"("34": 4294967296)", 1,
       id + "34 (queued writing) must be a 32-bit integer, not 4294967296"},
      {"", R"("3": 9)", 1, id + "3 (chunker type code) must be 0 to 8, not 9"},
      {"", R"("33": 6)", 1, id + "33 (source kind) must be 0 to 5, not 6"},
      {"", R"("2": 16777217)", 1, id + "2 (chunk size) must be 1 to 16777216, not 16777217"},
      {"", R"("38": 18446744073709551615)", 1, id + "\"38\" must fit in a 64-bit integer"},
      {R"("chunk_size": 2147483647,)", "", 1,
       "manifest: \"chunk_size\" must be 1 to 16777216, not 2147483647"},
      {"", R"("15": 7)", 1, id + "15 (level-number file) must be a string, not a number"},
      // A file the column's writer does not read passes, without a word.
      {"", R"("15": "/tmp/levels")", 0, ""},
  };
  for (const auto& k : cases) {
    const std::string manifest =
        WriteFile(dir_ + "/m.json", R"({"table": "t", )" + k.head + R"( "columns": [{)" + c +
                                        R"(, "attributes": {)" + k.attrs + "}}]}");
    const ToolRun r =
        RunQopci("copy --farm " + options_.farm + " --manifest " + manifest + " --generate 3");
    EXPECT_EQ(r.status, k.status) << k.attrs << r.err;
    if (k.status != 0)
      EXPECT_EQ(r.out + r.err, "qopci: " + k.want + "\n");
    else
      EXPECT_EQ(r.err, k.want);
  }
  EXPECT_EQ(Values("id"), "t.id: 0, 1, 2");  // only the accepted copy wrote
}

}  // namespace
}  // namespace qopci
