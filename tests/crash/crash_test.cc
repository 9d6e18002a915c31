// Real `qopci copy` processes killed with SIGKILL at random moments, and two copies that
// meet on one farm. After every kill the farm must open at its previous commit or at the
// new one: every column holds the same number of rows, that number is one of the two, and
// every value is the one the generator made for its row.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <numeric>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "corvid/farm.h"
#include "corvid/gdk.h"
#include "corvid/mtime.h"
#include "tests/support/temp_dir.h"

namespace qopci_test {
namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

// Column names and types of the manifest; the generator makes row i of a copy as
// int i, bigint 7i, decimal i mod 100000 (in hundredths), timestamp 2013-01-01 + i s.
const char* const kColumns[] = {"i", "b", "d", "ts"};

struct Child {
  pid_t pid = -1;
  std::string err_file;
};

// Starts qopci with `args`; its standard error goes to err_file.
Child Spawn(const std::vector<std::string>& args, const std::string& err_file) {
  Child c;
  c.err_file = err_file;
  c.pid = fork();
  if (c.pid == 0) {
    FILE* out = std::freopen("/dev/null", "w", stdout);
    FILE* err = std::freopen(err_file.c_str(), "w", stderr);
    (void)out;
    (void)err;
    std::vector<char*> argv;
    argv.push_back(const_cast<char*>(QOPCI_TOOL_PATH));
    for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    execv(QOPCI_TOOL_PATH, argv.data());
    _exit(127);
  }
  return c;
}

int Wait(const Child& c) {
  int status = 0;
  waitpid(c.pid, &status, 0);
  return status;
}

class CrashTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_FALSE(dir_.empty());
    manifest_ = WriteFile(dir_ + "/m.json", R"json({"table": "t", "chunk_size": 4096, "columns": [
        {"name": "i", "type": "int"}, {"name": "b", "type": "bigint"},
        {"name": "d", "type": "decimal(9,2)"}, {"name": "ts", "type": "timestamp"}]})json");
  }

  std::vector<std::string> Copy(const std::string& farm, uint64_t rows, bool sync) {
    std::vector<std::string> a = {"copy", "--farm", farm, "--manifest", manifest_,
                                  "--generate", std::to_string(rows)};
    if (sync) a.push_back("--sync");
    return a;
  }

  // Opens the farm as a reader and checks it against the commits it may hold: each
  // candidate lists the row counts of the copies that built it, in order. Every column must
  // hold the rows of one candidate, and each value must be the one its copy generated for
  // it. Returns the index of that candidate, or -1 after a failed expectation.
  int Check(const std::string& farm, const std::vector<std::vector<uint64_t>>& candidates) {
    if (!fs::exists(farm)) {  // killed before it made the directory: no commit at all
      if (candidates[0].empty()) return 0;
      ADD_FAILURE() << farm << " is gone";
      return -1;
    }
    char* err = CVDfarm_open(farm.c_str(), CVD_FARM_READONLY);
    if (err != nullptr) {
      ADD_FAILURE() << "farm does not open: " << err;
      GDKfree(err);
      return -1;
    }
    int which = -1;
    bool ok = true;
    const int32_t day0 = cvd_date_days(2013, 1, 1);
    for (const char* col : kColumns) {
      const std::string name = std::string("t.") + col;
      const bat id = CVDbat_lookup(name.c_str());
      BAT* b = id != 0 ? BBPdescriptor(id) : nullptr;
      if (id != 0 && b == nullptr) {
        ADD_FAILURE() << name << " does not load";
        ok = false;
        break;
      }
      const uint64_t n = b != nullptr ? b->batCount : 0;  // no commit yet: no column at all
      int match = -1;
      for (size_t k = 0; k < candidates.size() && match < 0; k++)
        if (std::accumulate(candidates[k].begin(), candidates[k].end(), uint64_t{0}) == n)
          match = static_cast<int>(k);
      if (match < 0 || (which >= 0 && match != which)) {
        ADD_FAILURE() << name << " holds " << n << " rows, which is no commit of this farm";
        ok = false;
        if (b != nullptr) BBPreleaseref(id);
        break;
      }
      which = match;
      const std::vector<uint64_t>& batches = candidates[match];
      // Row r belongs to the copy that covers it; the generator's index restarts per copy.
      uint64_t start = 0;
      size_t batch = 0;
      for (uint64_t r = 0; r < n && ok; r++) {
        while (batch < batches.size() && r >= start + batches[batch]) start += batches[batch++];
        const int64_t i = static_cast<int64_t>(r - start);
        const void* v = BUNtail(b, r);
        const int64_t got = b->twidth == 4 ? *static_cast<const int*>(v)
                                           : *static_cast<const lng*>(v);
        int64_t want;
        switch (col[0]) {
          case 'i': want = i; break;
          case 'b': want = 7 * i; break;
          case 'd': want = i % 100000; break;
          default:
            want = cvd_timestamp(day0 + static_cast<int32_t>(i / 86400),
                                 static_cast<int32_t>(i % 86400) * 1000);
        }
        if (got != want) {
          ADD_FAILURE() << name << " row " << r << " holds " << got << ", expected " << want;
          ok = false;
        }
      }
      if (b != nullptr) BBPreleaseref(id);
    }
    CVDfarm_close();
    return ok ? which : -1;
  }

  TempDir tmp_{"qopci-crash-"};
  const std::string dir_ = tmp_.path();
  std::string manifest_;
};

TEST_F(CrashTest, KilledCopiesLeaveThePreviousOrTheNewCommit) {
  std::mt19937 rng(20261123);
  const auto deadline = Clock::now() + std::chrono::seconds(45);
  int farms = 0, kills = 0, committed = 0, rounds = 0, replaces = 0;
  std::string farm;
  std::vector<uint64_t> batches;  // rows of each copy the farm's last commit holds
  double full_s = 0.05;           // the time of an uninterrupted copy, learnt as we go
  while (Clock::now() < deadline && rounds < 400) {
    if (rounds++ % 12 == 0) {  // now and then a fresh farm, to kill its first commit too
      farm = dir_ + "/farm" + std::to_string(farms++);
      batches.clear();
    }
    const uint64_t rows = 1 + rng() % (rng() % 3 == 0 ? 200000 : 3000);
    const bool replace = !batches.empty() && rng() % 4 == 0;
    std::vector<std::string> args = Copy(farm, rows, rng() % 2 == 0);
    if (replace) args.push_back("--replace");
    const bool kill_it = rng() % 5 != 0;
    const auto start = Clock::now();
    Child c = Spawn(args, dir_ + "/err");
    if (kill_it) {
      std::uniform_real_distribution<double> at(0, full_s * 1.3);
      std::this_thread::sleep_for(std::chrono::duration<double>(at(rng)));
      kill(c.pid, SIGKILL);
    }
    const int status = Wait(c);
    if (kill_it && WIFSIGNALED(status)) {
      kills++;
    } else {
      full_s = std::chrono::duration<double>(Clock::now() - start).count();
      ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << ReadFile(dir_ + "/err");
    }
    std::vector<uint64_t> next = replace ? std::vector<uint64_t>{} : batches;
    next.push_back(rows);
    const int which = Check(farm, {batches, next});
    ASSERT_GE(which, 0) << "round " << rounds << ", farm " << farm;
    if (which == 1) {
      batches = next;
      committed++;
      replaces += replace;
    }
  }
  std::printf("%d copies into %d farms, %d killed, %d committed (%d replacing), every farm "
              "reopened at a commit with its counts and values right\n",
              rounds, farms, kills, committed, replaces);
  EXPECT_GT(kills, 10);
}

// Two copies appending to one farm at once: a copy that finds the farm locked fails with a
// message naming the farm and changes nothing; no committed row is lost.
TEST_F(CrashTest, ConcurrentWritersLoseNoRows) {
  const std::string farm = dir_ + "/farm";
  ASSERT_EQ(Wait(Spawn(Copy(farm, 10, false), dir_ + "/err0")), 0);
  const uint64_t rows = 400000;
  Child a = Spawn(Copy(farm, rows, false), dir_ + "/erra");
  std::this_thread::sleep_for(std::chrono::milliseconds(30));
  Child b = Spawn(Copy(farm, rows, false), dir_ + "/errb");
  const int sa = Wait(a), sb = Wait(b);
  std::vector<uint64_t> batches = {10};
  for (auto [status, err] : {std::pair{sa, dir_ + "/erra"}, std::pair{sb, dir_ + "/errb"}}) {
    ASSERT_TRUE(WIFEXITED(status)) << ReadFile(err);
    if (WEXITSTATUS(status) == 0) {
      batches.push_back(rows);
    } else {
      EXPECT_NE(ReadFile(err).find("locked"), std::string::npos) << ReadFile(err);
      EXPECT_NE(ReadFile(err).find(farm), std::string::npos) << ReadFile(err);
    }
  }
  EXPECT_GE(batches.size(), 2u);
  EXPECT_EQ(Check(farm, {batches}), 0);
}

}  // namespace
}  // namespace qopci_test
