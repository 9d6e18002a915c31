// The commit: column files first (as ".new" files), then the catalog through
// "catalog.new" and a rename, which is the moment the commit takes effect; only then do the
// ".new" column files replace the old ones. A failure or crash before the catalog rename
// leaves the previous commit as the farm's state.
#include <cerrno>
#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <set>
#include <string>
#include <vector>

#include "catalog.h"
#include "corvid/farm.h"
#include "fileio.h"
#include "internal.h"
#include "logger.h"

namespace corvid {
namespace {

using Clock = std::chrono::steady_clock;

// Times of the last TMcommit, for CVDcommit_times: the whole call, and the part spent
// making files durable (fsync of column files and directories, durable catalog writes).
double last_total_s = 0;
double last_flush_s = 0;
double flush_acc_s = 0;  // flush time of the commit under way

double Since(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

bool TimedSync(const std::string& path, std::string* why) {
  Clock::time_point start = Clock::now();
  bool ok = SyncPath(path, why);
  flush_acc_s += Since(start);
  return ok;
}

bool TimedWriteDurable(const std::string& path, const char* data, size_t n, std::string* why) {
  Clock::time_point start = Clock::now();
  bool ok = WriteDurable(path, data, n, why);
  flush_acc_s += Since(start);
  return ok;
}

// Records the times of one TMcommit on every way out of it.
class CommitTimer {
 public:
  CommitTimer() : start_(Clock::now()) { flush_acc_s = 0; }
  ~CommitTimer() {
    last_total_s = Since(start_);
    last_flush_s = flush_acc_s;
  }
  CommitTimer(const CommitTimer&) = delete;
  CommitTimer& operator=(const CommitTimer&) = delete;

 private:
  Clock::time_point start_;
};

bool Faulted(int step) {
  Kernel& k = K();
  if (k.fail_commit_at != step) return false;
  k.fail_commit_at = -1;
  return true;
}

struct Pending {
  std::string path;  // final name; the data sits at path + ".new"
};

bool WriteHeap(bat id, const char* ext, const Heap& h, std::vector<Pending>* renames,
               std::string* why) {
  std::string path = BatPath(id, ext);
  if (!MakeDirs(DirOf(path), why)) return false;
  renames->push_back({path});
  return TimedWriteDurable(path + ".new", h.base, h.free, why);
}

// Files rewritten outside the kernel are kept as they are, but must hold what the
// descriptor claims, or the catalog would describe data that is not there.
bool SyncKept(bat id, const char* ext, size_t need, std::string* why) {
  std::string path = BatPath(id, ext);
  size_t size = 0;
  if (!FileSize(path, &size)) {
    if (need == 0) return true;
    *why = path + " is missing";
    return false;
  }
  if (size < need) {
    *why = path + " holds " + std::to_string(size) + " bytes, the descriptor describes " +
           std::to_string(need);
    return false;
  }
  return TimedSync(path, why);
}

bool CommitBat(BatRec* r, CatalogEntry* e, std::vector<Pending>* renames, std::string* why) {
  BAT& b = r->desc;
  const bool str = b.ttype == TYPE_str;
  const bool dirty = b.batDirty || b.theap.dirty || (str && b.tvheap->dirty);
  if ((b.batStatus & BATSTATUS_REWRITTEN) || !HeapsLoaded(&b) || !dirty) {
    if (!SyncKept(b.batCacheid, "tail", b.theap.free, why)) return false;
    return !str || SyncKept(b.batCacheid, "theap", b.tvheap->free, why);
  }
  if (!WriteHeap(b.batCacheid, "tail", b.theap, renames, why)) return false;
  e->pending |= kPendingTail;
  if (str) {
    if (!WriteHeap(b.batCacheid, "theap", *b.tvheap, renames, why)) return false;
    e->pending |= kPendingHeap;
  }
  return true;
}

int Fail(const std::vector<Pending>& renames, const std::string& why) {
  for (const Pending& p : renames) std::remove((p.path + ".new").c_str());
  std::fprintf(stderr, "#TMcommit: %s\n", why.c_str());
  return -1;
}

}  // namespace
}  // namespace corvid

using namespace corvid;

extern "C" {

void CVDfarm_fail_commit(int step) { K().fail_commit_at = step; }

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
  Kernel& k = K();
  if (k.farm.empty()) return -1;
  std::vector<Pending> renames;
  std::string why;
  Catalog cat;
  cat.generation = k.generation + 1;
  cat.next_oid = k.next_oid;
  if (Faulted(0)) return Fail(renames, "injected failure before the column files");
  for (size_t i = 1; i < k.pool.size(); i++) {
    BatRec* r = k.pool[i].get();
    if (!r || !r->desc.batPersistent) continue;
    CatalogEntry e;
    e.desc = r->desc;
    e.name = r->name;
    if (r->desc.tvheap) {
      e.vfree = r->desc.tvheap->free;
      e.vsize = r->desc.tvheap->size;
    }
    if (!CommitBat(r, &e, &renames, &why)) return Fail(renames, why);
    cat.bats.push_back(std::move(e));
  }
  std::set<std::string> dirs;
  for (const Pending& p : renames) dirs.insert(DirOf(p.path));
  for (const std::string& d : dirs)
    if (!TimedSync(d, &why)) return Fail(renames, why);
  if (Faulted(1)) return Fail(renames, "injected failure before the catalog");
  const std::string text = SerializeCatalog(cat);
  const std::string catalog = k.farm + "/catalog";
  if (!TimedWriteDurable(catalog + ".new", text.data(), text.size(), &why))
    return Fail(renames, why);
  const bool injected = Faulted(2);
  if (injected || std::rename((catalog + ".new").c_str(), catalog.c_str()) != 0) {
    why = injected ? "injected failure" : ErrnoText(errno);
    std::remove((catalog + ".new").c_str());
    return Fail(renames, "cannot rename " + catalog + ".new: " + why);
  }
  TimedSync(k.farm, &why);
  // The commit has taken effect; a crash from here on is finished by the next open.
  for (const Pending& p : renames) std::rename((p.path + ".new").c_str(), p.path.c_str());
  for (const std::string& d : dirs) TimedSync(d, &why);
  k.generation = cat.generation;
  for (size_t i = 1; i < k.pool.size(); i++) {
    BatRec* r = k.pool[i].get();
    if (!r || !r->desc.batPersistent) continue;
    BAT& b = r->desc;
    b.batDirty = b.batDirtydesc = 0;
    b.theap.dirty = 0;
    if (b.tvheap) b.tvheap->dirty = 0;
    b.batStatus &= ~static_cast<uint32_t>(BATSTATUS_REWRITTEN);
  }
  LoggerNote(k.lg, "commit generation " + std::to_string(k.generation));
  return 0;
}

}  // extern "C"
