// Dictionary-coded columns through the copy command, the real plugin and kernel: created,
// appended (codes kept, new ones continue), replaced, read back decoded; failed commits,
// persistent stores (made, reused, repaired, unusable) and the code limits.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>

#include "corvid/farm.h"
#include "dictionaries/dict_store.h"
#include "tests/support/temp_dir.h"
#include "tools/copy_command.h"
#include "tools/dict_store_prep.h"
#include "tools/dict_target.h"
#include "tools/inspect.h"
#include "tools/kernel_io.h"
#include "tools/row_view.h"
#include "tools/verify.h"

namespace qopci {
namespace {

class DictionaryCopyTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_NE(tmp_.path(), "");
    options_.farm = tmp_.path() + "/farm";
  }
  void TearDown() override { CVDfarm_fail_commit(-1); }

  // One copy of `csv` (header "v") into t.v, the column given as JSON members.
  Status Copy(const std::string& column, const std::string& csv, bool replace = false) {
    Manifest m;
    Status s = ParseManifest(R"({"table": "t", "columns": [{"name": "v", )" + column + "}]}", &m);
    if (s.ok()) s = ResolveModes(&m, replace);
    // A one-column CSV cannot hold an empty field (an empty line is skipped): "NULL" is nil.
    std::istringstream in("v\n" + csv);
    ResultData data;
    CsvOptions null_word;
    null_word.null_text = "NULL";
    if (s.ok()) s = LoadCsv(m, &in, nullptr, &data, null_word);
    summary_.str("");
    return s.ok() ? CopyResult(m, &data, options_, summary_) : s;
  }

  // t's rows as inspect prints them as CSV, without the header.
  std::string Rows() {
    if (!FromKernel(CVDfarm_open(options_.farm.c_str(), CVD_FARM_READONLY)).ok()) return "?";
    std::ostringstream out;
    RowViewOptions o;
    o.table = "t";
    o.limit = kAllRows;
    o.format = RowFormat::kCsv;
    Status s = PrintRows(out, o);
    CVDfarm_close();
    const std::string text = s.ok() ? out.str() : s.message();
    return text.substr(text.find('\n') + 1);
  }

  // The catalog as inspect lists it.
  std::string Catalog() {
    if (!FromKernel(CVDfarm_open(options_.farm.c_str(), CVD_FARM_READONLY)).ok()) return "?";
    std::ostringstream out;
    Status s = PrintFarm(out, {}, 0);
    CVDfarm_close();
    return s.ok() ? out.str() : s.message();
  }

  // Key -> code of t.v's dictionary, and the row counts of its three BATs.
  std::map<std::string, int64_t> Dictionary(std::string* counts = nullptr) {
    std::map<std::string, int64_t> dict;
    if (!FromKernel(CVDfarm_open(options_.farm.c_str(), CVD_FARM_READONLY)).ok()) return dict;
    std::vector<DictEntry> entries;
    const bat keys = CVDbat_lookup("t.v.dict"), codes = CVDbat_lookup("t.v.dict_codes");
    if (keys != 0 && codes != 0 && ReadDictionary(keys, codes, &entries).ok())
      for (const DictEntry& e : entries) dict[e.key] = e.code;
    if (counts != nullptr) {
      *counts = "";
      for (const char* n : {"t.v", "t.v.dict", "t.v.dict_codes"}) {
        const BAT* b = BBPgetdesc(CVDbat_lookup(n));
        *counts += (counts->empty() ? "" : "/") + (b ? std::to_string(b->batCount) : "-");
      }
    }
    CVDfarm_close();
    return dict;
  }

  // Key -> code of the store at dir.
  static std::map<std::string, int64_t> Store(const std::string& dir) {
    std::map<std::string, int64_t> entries;
    DictStore store;
    std::string error;
    if (store.Open(dir.c_str()))
      DictStoreForEach(
          &store,
          [&](std::string_view key, uint32_t code) {
            entries[std::string(key)] = code;
            return true;
          },
          &error);
    store.Close();
    return entries;
  }

  std::string FarmStore() const { return options_.farm + "/stores/t.v"; }

  qopci_test::TempDir tmp_{"qopci_tool_dict"};
  CopyOptions options_;
  std::ostringstream summary_;
};

// Rows as inspect prints them as CSV: a nil is an empty field.
std::string Shown(const std::string& rows) {
  std::string out;
  std::istringstream in(rows);
  for (std::string line; std::getline(in, line);) out += (line == "NULL" ? "" : line) + "\n";
  return out;
}

// Every dictionary type: created, appended (old codes kept, new ones behind them), replaced;
// nil rows read back as nil and take no entry.
TEST_F(DictionaryCopyTest, CreatedAppendedReplacedAndReadBackDecoded) {
  const struct {
    std::string column;
    std::string first, second, third;  // CSV rows: what inspect prints of them, NULL for nil
    std::string type;                   // in the summary
  } cases[] = {
      {R"("type": "int", "encoding": "dictionary")", "7\n-3\nNULL\n7\n", "-3\n9\nNULL\n", "5\n5\n",
       "int dictionary"},
      {R"("type": "tinyint", "encoding": "dictionary")", "1\nNULL\n1\n", "2\n1\n", "-5\n",
       "tinyint dictionary"},
      {R"("type": "smallint", "encoding": "dictionary")", "300\n300\n", "NULL\n-300\n", "1\n",
       "smallint dictionary"},
      {R"("type": "bigint", "encoding": "dictionary")", "9000000000\n1\n", "1\n2\n", "3\n",
       "bigint dictionary"},
      {R"("type": "double", "encoding": "dictionary")", "0.5\nNULL\n-2.25\n", "0.5\n1.5\n",
       "8\n", "double dictionary"},
      {R"("type": "string", "encoding": "dictionary")", "b\na\nNULL\nb\n", "a\nc\n\"\"\n", "z\n",
       "string dictionary"},
      {R"("type": "string", "encoding": "dictionary", "store": "leveldb")", "b\na\nNULL\nb\n",
       "A\nc\na\n", "z\nz\n", "string dictionary"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.column);
    std::filesystem::remove_all(options_.farm);
    auto distinct = [](const std::string& rows) {
      std::map<std::string, int> seen;
      std::istringstream in(rows);
      for (std::string line; std::getline(in, line);)
        if (line != "NULL") seen[line];
      return seen.size();
    };
    ASSERT_TRUE(Copy(c.column, c.first).ok());
    EXPECT_NE(summary_.str().find(c.type + "["), std::string::npos) << summary_.str();
    EXPECT_EQ(Rows(), Shown(c.first));
    const std::map<std::string, int64_t> first = Dictionary();
    EXPECT_EQ(first.size(), distinct(c.first));
    const std::string catalog = Catalog();  // one line for the column, with its size
    EXPECT_NE(catalog.find(" " + c.type + " "), std::string::npos) << catalog;
    EXPECT_NE(catalog.find("dictionary: " + std::to_string(first.size()) + " entries"),
              std::string::npos)
        << catalog;
    EXPECT_EQ(catalog.find("t.v.dict "), std::string::npos) << catalog;
    EXPECT_EQ(catalog.find("t.v.dict_codes "), std::string::npos) << catalog;
    for (const auto& [key, code] : first) EXPECT_TRUE(code >= 1 && code <= 3) << key;

    ASSERT_TRUE(Copy(c.column, c.second).ok());
    EXPECT_EQ(Rows(), Shown(c.first + c.second));
    std::string counts;
    const std::map<std::string, int64_t> second = Dictionary(&counts);
    EXPECT_EQ(second.size(), distinct(c.first + c.second)) << counts;
    for (const auto& [key, code] : first) EXPECT_EQ(second.at(key), code) << key;
    for (const auto& [key, code] : second)
      if (first.count(key) == 0) {
        EXPECT_GT(code, static_cast<int64_t>(first.size())) << key;
      }
    if (c.column.find("leveldb") != std::string::npos) {
      EXPECT_EQ(Store(FarmStore()), second);
    }

    ASSERT_TRUE(Copy(c.column, c.third, true).ok());
    EXPECT_NE(summary_.str().find("replaced"), std::string::npos);
    EXPECT_EQ(Rows(), Shown(c.third));
    EXPECT_EQ(Dictionary().size(), distinct(c.third));
    if (c.column.find("leveldb") != std::string::npos) {
      EXPECT_EQ(Store(FarmStore()), Dictionary());
    }
  }
}

// A commit that fails leaves the three BATs as they were (a string heap's hash area, which
// the append rewrote inside the committed bytes, is put back); the store, which gained the
// export's new entries, is repaired by the next copy before it codes anything.
TEST_F(DictionaryCopyTest, FailedCommitLeavesTheColumnAndTheStoreIsRepaired) {
  const struct {
    std::string column;
    bool store;
  } cases[] = {
      {R"("type": "string", "encoding": "dictionary", "store": "leveldb")", true},
      {R"("type": "string", "encoding": "dictionary")", false},
      {R"("type": "string")", false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.column);
    std::filesystem::remove_all(options_.farm);
    ASSERT_TRUE(Copy(c.column, "x\ny\nx\n").ok());
    std::string before, after;
    const auto dict = Dictionary(&before);
    for (int step : {0, 1, 2}) {
      SCOPED_TRACE(step);
      CVDfarm_fail_commit(step);
      EXPECT_EQ(Copy(c.column, "new1\nx\nnew2\n").message(),
                "CIManager::UpdateBBP(): : Commit failed");
      CVDfarm_fail_commit(-1);
      EXPECT_EQ(Dictionary(&after), dict);
      EXPECT_EQ(after, before);
      EXPECT_EQ(Rows(), "x\ny\nx\n");
      EXPECT_FALSE(std::filesystem::exists(StoreGuardFile(FarmStore())));
    }
    // The store held new1 and new2 under codes the farm never committed; they are gone, and
    // the next copy gives its own new strings the codes that follow the committed ones.
    ASSERT_TRUE(Copy(c.column, "new2\ny\n").ok());
    EXPECT_EQ(Rows(), "x\ny\nx\nnew2\ny\n");
    if (c.column.find("dictionary") == std::string::npos) continue;
    const auto now = Dictionary(&after);
    EXPECT_EQ(before, "3/2/2");
    EXPECT_EQ(after, "5/3/3");
    EXPECT_EQ(now.at("new2"), 3);
    if (!c.store) continue;
    EXPECT_EQ(Store(FarmStore()), now);
    std::ifstream guard(StoreGuardFile(FarmStore()));
    int64_t recorded = -1;
    guard >> recorded;
    EXPECT_EQ(recorded, 3);
  }
}

// A store directory that holds something else: the column is still exported, coded in
// memory from its dictionary files, and the summary says so; a store given by "store_dir"
// is made there and used.
TEST_F(DictionaryCopyTest, StoreDirectories) {
  const std::string other = tmp_.path() + "/other", own = tmp_.path() + "/mine/store";
  std::filesystem::create_directories(other);
  std::ofstream(other + "/notes.txt") << "not a store\n";
  std::filesystem::create_directories(tmp_.path() + "/mine");
  const struct {
    std::string dir;
    bool used;
  } cases[] = {{other, false}, {own, true}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.dir);
    std::filesystem::remove_all(options_.farm);
    const std::string column =
        R"("type": "string", "encoding": "dictionary", "store": "leveldb", "store_dir": ")" +
        c.dir + "\"";
    ASSERT_TRUE(Copy(column, "p\nq\n").ok());
    ASSERT_TRUE(Copy(column, "q\nr\nNULL\n").ok());
    EXPECT_EQ(Rows(), "p\nq\nq\nr\n\n");
    const auto dict = Dictionary();
    EXPECT_EQ(dict, (std::map<std::string, int64_t>{{"p", 1}, {"q", 2}, {"r", 3}}));
    EXPECT_NE(summary_.str().find(c.used ? "string dictionary[3] leveldb"
                                         : "string dictionary[3] in memory"),
              std::string::npos)
        << summary_.str();
    if (c.used) {
      EXPECT_EQ(Store(c.dir), dict);
    }
    EXPECT_FALSE(std::filesystem::exists(options_.farm + "/stores"));
  }
  EXPECT_TRUE(std::filesystem::exists(other + "/notes.txt"));
}

// Codes that would wrap are refused before anything is written; manifests that ask for a
// dictionary where there can be none are refused with the column's name.
TEST_F(DictionaryCopyTest, RefusalsAndCodeLimits) {
  std::string hundred, thirty;
  for (int i = 0; i < 100; ++i) hundred += std::to_string(i) + "\n";
  for (int i = 90; i < 127; ++i) thirty += std::to_string(i) + "\n";  // 27 of them new
  const std::string tiny = R"("type": "tinyint", "encoding": "dictionary")";
  ASSERT_TRUE(Copy(tiny, hundred).ok());
  const struct {
    std::string column, csv, want;
  } cases[] = {
      {tiny, thirty + "-1\n",
       "column t.v: its dictionary would hold 128 entries (100 kept, 28 new), more than the "
       "127 that tinyint dictionary codes can tell apart; nothing was written (use a wider "
       "type, or leave out \"encoding\": \"dictionary\")"},
      {R"j("type": "decimal(9,2)", "encoding": "dictionary")j", "1\n",
       "manifest: column \"v\": \"encoding\": \"dictionary\" is for int, smallint, tinyint, "
       "bigint, double and string columns, not decimal(9,2)"},
      {R"("type": "int", "encoding": "dictionary", "store": "leveldb")", "1\n",
       "manifest: column \"v\": \"store\": \"leveldb\" is for string columns with "
       "\"encoding\": \"dictionary\""},
      {R"("type": "int", "encoding": "packed")", "1\n",
       "manifest: column \"v\": unknown encoding \"packed\" (known: plain, dictionary)"},
      {R"("type": "int")", "1\n",
       "column t.v is tinyint dictionary in the farm, the manifest asks for int; use "
       "--replace to change it"},
  };
  for (const auto& c : cases) EXPECT_EQ(Copy(c.column, c.csv).message(), c.want);
  EXPECT_EQ(Copy(R"("type": "int")", "1\n", /*replace=*/true).message(),
            "column t.v is dictionary-coded; replacing it by a plain column would leave its "
            "dictionary t.v.dict behind: keep \"encoding\": \"dictionary\" or use a new column");
  EXPECT_EQ(Dictionary().size(), 100u);
  ASSERT_TRUE(Copy(tiny, thirty).ok());  // 127 entries: the last code that does not wrap
  EXPECT_EQ(Dictionary().at("126"), 127);

  // verify checks the three BATs like any other, and that every row code is in the
  // dictionary: a code appended by hand (sound files, committed) is a fault.
  std::ostringstream report;
  EXPECT_TRUE(RunVerify(options_.farm, report).ok()) << report.str();
  ASSERT_TRUE(FromKernel(CVDfarm_open(options_.farm.c_str(), 0)).ok());
  const bte stray = -100;
  EXPECT_TRUE(FromKernel(CVDbat_append(CVDbat_lookup("t.v"), &stray)).ok());
  EXPECT_EQ(TMcommit(), 0);
  CVDfarm_close();
  report.str("");
  EXPECT_EQ(RunVerify(options_.farm, report).message(), "farm " + options_.farm + " has 1 fault");
  EXPECT_NE(report.str().find("t.v: row 137 of column t.v holds code -100, which its "
                              "dictionary does not hold\n"),
            std::string::npos)
      << report.str();
}

}  // namespace
}  // namespace qopci
