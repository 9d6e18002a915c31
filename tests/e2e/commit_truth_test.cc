// What a commit states must hold: property flags that agree with the values read back, and
// an export that fails leaves the farm, on disk and in memory, at its previous commit.
#include <algorithm>
#include <random>
#include <string>
#include <vector>

#include "tests/e2e/e2e_fixture.h"
#include "writers/mmf/mmf_fault.h"

namespace qopci_test {
namespace {

class CommitTruthTest : public FarmTest {
 public:
  // Flags of a committed BAT (as the reopened catalog states them) against its values in
  // the host's order.
  void ExpectFlagsHold(const char* name) {
    SCOPED_TRACE(name);
    bat id = CVDbat_lookup(name);
    ASSERT_NE(id, 0);
    const BAT claimed = *BBPgetdesc(id);  // before loading can change anything
    BAT* b = BBPdescriptor(id);
    ASSERT_NE(b, nullptr);
    const int t = b->ttype;
    bool sorted = true, revsorted = true, key = true, nonil = true;
    std::vector<const void*> seen;
    alignas(8) unsigned char prev[8];
    for (BUN i = 0; i < b->batCount; i++) {
      const void* v = BUNtail(b, i);
      if (ATOMcmp(t, v, ATOMnil(t)) == 0) nonil = false;
      if (i > 0) {
        int c = ATOMcmp(t, prev, v);
        sorted = sorted && c <= 0;
        revsorted = revsorted && c >= 0;
      }
      std::memcpy(prev, v, ATOMsize(t));
    }
    for (BUN i = 0; i < b->batCount && key; i++)
      for (BUN j = i + 1; j < b->batCount && key; j++)
        key = ATOMcmp(t, BUNtail(b, i), BUNtail(b, j)) != 0;
    EXPECT_TRUE(!claimed.tsorted || sorted);
    EXPECT_TRUE(!claimed.trevsorted || revsorted);
    EXPECT_TRUE(!claimed.tkey || key);
    EXPECT_TRUE(!claimed.tnonil || nonil);
    BBPreleaseref(id);
  }

  // Exports `values` (host type `type`, simple type `code`) behind what `name` holds.
  template <typename T>
  std::string Append(const char* name, int type, int code, const std::vector<T>& values) {
    bat target = CVDbat_lookup(name);
    if (target == 0) target = Target(name, type);
    Fixed(name, target, code, true, 5);
    return Export(Result({{name, Column<T>(type, values)}}, DenseOrder(values.size())));
  }

  // Rounds of appends whose values are ascending within each round, so that a column is
  // sorted only when every round starts at or above the last value before it; some rounds
  // hold a nil. After every round the reopened farm's flags must agree with its values.
  template <typename T>
  void RandomRounds(int type, int code, T nil, unsigned seed) {
    SCOPED_TRACE(std::string("type ") + ATOMname(type) + " seed " + std::to_string(seed));
    std::mt19937 rng(seed);
    const std::string name = std::string("r") + ATOMname(type) + std::to_string(seed);
    for (int round = 0; round < 5; round++) {
      std::vector<T> values(1 + rng() % 12);
      for (T& v : values) v = static_cast<T>(static_cast<int>(rng() % 100) - 50);
      std::sort(values.begin(), values.end());
      if (rng() % 4 == 0) values[rng() % values.size()] = nil;
      ASSERT_EQ(Append(name.c_str(), type, code, values), "");
      Reopen();
      ExpectFlagsHold(name.c_str());
    }
  }
};

TEST_F(CommitTruthTest, FlagsAgreeWithTheValuesAfterFirstExportsAndAppends) {
  // The case that used to be stated sorted: 5, 1 then 1, 2.
  ASSERT_EQ(Append<int>("x", TYPE_int, 0, {5, 1}), "");
  ASSERT_EQ(Append<int>("x", TYPE_int, 0, {1, 2}), "");
  Reopen();
  ExpectFlagsHold("x");
  // Sorted rounds that continue below the last value, and ones that continue above it.
  ASSERT_EQ(Append<lng>("y", TYPE_lng, 6, {1, 2, 3}), "");
  ASSERT_EQ(Append<lng>("y", TYPE_lng, 6, {3, 4}), "");
  Reopen();
  EXPECT_TRUE(BBPgetdesc(CVDbat_lookup("y"))->tsorted);  // 1, 2, 3, 3, 4 is still sorted
  ASSERT_EQ(Append<lng>("y", TYPE_lng, 6, {2}), "");
  Reopen();
  EXPECT_FALSE(BBPgetdesc(CVDbat_lookup("y"))->tsorted);
  // The decimal chunker keeps no statistics and states every column sorted; the host's
  // commit must not believe it.
  bat dx = Target("dx", TYPE_lng);
  Decimal("dx", dx, 9, 2);
  ASSERT_EQ(Export(Result({{"dx", Column<lng>(TYPE_lng, {5, 1})}}, DenseOrder(2))), "");
  Reopen();
  ExpectFlagsHold("dx");
  for (unsigned seed = 1; seed <= 6; seed++) {
    RandomRounds<bte>(TYPE_bte, 2, bte_nil, seed);
    RandomRounds<sht>(TYPE_sht, 4, sht_nil, seed);
    RandomRounds<int>(TYPE_int, 0, int_nil, seed);
    RandomRounds<lng>(TYPE_lng, 6, lng_nil, seed);
    RandomRounds<dbl>(TYPE_dbl, 8, dbl_nil, seed);
  }
}

// Every way an export can fail after some column was written leaves the farm where it was,
// in memory as on disk: here column "b" fails in the descriptor step, after "a" was
// rewritten, a writer's attributes contradict its BAT before anything is written, or the
// host's commit fails after both columns were written.
TEST_F(CommitTruthTest, AFailedExportCommitsNothing) {
  struct Case {
    std::string name;
    void (*setup)(CommitTruthTest*, bat a, bat b);
    std::string error;
  };
  const std::vector<Case> cases = {
      {"element size of the second column",
       [](CommitTruthTest* t, bat a, bat b) { t->Fixed("a", a, 0); t->Fixed("b", b, 6); },
       "UpdateBBPWithGo(): b: Chunker element size 8 is different from BAT element size 4 of "
       "type int"},
      {"append behind fewer rows than the BAT holds",
       [](CommitTruthTest* t, bat a, bat b) {
         t->Fixed("a", a, 0);
         t->Fixed("b", b, 0);
         t->AttrLng("b", 38, 0);
       },
       "CIManager::CopyIntoOneColumn(): b: Existing count 0 of file B differs from the 1 rows "
       "of its BAT"},
      {"write anew over committed rows",
       [](CommitTruthTest* t, bat a, bat b) {
         t->Fixed("a", a, 0);
         t->Fixed("b", b, 0);
         t->AttrInt("b", 6, 0);
         t->AttrLng("b", 38, 0);
       },
       "CIManager::CopyIntoOneColumn(): b: Writing file B anew would destroy the 1 rows of its "
       "BAT"},
      {"write anew behind a hole",
       [](CommitTruthTest* t, bat a, bat b) {
         t->Fixed("a", a, 0);
         t->Fixed("b", b, 0);
         t->AttrInt("b", 6, 0);
       },
       "CIManager::CopyIntoOneColumn(): b: Existing count 1 of file B given to a writer that "
       "writes anew"},
      {"the host's commit fails",
       [](CommitTruthTest* t, bat a, bat b) {
         t->Fixed("a", a, 0);
         t->Fixed("b", b, 0, false);
         CVDfarm_fail_commit(1);
       },
       "CIManager::UpdateBBP(): : Commit failed"},
  };
  bat a = Target("a", TYPE_int), b = Target("b", TYPE_int);
  Fixed("a", a, 0);
  Fixed("b", b, 0);
  ASSERT_EQ(Export(Result({{"a", Column<int>(TYPE_int, {7})}, {"b", Column<int>(TYPE_int, {8})}},
                          DenseOrder(1))),
            "");
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    a = CVDbat_lookup("a");
    b = CVDbat_lookup("b");
    std::string expected = c.error;
    for (size_t at; (at = expected.find("file B")) != std::string::npos;)
      expected.replace(at, 6, "file " + TailFile(b));
    c.setup(this, a, b);
    int id = Result({{"a", Column<int>(TYPE_int, {1, 2})}, {"b", Column<int>(TYPE_int, {3, 4})}},
                    DenseOrder(2));
    EXPECT_EQ(Export(id), expected);
    CVDfarm_fail_commit(-1);
    // In memory: the descriptors are the committed ones again.
    EXPECT_EQ(BBPgetdesc(a)->batCount, 1u);
    EXPECT_EQ(BBPgetdesc(b)->batCount, 1u);
    EXPECT_EQ(Read<int>("a"), std::vector<int>{7});
    Reopen();
    EXPECT_EQ(Read<int>("a"), std::vector<int>{7});
    EXPECT_EQ(Read<int>("b"), std::vector<int>{8});
  }
}

// Fails each system call of the mapped-file layer in turn, in an export of two columns (one
// queued, one written on the calling thread) into new BATs and then appending to them:
// every failure is reported, and the reopened farm holds its previous commit.
TEST_F(CommitTruthTest, AFileFaultAtAnyCallLeavesThePreviousCommit) {
  std::vector<int> expected_a, expected_b;
  int failures = 0;
  for (int round = 0; round < 2; round++) {
    for (int n = 1;; n++) {
      SCOPED_TRACE("round " + std::to_string(round) + ", failing call " + std::to_string(n));
      bat a = CVDbat_lookup("a"), b = CVDbat_lookup("b");
      if (a == 0) a = Target("a", TYPE_int);
      if (b == 0) b = Target("b", TYPE_int);
      Fixed("a", a, 0, true, 3);
      Fixed("b", b, 0, false, 3);
      const std::vector<int> va = {1, 2, 3, 4, 5}, vb = {6, 7, 8, 9, 10};
      int id = Result({{"a", Column<int>(TYPE_int, va)}, {"b", Column<int>(TYPE_int, vb)}},
                      DenseOrder(5));
      qopci::MMFInjectFailure(n, ENOSPC);
      std::string err = Export(id);
      const bool hit = qopci::MMFSystemCallCount() >= static_cast<uint64_t>(n);
      qopci::MMFInjectFailure(0, 0);
      if (err.empty()) {
        expected_a.insert(expected_a.end(), va.begin(), va.end());
        expected_b.insert(expected_b.end(), vb.begin(), vb.end());
      } else {
        failures++;
        EXPECT_NE(err.find("Can't insert chunk to file"), std::string::npos) << err;
      }
      Reopen();
      // New BATs join the farm with the export's commit, or not at all.
      for (auto [name, expected] : {std::pair{"a", &expected_a}, std::pair{"b", &expected_b}})
        if (expected->empty())
          EXPECT_EQ(CVDbat_lookup(name), 0) << name;
        else
          EXPECT_EQ(Read<int>(name), *expected) << name;
      if (!hit) break;  // the export made fewer calls than n: every call has failed once
    }
  }
  EXPECT_GT(failures, 10);
}

}  // namespace
}  // namespace qopci_test
