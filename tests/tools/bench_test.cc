#include <gtest/gtest.h>

#include <CLI/CLI.hpp>
#include <cstring>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <sstream>

#include "corvid/farm.h"
#include "tests/support/temp_dir.h"
#include "tools/bench_command.h"
#include "tools/kernel_io.h"

namespace qopci {
namespace {

TEST(BenchColumnsTest, SpecsAndTheirErrors) {
  struct Case {
    std::string spec;
    bool all_random;
    std::string types;   // EncodingName of each column, comma-joined; empty on error
    std::string random;  // '1' per random column
    std::string error;   // expected error text
  } cases[] = {
      {kDefaultBenchColumns, false, "int,bigint,double,decimal(9,2),timestamp", "00000", ""},
      {"int:random,decimal(18,4):random,timestamp", false, "int,decimal(18,4),timestamp", "110",
       ""},
      {"smallint,rowid,double", true, "smallint,rowid,double", "101", ""},
      {"int,foo", false, "", "",
       "--columns item 2 \"foo\": unknown type \"foo\" (known: tinyint, smallint, int, bigint, "
       "double, decimal(p,s), timestamp, rowid, serial, string, and their SQL aliases)"},
      {"int:fast", false, "", "",
       "--columns item 1 \"int:fast\": only \":random\" may follow a type"},
      {"rowid:random", false, "", "",
       "--columns item 1 \"rowid:random\": row ids are made by the export and cannot be random"},
      {"decimal(19,2)", false, "", "",
       "--columns item 1 \"decimal(19,2)\": decimal precision must be 1 to 18, got 19"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.spec);
    BenchColumns cols;
    Status s = ParseBenchColumns(c.spec, c.all_random, 1000, true, &cols);
    if (!c.error.empty()) {
      EXPECT_EQ(s.message(), c.error);
      continue;
    }
    ASSERT_TRUE(s.ok()) << s.message();
    std::string types, random;
    for (size_t k = 0; k < cols.manifest.columns.size(); ++k) {
      types += (k ? "," : "") + EncodingName(cols.manifest.columns[k]);
      random += cols.random[k] ? '1' : '0';
      EXPECT_EQ(cols.manifest.columns[k].name, "c" + std::to_string(k + 1));
    }
    EXPECT_EQ(types, c.types);
    EXPECT_EQ(random, c.random);
    EXPECT_EQ(cols.manifest.chunk_size, 1000);
    EXPECT_FALSE(cols.manifest.queued);
  }
}

TEST(BenchOptionsTest, CommandLines) {
  struct Case {
    std::vector<std::string> args;
    bool parses;
    std::string check_error;  // CheckBenchOptions' text, empty when the options are fine
  } cases[] = {
      {{"bench", "--rows", "1000", "--runs", "3", "--sync", "--json"}, true, ""},
      {{"bench", "--queued", "--chunk-size", "512"}, true, ""},
      {{"bench", "--queued", "--sync"}, false, ""},
      {{"bench", "--rows", "many"}, false, ""},
      {{"bench", "--rows", "0"}, true, "--rows must be 1 to 2147483647"},
      {{"bench", "--rows", "3000000000"}, true, "--rows must be 1 to 2147483647"},
      {{"bench", "--runs", "0"}, true, "--runs must be at least 1"},
      {{"bench", "--chunk-size", "0"}, true, "--chunk-size must be at least 1"},
      {{"bench", "--chunk-size", "16777217"}, true, "--chunk-size must be at most 16777216"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.args[1]);
    CLI::App app;
    BenchOptions o;
    AddBenchCommand(&app, &o);
    std::vector<std::string> reversed(c.args.rbegin(), c.args.rend());  // CLI11 takes it so
    bool parsed = true;
    try {
      app.parse(reversed);
    } catch (const CLI::ParseError&) {
      parsed = false;
    }
    ASSERT_EQ(parsed, c.parses);
    if (parsed) {
      EXPECT_EQ(CheckBenchOptions(o).message(), c.check_error);
    }
    if (&c == &cases[0]) {  // its values reach their options
      EXPECT_TRUE(o.rows == 1000 && o.runs == 3 && o.sync && o.json);
    }
  }
}

TEST(BenchReportTest, EachFigureIsTheMedianOfItsRuns) {
  // Three runs of 1000 rows, 8000 bytes each; the medians come from different runs.
  const std::vector<BenchRun> runs = {{2.0, 0.5, 0.4, 8000, 0.2, 1.0},
                                      {1.0, 0.3, 0.2, 8000, 0.4, 2.0},
                                      {4.0, 0.1, 0.1, 8000, 0.1, 4.0}};
  const BenchSummary s = Summarize(runs, 1000);
  EXPECT_EQ(s.seconds, (std::vector<double>{2.0, 1.0, 4.0}));
  EXPECT_DOUBLE_EQ(s.rows_per_s, 500.0);
  EXPECT_DOUBLE_EQ(s.bytes_per_s, 4000.0);
  EXPECT_DOUBLE_EQ(s.baseline_bytes_per_s, 40000.0);
  EXPECT_DOUBLE_EQ(s.baseline_fsync_bytes_per_s, 4000.0);
  EXPECT_DOUBLE_EQ(s.ratio, 0.1);  // per run 0.1, 0.4, 0.025
  EXPECT_DOUBLE_EQ(s.commit_s, 0.3);
  EXPECT_DOUBLE_EQ(s.commit_flush_s, 0.2);
  EXPECT_DOUBLE_EQ(Median({3, 1, 4, 2}), 2.5);
}

TEST(BenchRowsTest, RandomColumnsAreSeededAndInRange) {
  BenchColumns cols;
  ASSERT_TRUE(ParseBenchColumns("int:random,decimal(4,1):random,timestamp,bigint:random", false, 64,
                                false, &cols)
                  .ok());
  ResultData a, b, plain;
  ASSERT_TRUE(GenerateBenchRows(cols, 5000, &a).ok());
  ASSERT_TRUE(GenerateBenchRows(cols, 5000, &b).ok());
  ASSERT_TRUE(GenerateRows(cols.manifest, 5000, &plain).ok());
  ASSERT_EQ(a.columns.size(), 4u);
  for (size_t k = 0; k < 4; ++k) {
    EXPECT_EQ(a.columns[k].values, b.columns[k].values) << "column " << k;
    EXPECT_EQ(a.columns[k].values == plain.columns[k].values, !cols.random[k]) << "column " << k;
  }
  const auto* ints = reinterpret_cast<const int32_t*>(a.columns[0].values.data());
  const auto* decimals = reinterpret_cast<const int64_t*>(a.columns[1].values.data());
  const auto* bigints = reinterpret_cast<const int64_t*>(a.columns[3].values.data());
  int negative = 0;
  for (int r = 0; r < 5000; ++r) {
    EXPECT_NE(ints[r], INT32_MIN);
    EXPECT_NE(bigints[r], INT64_MIN);
    EXPECT_LT(decimals[r], 10000);
    EXPECT_GT(decimals[r], -10000);
    negative += decimals[r] < 0;
  }
  EXPECT_GT(negative, 1000);  // the whole signed range is used, not only one side of it
}

TEST(BenchRunTest, ExportsEveryRowAndReportsJson) {
  qopci_test::TempDir tmp("qopci_bench");
  const std::string& dir = tmp.path();
  BenchOptions o;
  o.rows = 3000;
  o.runs = 2;
  o.columns = "int,decimal(9,2):random,rowid";
  o.chunk_size = 1000;
  o.dir = dir;
  o.json = true;
  std::ostringstream out, log;
  Status s = RunBench(o, out, log);
  ASSERT_TRUE(s.ok()) << s.message();
  nlohmann::json j = nlohmann::json::parse(out.str());
  EXPECT_EQ(j["rows"], 3000);
  EXPECT_EQ(j["seconds"].size(), 2u);
  EXPECT_EQ(j["result_bytes"], 3000 * 12);
  EXPECT_NE(log.str().find("run 2: "), std::string::npos) << log.str();
  // Only the last run's farm is kept; it holds every row, its tails cut to their values.
  EXPECT_FALSE(std::filesystem::exists(dir + "/run-1"));
  ASSERT_TRUE(FromKernel(CVDfarm_open((dir + "/run-2/farm").c_str(), 0)).ok());
  for (const char* name : {"bench.c1", "bench.c2", "bench.c3"}) {
    bat id = CVDbat_lookup(name);
    ASSERT_NE(id, 0) << name;
    EXPECT_EQ(BBPgetdesc(id)->batCount, 3000u) << name;
    char path[4096];
    ASSERT_NE(CVDbat_filename(id, "tail", path, sizeof path), nullptr);
    EXPECT_EQ(std::filesystem::file_size(path), 3000u * 4) << name;  // decimal(9,2): 4 bytes
  }
  CVDfarm_close();

  o.dir = "/proc/qopci-bench";  // nothing can be made there
  s = RunBench(o, out, log);
  EXPECT_NE(s.message().find("run 1: cannot make /proc/qopci-bench/run-1"), std::string::npos)
      << s.message();
}

}  // namespace
}  // namespace qopci
