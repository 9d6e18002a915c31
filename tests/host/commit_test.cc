// The commit under injected faults and crashes at every file-system call, the writer's
// lock, read-only and half-made farms, replacement BATs and SQL types.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <string>
#include <vector>

#include "corvid/farm.h"
#include "tests/support/kernel_text.h"
#include "tests/support/temp_dir.h"

namespace fs = std::filesystem;
using qopci_test::ReadFile;
using qopci_test::Take;

namespace {

// Every entry under dir: files by their bytes (lock file aside), or with `times` by size and
// modification time (lock file included); directories as "dir".
std::map<std::string, std::string> State(const fs::path& dir, bool times = false) {
  std::map<std::string, std::string> out;
  for (const auto& e : fs::recursive_directory_iterator(dir)) {
    const std::string rel = fs::relative(e.path(), dir).string();
    struct stat st;
    ::stat(e.path().c_str(), &st);
    if (times)
      out[rel] = std::to_string(st.st_size) + "@" + std::to_string(st.st_mtim.tv_sec) + "." +
                 std::to_string(st.st_mtim.tv_nsec);
    else if (rel != "lock")
      out[rel] = e.is_directory() ? "dir" : ReadFile(e.path());
  }
  return out;
}

bool HasTemporaries(const fs::path& dir) {
  for (const auto& [rel, bytes] : State(dir))
    if (rel.find(".new") != std::string::npos || rel.find(".prev") != std::string::npos)
      return true;
  return false;
}

// Every named BAT of the open farm: name, type, SQL type, flags and values (long ones by
// their length).
std::string Dump() {
  std::string out;
  char* buf = nullptr;
  size_t len = 0;
  for (bat i = 1; i < BBPsize(); i++) {
    BAT* b = CVDbat_name(i) ? BBPdescriptor(i) : nullptr;
    if (!b) continue;
    out += std::string(CVDbat_name(i)) + " " + ATOMname(b->ttype) + " [" + CVDbat_sqltype(i) + "]" +
           (b->tsorted ? " sorted" : "") + (b->tkey ? " key" : "") + (b->tnonil ? " nonil" : "") +
           ":";
    for (BUN r = 0; r < b->batCount; r++) {
      ATOMformat(b->ttype, BUNtail(b, r), &buf, &len);
      out += " " + (std::strlen(buf) > 20 ? std::to_string(std::strlen(buf)) : std::string(buf));
    }
    BBPreleaseref(i);
    out += "\n";
  }
  GDKfree(buf);
  return out;
}

// The first commit: counts int [1], words str ["alpha"], prices lng [10, 20] of SQL type
// "bigint". "" or what went wrong.
std::string MakeFirstCommit(const std::string& dir) {
  std::string err = Take(CVDfarm_open(dir.c_str(), CVD_FARM_CREATE));
  bat counts = 0, words = 0, prices = 0;
  const int one = 1;
  const lng ten = 10, twenty = 20;
  for (char* e :
       {CVDbat_create(TYPE_int, "counts", 0, &counts), CVDbat_create(TYPE_str, "words", 0, &words),
        CVDbat_create(TYPE_lng, "prices", 0, &prices), CVDbat_append(counts, &one),
        CVDbat_append(words, "alpha"), CVDbat_append(prices, &ten), CVDbat_append(prices, &twenty),
        CVDbat_set_sqltype(prices, "bigint")})
    err += Take(e);
  if (err.empty() && TMcommit() != 0) err = "first commit failed";
  CVDfarm_close();
  return err;
}

// What an export does to the open farm: appends to counts, widens words' tail with a long
// string, and writes a replacement of prices underneath the kernel, as the copy-into library
// does, claiming sorted, key and no-nil over [3, 1, 2]. Sets *rep to the replacement.
std::string MakeChanges(bat* rep) {
  const int two = 2;
  std::string err;
  for (char* e : {CVDbat_append(CVDbat_lookup("counts"), &two),
                  CVDbat_append(CVDbat_lookup("words"), std::string(5000, 'w').c_str()),
                  CVDbat_create_replacement(CVDbat_lookup("prices"), TYPE_lng, rep)})
    err += Take(e);
  if (!err.empty()) return err;
  char path[4096];
  const lng values[] = {3, 1, 2};
  std::ofstream(CVDbat_filename(*rep, "tail", path, sizeof path), std::ios::binary)
      .write(reinterpret_cast<const char*>(values), sizeof values);
  BAT* d = BBPgetdesc(*rep);
  BATfree(d);
  d->batCount = d->batCapacity = d->tailRows = 3;
  d->theap.free = d->theap.size = sizeof values;
  d->tsorted = d->tkey = d->tnonil = d->batDirty = d->batDirtydesc = 1;
  d->batStatus |= BATSTATUS_REWRITTEN;
  return Take(CVDbat_set_sqltype(*rep, "decimal(9,2)"));
}

class CommitTest : public ::testing::Test {
 protected:
  void TearDown() override { CVDfarm_close(); }
  std::string Open(int flags) { return Take(CVDfarm_open(dir_.c_str(), flags)); }
  std::string DumpOf(int flags) {
    std::string err = Open(flags);
    std::string dump = err.empty() ? Dump() : err;
    CVDfarm_close();
    return dump;
  }
  // Makes the first commit, keeps a copy of it, and learns both states: before (s0_) and
  // after (s1_) committing the changes.
  void Prepare() {
    ASSERT_EQ(MakeFirstCommit(dir_), "");
    fs::copy(dir_, pristine_, fs::copy_options::recursive);
    s0_ = DumpOf(0);
    ASSERT_EQ(Open(0), "");
    bat rep;
    ASSERT_EQ(MakeChanges(&rep), "");
    ASSERT_EQ(TMcommit(), 0);
    CVDfarm_close();
    s1_ = DumpOf(0);
    ASSERT_EQ(s0_,
              "counts int [] sorted key nonil: 1\nwords str [] sorted key nonil: alpha\n"
              "prices lng [bigint] sorted key nonil: 10 20\n");
    // The replacement took the name and values; its false sorted claim did not survive.
    ASSERT_EQ(s1_,
              "counts int [] sorted key nonil: 1 2\nwords str [] sorted key nonil: alpha 5000\n"
              "prices lng [decimal(9,2)] key nonil: 3 1 2\n");
  }
  void Restore() {
    fs::remove_all(dir_);
    fs::copy(pristine_, dir_, fs::copy_options::recursive);
  }
  qopci_test::TempDir tmp_{"corvid_commit_"};
  const fs::path dir_ = tmp_.path() + "/farm", pristine_ = tmp_.path() + "/pristine";
  std::string s0_, s1_;
};

TEST_F(CommitTest, AFailureAtAnyStepLeavesThePreviousCommit) {
  ASSERT_NO_FATAL_FAILURE(Prepare());
  const int calls = CVDcommit_call_count();
  const auto files0 = State(pristine_);  // sums files included: every failure leaves these
  char* report = nullptr;
  int verify_faults = -1;
  ASSERT_EQ(Take(CVDfarm_verify(pristine_.c_str(), &report, &verify_faults)), "");
  EXPECT_EQ(verify_faults, 0) << report;
  GDKfree(report);
  struct Fault {
    int step;  // CVDfarm_fail_commit step, or -1
    int call;  // CVDfarm_fail_commit_call number, or 0
    std::string says;
  };
  std::vector<Fault> faults = {{0, 0, "injected failure before the column files"},
                               {1, 0, "injected failure before the catalog"},
                               {2, 0, "injected failure before the catalog rename"},
                               {3, 0, "cannot flush " + dir_.string() + ": injected failure"}};
  for (int n = 1; n <= calls; n++) faults.push_back({-1, n, "Input/output error (errno 5)"});
  for (const Fault& f : faults) {
    SCOPED_TRACE(f.call ? "call " + std::to_string(f.call) : "step " + std::to_string(f.step));
    Restore();
    ASSERT_EQ(Open(0), "");
    bat rep;
    ASSERT_EQ(MakeChanges(&rep), "");
    if (f.call)
      CVDfarm_fail_commit_call(f.call, EIO);
    else
      CVDfarm_fail_commit(f.step);
    ::testing::internal::CaptureStderr();
    const int rc = TMcommit();
    const std::string said = ::testing::internal::GetCapturedStderr();
    ASSERT_NE(rc, 0);
    EXPECT_EQ(said.rfind("#TMcommit: ", 0), 0u) << said;
    EXPECT_NE(said.find(f.says), std::string::npos) << said;
    EXPECT_EQ(said.find("could not be put back"), std::string::npos) << said;
    // The farm is its previous commit byte for byte, and the replacement's own file, written
    // before the commit, is all that is new.
    char path[4096];
    auto now = State(dir_);
    EXPECT_EQ(now.erase(fs::relative(CVDbat_filename(rep, "tail", path, sizeof path), dir_)), 1u);
    EXPECT_EQ(now, files0);
    EXPECT_EQ(CVDbat_name(rep), nullptr);
    EXPECT_NE(CVDbat_lookup("prices"), rep);
    ASSERT_EQ(TMcommit(), 0);  // nothing of the failed attempt stands in the way
    CVDfarm_close();
    EXPECT_EQ(DumpOf(0), s1_);
  }
}

TEST_F(CommitTest, ACrashAtAnyCallLeavesOneCommitOrTheOther) {
  ASSERT_NO_FATAL_FAILURE(Prepare());
  bool read_pending = false;  // a reader saw the new commit through its pending files
  for (int n = 1;; n++) {
    SCOPED_TRACE("crash at call " + std::to_string(n));
    Restore();
    pid_t child = ::fork();
    if (child == 0) {
      bat rep;
      if (!Open(0).empty() || !MakeChanges(&rep).empty()) ::_exit(3);
      CVDfarm_fail_commit_call(n, -9);
      ::_exit(TMcommit() == 0 ? 0 : 4);
    }
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFEXITED(status));
    const int code = WEXITSTATUS(status);
    ASSERT_TRUE(code == 9 || code == 0) << code;
    const auto before = State(dir_, true);
    const std::string seen = DumpOf(CVD_FARM_READONLY);
    EXPECT_EQ(State(dir_, true), before);  // the reader changed nothing
    EXPECT_TRUE(seen == s0_ || seen == s1_) << seen;
    for (const auto& [rel, what] : before) {
      if (rel.find(".new") != std::string::npos && rel != "catalog.new" && seen == s1_)
        read_pending = true;
    }
    EXPECT_EQ(DumpOf(0), seen);  // the writer settles on what the reader saw
    EXPECT_FALSE(HasTemporaries(dir_));
    if (code == 0) break;
  }
  EXPECT_TRUE(read_pending);
}

TEST_F(CommitTest, NeverWritesWhatOpenWouldReject) {
  ASSERT_EQ(MakeFirstCommit(dir_), "");
  const std::string catalog = ReadFile(dir_ / "catalog");
  const struct {
    void (*rewrite)(BAT* d);  // what a careless rewrite of counts [1] claims
    const char* says;
  } cases[] = {
      {[](BAT* d) { d->theap.free = 12; }, "holds 4 bytes, the catalog describes 12"},
      {[](BAT* d) { d->twidth = 3; }, "bad tail width or shift"},
      {[](BAT* d) { d->batCount = 2; }, "tail heap holds fewer rows than counted"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.says);
    ASSERT_EQ(Open(0), "");
    BAT* d = BBPgetdesc(CVDbat_lookup("counts"));
    c.rewrite(d);
    d->batStatus |= BATSTATUS_REWRITTEN;
    ::testing::internal::CaptureStderr();
    EXPECT_NE(TMcommit(), 0);
    const std::string said = ::testing::internal::GetCapturedStderr();
    EXPECT_EQ(said.rfind("#TMcommit: the catalog would not open: BAT ", 0), 0u) << said;
    EXPECT_NE(said.find(c.says), std::string::npos) << said;
    CVDfarm_close();
    EXPECT_EQ(ReadFile(dir_ / "catalog"), catalog);
  }
}

TEST_F(CommitTest, ASecondWriterFailsAtOnceAndChangesNothing) {
  ASSERT_EQ(Open(CVD_FARM_CREATE), "");
  const auto before = State(dir_, true);
  int fds[2];
  ASSERT_EQ(::pipe(fds), 0);
  if (::fork() == 0) {
    CVDfarm_close();  // the copy of the parent's farm; the parent keeps its lock
    std::string err = Open(0);
    ::_exit(::write(fds[1], err.data(), err.size()) < 0);
  }
  ::close(fds[1]);
  char said[512] = {};
  ASSERT_GT(::read(fds[0], said, sizeof said - 1), 0);  // the child's only write
  ::close(fds[0]);
  ::wait(nullptr);
  EXPECT_EQ(said, "MALException:CVDfarm_open:farm " + dir_.string() +
                      " is locked by another writer (process " + std::to_string(::getpid()) + ")");
  EXPECT_EQ(State(dir_, true), before);
  EXPECT_EQ(TMcommit(), 0);  // the holder goes on
}

TEST_F(CommitTest, HalfMadeFarms) {
  const std::string missing =
      "IOException:CVDfarm_open:catalog " + (dir_ / "catalog").string() + " is missing";
  const struct {
    std::vector<std::string> made;  // before the open; a trailing '/' makes a directory
    int flags;
    std::string error;  // "" for success
  } cases[] = {
      {{}, CVD_FARM_CREATE, ""},
      {{"catalog.new", "bat/", "log/"}, CVD_FARM_CREATE, ""},
      {{"catalog.new", "bat/00/"}, CVD_FARM_READONLY, ""},
      {{}, 0, missing},
      {{"bat/00/0001.tail"},
       CVD_FARM_CREATE,
       missing + ", and the farm holds column files: not making a new farm over them"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::PrintToString(c.made) + " flags " + std::to_string(c.flags));
    fs::remove_all(dir_);
    fs::create_directories(dir_);
    for (const std::string& f : c.made) {
      fs::create_directories((dir_ / f).parent_path());
      if (f.back() != '/') std::ofstream(dir_ / f) << "partial";
    }
    const auto before = State(dir_, c.flags != CVD_FARM_CREATE);  // a writer makes its lock
    EXPECT_EQ(Open(c.flags), c.error);
    if (c.error.empty()) {
      EXPECT_EQ(BBPsize(), 1);
      ::testing::internal::CaptureStderr();
      EXPECT_EQ(TMcommit() == 0, c.flags == CVD_FARM_CREATE);
      const std::string said = ::testing::internal::GetCapturedStderr();
      if (c.flags == CVD_FARM_READONLY) {
        EXPECT_EQ(said, "#TMcommit: farm " + dir_.string() + " is open read-only\n");
      }
    }
    CVDfarm_close();
    if (c.flags == CVD_FARM_CREATE && c.error.empty()) {
      EXPECT_FALSE(fs::exists(dir_ / "catalog.new"));
      EXPECT_EQ(DumpOf(0), "");
    } else {
      EXPECT_EQ(State(dir_, c.flags != CVD_FARM_CREATE), before);
    }
  }
}

TEST_F(CommitTest, UncommittedReplacementsVanishAndVersionOneCatalogsOpen) {
  ASSERT_NO_FATAL_FAILURE(Prepare());
  Restore();
  ASSERT_EQ(Open(0), "");
  const bat prices = CVDbat_lookup("prices");
  bat rep;
  ASSERT_EQ(MakeChanges(&rep), "");
  EXPECT_EQ(CVDbat_lookup("prices"), prices);
  EXPECT_EQ(CVDbat_name(rep), nullptr);
  char path[4096];
  const std::string rep_tail = CVDbat_filename(rep, "tail", path, sizeof path);
  CVDfarm_close();  // without a commit
  EXPECT_EQ(DumpOf(0), s0_);
  EXPECT_FALSE(fs::exists(rep_tail));  // the writer's open removed what no catalog names

  // The same farm under a version-1 catalog: no SQL types, one field fewer per BAT.
  qopci_test::WriteOldCatalog(
      dir_, 1, [](const std::string& line) { return line.substr(0, line.rfind(' ')); });
  std::string want = s0_;
  want.replace(want.find("[bigint]"), 8, "[]");
  EXPECT_EQ(DumpOf(CVD_FARM_READONLY), want);
  ASSERT_EQ(Open(0), "");
  EXPECT_EQ(Dump(), want);
  ASSERT_EQ(CVDbat_set_sqltype(CVDbat_lookup("counts"), "timestamp with time zone"), nullptr);
  ASSERT_EQ(TMcommit(), 0);
  CVDfarm_close();
  EXPECT_EQ(ReadFile(dir_ / "catalog").rfind("corvid-catalog 3\n", 0), 0u);
  want.replace(want.find("[]"), 2, "[timestamp with time zone]");
  EXPECT_EQ(DumpOf(0), want);
}

}  // namespace
