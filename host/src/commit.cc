// The commit. Column files the kernel wrote go to pending files first; the catalog goes to
// "catalog.new" and is renamed over "catalog" once everything it names is durable, and the
// farm directory is flushed: that is the moment the commit takes effect. Only then do the
// pending files replace the old ones. Until the last of these steps has succeeded, the old
// catalog and the old column files are kept as links, so that any failure puts the farm
// back to its previous commit; a crash at any instant leaves it at the previous commit or
// the new one (the next open finishes the renames the catalog marks pending).
#include "commit.h"

#include <chrono>
#include <cstdio>
#include <string>

#include "corvid/farm.h"
#include "fileio.h"
#include "logger.h"

namespace corvid {
namespace {

using Clock = std::chrono::steady_clock;

// Times of the last TMcommit, for CVDcommit_times: the whole call, and the part spent
// making files durable (fsync of column files and directories, durable catalog writes).
double last_total_s = 0;
double last_flush_s = 0;

double Since(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

// Records the times of one TMcommit on every way out of it.
class CommitTimer {
 public:
  CommitTimer() : start_(Clock::now()) {}
  ~CommitTimer() { last_total_s = Since(start_); }
  CommitTimer(const CommitTimer&) = delete;
  CommitTimer& operator=(const CommitTimer&) = delete;

  // Everything between two marks counts as flushing.
  void StartFlush() { flush_start_ = Clock::now(); }
  void EndFlush() { last_flush_s += Since(flush_start_); }

 private:
  Clock::time_point start_, flush_start_;
};

bool Faulted(int step) {
  Kernel& k = K();
  if (k.fail_commit_at != step) return false;
  k.fail_commit_at = -1;
  return true;
}

int Report(const std::string& why) {
  std::fprintf(stderr, "#TMcommit: %s\n", why.c_str());
  return -1;
}

int Fail(CommitPlan* p, const std::string& why) {
  std::string undo_why;
  if (!Undo(p, &undo_why))
    return Report(why + "; the previous commit could not be put back (" + undo_why +
                  "), so the farm holds the new one");
  return Report(why);
}

// Files an earlier commit could not remove once it had taken effect.
bool RemoveLeftovers(std::string* why) {
  Kernel& k = K();
  while (!k.leftovers.empty()) {
    if (!RemoveFile(k.leftovers.back(), why)) return false;
    k.leftovers.pop_back();
  }
  k.reserved.clear();
  return true;
}

// Opens's own checks on the catalog text: what fails them must never be written.
bool CheckText(const Catalog& cat, std::string* why) {
  Catalog parsed;
  return ParseCatalog(SerializeCatalog(cat), &parsed, why);
}

}  // namespace
}  // namespace corvid

using namespace corvid;

extern "C" {

void CVDfarm_fail_commit(int step) { K().fail_commit_at = step; }

void CVDfarm_fail_commit_call(int n, int err) { ArmCallFault(n, err); }

int CVDcommit_call_count(void) { return LastCallCount(); }

void CVDcommit_times(double* total_s, double* flush_s) {
  if (total_s != nullptr) *total_s = last_total_s;
  if (flush_s != nullptr) *flush_s = last_flush_s;
}

oid OIDnew(oid count) {
  Kernel& k = K();
  oid first = k.next_oid;
  if (count >= oid_nil || first > oid_nil - count) return oid_nil;  // the oid space is spent
  k.next_oid = first + count;
  return first;
}

int TMcommit(void) {
  CommitTimer timer;
  last_flush_s = 0;
  Kernel& k = K();
  if (k.farm.empty()) return Report("no farm is open");
  if (k.read_only) return Report("farm " + k.farm + " is open read-only");
  CountedCalls counted;
  CommitPlan plan;
  CommitPlan* p = &plan;
  p->cat.generation = k.generation + 1;
  p->cat.next_oid = k.next_oid;
  p->catalog = k.farm + "/catalog";
  p->catalog_new = p->catalog + ".new";
  p->catalog_backup = p->catalog + ".prev";
  std::string why;
  if (!RemoveLeftovers(&why)) return Fail(p, why);
  if (Faulted(0)) return Fail(p, "injected failure before the column files");
  if (!PlanEntries(p, &why)) return Fail(p, why);
  if (!CheckText(p->cat, &why)) return Fail(p, "the catalog would not open: " + why);
  // The sums are hashed on a second core while the column files are flushed and the flags
  // checked on this one: the flushes wait for the disk, the hashing reads the page cache.
  if (!StartSums(p, &why)) return Fail(p, why);
  timer.StartFlush();
  if (!WriteColumnFiles(p, &why)) return Fail(p, why);
  timer.EndFlush();
  if (!CheckCatalogFiles(p->cat, &why)) return Fail(p, "the catalog would not open: " + why);
  if (!CheckRewrittenFlags(p, &why)) return Fail(p, why);
  if (!FinishSums(p, &why)) return Fail(p, why);
  timer.StartFlush();
  if (!WriteSums(p, &why) || !SyncDirs(p, &why)) return Fail(p, why);
  timer.EndFlush();
  if (Faulted(1)) return Fail(p, "injected failure before the catalog");
  const std::string text = SerializeCatalog(p->cat);
  timer.StartFlush();
  p->wrote_catalog_new = true;
  if (!WriteDurable(p->catalog_new, text.data(), text.size(), &why)) return Fail(p, why);
  timer.EndFlush();
  if (!BackUp(p, &why)) return Fail(p, why);
  if (Faulted(2)) return Fail(p, "injected failure before the catalog rename");
  if (!Rename(p->catalog_new, p->catalog, &why)) return Fail(p, why);
  p->wrote_catalog_new = false;
  p->renamed_catalog = true;
  timer.StartFlush();
  if (Faulted(3)) return Fail(p, "cannot flush " + k.farm + ": injected failure");
  if (!SyncPath(k.farm, &why)) return Fail(p, why);
  timer.EndFlush();
  for (CommitPlan::File& f : p->files) {
    if (!Rename(f.pending, f.path, &why)) return Fail(p, why);
    f.renamed = true;
  }
  timer.StartFlush();
  for (const std::string& d : p->dirs)
    if (!SyncPath(d, &why)) return Fail(p, why);
  timer.EndFlush();
  // Nothing can fail the commit from here on.
  counted.Stop();
  for (CommitPlan::File& f : p->files) f.written = false;
  Apply(p);
  LoggerNote(k.lg, "commit generation " + std::to_string(k.generation));
  return 0;
}

}  // extern "C"
