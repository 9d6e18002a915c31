// Block checksums across appends: the kernel's own and those written underneath it as the
// copy-into library does, farms from before checksums, and damage an append must not hide.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "corvid/farm.h"
#include "tests/support/kernel_text.h"
#include "tests/support/temp_dir.h"

namespace fs = std::filesystem;
using qopci_test::ReadFile;
using qopci_test::Take;

namespace {

// The verify report of a closed farm, exception text first if any.
std::string Verify(const fs::path& dir) {
  char* report = nullptr;
  int faults = 0;
  std::string said = Take(CVDfarm_verify(dir.c_str(), &report, &faults));
  said += report ? report : "";
  GDKfree(report);
  return said;
}

// Appends rows first, first+1, ... to an int BAT's tail file and descriptor as the copy-into
// library does: behind the rows, underneath the kernel, the BAT marked rewritten.
void WriteUnderneath(bat id, int first, int n) {
  BAT* d = BBPgetdesc(id);
  BATfree(d);
  std::vector<int> rows(n);
  for (int i = 0; i < n; i++) rows[i] = first + i;
  char path[4096];
  std::fstream f(CVDbat_filename(id, "tail", path, sizeof path),
                 std::ios::in | std::ios::out | std::ios::binary);
  f.seekp(static_cast<std::streamoff>(d->theap.free));
  f.write(reinterpret_cast<const char*>(rows.data()), 4 * n);
  f.close();
  d->batCount += n;
  d->batCapacity = d->tailRows = d->batCount;
  d->theap.free = d->theap.size = 4 * d->batCount;
  d->batDirty = d->batDirtydesc = 1;
  d->batStatus |= BATSTATUS_REWRITTEN;
}

class SumsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(Take(CVDfarm_open(dir_.c_str(), CVD_FARM_CREATE)), "");
    ASSERT_EQ(Take(CVDbat_create(TYPE_int, "t.a", 0, &id_)), "");
    tail_ = dir_ / "bat/00/0001.tail";
  }
  void TearDown() override { CVDfarm_close(); }
  // Appends n rows continuing the column's values, by the kernel or underneath it.
  void Append(int n, bool underneath) {
    const int first = static_cast<int>(BBPgetdesc(id_)->batCount);
    if (underneath) return WriteUnderneath(id_, first, n);
    std::vector<int> rows(n);
    for (int i = 0; i < n; i++) rows[i] = first + i;
    ASSERT_EQ(Take(CVDbat_append_n(id_, rows.data(), n)), "");
  }
  std::string CommitAndVerify() {
    if (TMcommit() != 0) return "commit failed";
    CVDfarm_close();
    std::string said = Verify(dir_);
    std::string err = Take(CVDfarm_open(dir_.c_str(), 0));
    return err.empty() ? said : err;
  }
  qopci_test::TempDir tmp_{"corvid_sums_"};
  const fs::path dir_ = tmp_.path() + "/farm";
  fs::path tail_;
  bat id_ = 0;
};

TEST_F(SumsTest, AppendsExtendTheSumsAndVerifyPasses) {
  const struct {
    int rows;
    bool underneath;
    int blocks;  // of the tail after the commit
  } steps[] = {
      {10000, false, 1},                      // a partial first block
      {20000, true, 2},                       // starts inside it
      {3, false, 2},        {2765, true, 2},  // ends exactly on a block boundary (131072 bytes)
      {1, true, 3},                           // starts on one
      {50000, false, 6},    {7, true, 6},
      {1100000, false, 73},  // enough blocks for the commit's helper thread to join in
      {7, false, 73},        // into a heap loaded as a mapping, which the kernel makes its own
      {5, true, 73},
  };
  int rows = 0;
  for (const auto& s : steps) {
    SCOPED_TRACE(std::to_string(s.rows) + (s.underneath ? " rows underneath" : " rows"));
    Append(s.rows, s.underneath);
    rows += s.rows;
    EXPECT_NE(CommitAndVerify().find("1 columns, 1 files, " + std::to_string(s.blocks) +
                                     " blocks checked: no faults"),
              std::string::npos);
    BAT* b = BBPdescriptor(id_);  // loads and checks every block
    ASSERT_NE(b, nullptr);
    EXPECT_EQ(b->batCount, static_cast<BUN>(rows));
    for (int r = 0; r < rows; r++) ASSERT_EQ(*static_cast<const int*>(BUNtail(b, r)), r);
    BBPreleaseref(id_);
  }
}

TEST_F(SumsTest, AnAppendKeepsEarlierBlocksAndRefusesADamagedPartialOne) {
  Append(20000, false);  // 80,000 bytes: block 0 whole, block 1 partial
  ASSERT_EQ(TMcommit(), 0);
  const std::string sums = ReadFile(tail_.string() + ".sums");
  auto poke = [&](long at, const void* bytes, size_t n) {
    std::fstream f(tail_, std::ios::in | std::ios::out | std::ios::binary);
    f.seekp(at);
    f.write(static_cast<const char*>(bytes), static_cast<std::streamsize>(n));
  };
  const int garbage = -1, row = 17500;
  poke(4 * row, &garbage, 4);  // in the part of the partial block that the append keeps
  Append(100, true);
  ::testing::internal::CaptureStderr();
  EXPECT_NE(TMcommit(), 0);
  const std::string said = ::testing::internal::GetCapturedStderr();
  EXPECT_NE(said.find("BAT 1 (t.a): cannot extend its checksums: " + tail_.string() +
                      ": block 1 (bytes 65536-79999) no longer matches its checksum"),
            std::string::npos)
      << said;
  EXPECT_EQ(ReadFile(tail_.string() + ".sums"), sums);  // the previous commit's
  CVDfarm_close();

  // Damage in a whole block before the old end is not read again: the new sums keep that
  // block's old hash, so the damage stays visible.
  poke(4 * row, &row, 4);
  poke(8, &garbage, 4);
  ASSERT_EQ(Take(CVDfarm_open(dir_.c_str(), 0)), "");
  Append(100, true);
  ASSERT_EQ(TMcommit(), 0);
  CVDfarm_close();
  EXPECT_NE(Verify(dir_).find("t.a: tail block 0 (bytes 0-65535) of " + tail_.string() +
                              " does not match its checksum"),
            std::string::npos);
  ASSERT_EQ(Take(CVDfarm_open(dir_.c_str(), 0)), "");
}

TEST_F(SumsTest, AFarmFromBeforeChecksumsGetsThemWithItsNextCommit) {
  Append(30000, false);
  ASSERT_EQ(TMcommit(), 0);
  CVDfarm_close();
  // The same farm as a version 2 catalog, without sums files.
  qopci_test::WriteOldCatalog(dir_, 2);
  fs::remove(tail_.string() + ".sums");
  EXPECT_NE(Verify(dir_).find("no checksums (catalog version 2); its next commit adds them\n"
                              "farm " +
                              dir_.string() +
                              ": 1 columns, 1 files, 0 blocks checked: "
                              "no faults"),
            std::string::npos);
  ASSERT_EQ(Take(CVDfarm_open(dir_.c_str(), 0)), "");
  EXPECT_NE(CommitAndVerify().find("1 columns, 1 files, 2 blocks checked: no faults"),
            std::string::npos);
  EXPECT_EQ(ReadFile(dir_ / "catalog").rfind("corvid-catalog 3\n", 0), 0u);
}

// A string heap's hash area is an index that an export rewrites in place before its commit:
// an export that fails or is killed leaves it changed, and the committed column must still
// load, read back and take appends. Every other byte of the heap's first block stays checked.
TEST_F(SumsTest, AHeapLoadsWhateverItsHashAreaHolds) {
  bat s = 0;
  ASSERT_EQ(Take(CVDbat_create(TYPE_str, "t.s", 0, &s)), "");
  const char* words[] = {"alpha", "beta", "gamma", "beta"};
  for (const char* w : words) ASSERT_EQ(Take(CVDbat_append(s, w)), "");
  ASSERT_EQ(TMcommit(), 0);
  CVDfarm_close();
  char path[4096];
  ASSERT_EQ(Take(CVDfarm_open(dir_.c_str(), 0)), "");
  const std::string heap = CVDbat_filename(CVDbat_lookup("t.s"), "theap", path, sizeof path);
  CVDfarm_close();
  auto poke = [&](long at, const std::string& bytes) {
    std::fstream f(heap, std::ios::in | std::ios::out | std::ios::binary);
    f.seekp(at);
    f.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  };
  poke(0, std::string(2048, '\x7f'));  // every bucket names a position past the heap's end
  EXPECT_NE(Verify(dir_).find("3 files, 2 blocks checked: no faults"), std::string::npos);
  ASSERT_EQ(Take(CVDfarm_open(dir_.c_str(), 0)), "");
  ASSERT_EQ(Take(CVDbat_append(CVDbat_lookup("t.s"), "beta")), "");
  EXPECT_NE(CommitAndVerify().find("no faults"), std::string::npos);
  BAT* b = BBPdescriptor(CVDbat_lookup("t.s"));
  ASSERT_NE(b, nullptr);
  ASSERT_EQ(b->batCount, 5u);
  for (BUN i = 0; i < b->batCount; i++)
    EXPECT_STREQ(static_cast<const char*>(BUNtail(b, i)), i < 4 ? words[i] : "beta");
  BBPreleaseref(b->batCacheid);
  CVDfarm_close();

  poke(2048 + 16, "X");  // inside the first string record
  EXPECT_NE(Verify(dir_).find("does not match its checksum"), std::string::npos);
  ASSERT_EQ(Take(CVDfarm_open(dir_.c_str(), 0)), "");
}

}  // namespace
