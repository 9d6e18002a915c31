// The copy command through the real plugin and kernel: what a farm holds after appends and
// replacements, read back through the kernel and through inspect.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>

#include "corvid/farm.h"
#include "tools/column_attributes.h"
#include "tools/copy_command.h"
#include "tools/inspect.h"
#include "tools/kernel_io.h"

namespace qopci {
namespace {

namespace fs = std::filesystem;

class CopyTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char tmpl[] = "/tmp/qopci_tool_copyXXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    dir_ = tmpl;
    options_.farm = dir_ + "/farm";
  }
  void TearDown() override {
    CVDfarm_fail_commit(-1);
    fs::remove_all(dir_);
  }

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
    Status s = PrintFarm(out, "t." + name, limit);
    CVDfarm_close();
    if (!s.ok()) return s.message();
    std::string text = out.str();
    size_t at = text.find("\nt." + name + ":");
    return at == std::string::npos ? text : text.substr(at + 1, text.find('\n', at + 1) - at - 1);
  }

  // Every file of the farm with its bytes.
  std::map<std::string, std::string> Files() {
    std::map<std::string, std::string> files;
    for (const auto& e : fs::recursive_directory_iterator(options_.farm)) {
      if (!e.is_regular_file()) continue;
      std::ifstream in(e.path(), std::ios::binary);
      std::ostringstream bytes;
      bytes << in.rdbuf();
      files[e.path().string()] = bytes.str();
    }
    return files;
  }

  std::string dir_;
  CopyOptions options_;
  std::ostringstream summary_;
};

TEST_F(CopyTest, AppendWithAnotherPrecisionIsRefusedAndChangesNothing) {
  const std::string price = R"j({"name": "price", "type": "decimal(9,2)"})j";
  ASSERT_TRUE(Copy(price, "price\n201.49\n-0.05\n").ok());
  const auto before = Files();
  Status s = Copy(R"j({"name": "price", "type": "decimal(10,2)"})j", "price\n1.00\n");
  EXPECT_EQ(s.message(),
            "column t.price is decimal(9,2) in the farm, the manifest asks for decimal(10,2); use "
            "--replace to change it");
  EXPECT_EQ(Files(), before);
  EXPECT_EQ(Values("price"), "t.price: 20149, -5");
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
  const std::string summary = summary_.str();
  EXPECT_NE(summary.find("t.a                      decimal(4,1)   replaced             2"),
            std::string::npos)
      << summary;
  EXPECT_NE(summary.find("t.b                      int            appended             5"),
            std::string::npos)
      << summary;
  EXPECT_EQ(Values("a"), "t.a: 15, -5");
  EXPECT_EQ(Values("b"), "t.b: 10, 20, 30, 40, 50");
  EXPECT_FALSE(fs::exists(old_tail)) << old_tail;

  // --replace replaces every column.
  ASSERT_TRUE(Copy(new_columns, "a,b\n9.9,60\n", /*replace=*/true).ok());
  EXPECT_EQ(Values("a"), "t.a: 99");
  EXPECT_EQ(Values("b"), "t.b: 60");
}

}  // namespace
}  // namespace qopci
