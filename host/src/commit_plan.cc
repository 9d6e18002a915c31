// The steps of a commit (see commit.h) and how each is undone.
#include <cerrno>
#include <cstdio>

#include "commit.h"
#include "fileio.h"
#include "sums.h"

namespace corvid {
namespace {

std::string BatLabel(const CatalogEntry& e) {
  return "BAT " + std::to_string(e.desc.batCacheid) + " (" + e.name + ")";
}

// A kept file must be durable before the catalog names it; one that is not there is left to
// the catalog check, which says whether it may be missing.
bool SyncKept(const std::string& path, std::string* why) {
  size_t size;
  if (!FileSize(path, &size, why)) return errno == ENOENT;
  return SyncPath(path, why);
}

bool WriteHeap(CommitPlan* p, const CatalogEntry& e, const char* ext, const Heap& h,
               std::string* why) {
  CommitPlan::File f;
  f.path = BatPath(e.desc.batCacheid, ext);
  f.pending = PendingPath(f.path, p->cat.version, p->cat.generation);
  f.backup = f.path + ".prev";
  if (!MakeDirs(DirOf(f.path), why)) return false;
  p->dirs.insert(DirOf(f.path));
  f.written = true;  // from the first byte on, the pending file is the commit's to remove
  p->files.push_back(f);
  return WriteDurable(f.pending, h.base, h.free, why);
}

}  // namespace

bool PlanEntries(CommitPlan* p, std::string* why) {
  Kernel& k = K();
  for (size_t i = 1; i < k.pool.size(); i++) {
    BatRec* r = k.pool[i].get();
    if (!r || !r->desc.batPersistent) continue;
    if (r->replaced_by != 0 && Rec(r->replaced_by) != nullptr) {
      p->dropped.push_back(static_cast<bat>(i));
      continue;
    }
    CatalogEntry e;
    e.desc = r->desc;
    e.name = r->name;
    e.sqltype = r->sqltype;
    if (r->replaces != 0) {
      const BatRec* target = Rec(r->replaces);
      if (!target) {
        *why = "BAT " + std::to_string(i) + " replaces BAT " + std::to_string(r->replaces) +
               ", which no longer exists";
        return false;
      }
      e.name = target->name;
      if (e.sqltype.empty()) e.sqltype = target->sqltype;
    }
    if (r->desc.tvheap) {
      e.vfree = r->desc.tvheap->free;
      e.vsize = r->desc.tvheap->size;
    }
    p->cat.bats.push_back(std::move(e));
    p->recs.push_back(r);
    p->checked.push_back(false);
    p->hashed.push_back(false);
  }
  return true;
}

bool WriteColumnFiles(CommitPlan* p, std::string* why) {
  for (size_t i = 0; i < p->recs.size(); i++) {
    BAT& b = p->recs[i]->desc;
    CatalogEntry& e = p->cat.bats[i];
    const bool str = b.ttype == TYPE_str;
    const bool rewritten = (b.batStatus & BATSTATUS_REWRITTEN) != 0;
    const bool dirty = b.batDirty || b.theap.dirty || (str && b.tvheap->dirty);
    if (rewritten || !HeapsLoaded(&b) || !dirty) {
      const std::string tail = BatPath(b.batCacheid, "tail");
      if (!SyncKept(tail, why)) return false;
      if (str && !SyncKept(BatPath(b.batCacheid, "theap"), why)) return false;
      if (rewritten) p->dirs.insert(DirOf(tail));  // the library may have made the files
      continue;
    }
    if (!WriteHeap(p, e, "tail", b.theap, why)) return false;
    e.pending |= kPendingTail;
    if (str) {
      if (!WriteHeap(p, e, "theap", *b.tvheap, why)) return false;
      e.pending |= kPendingHeap;
    }
  }
  return true;
}

bool SyncDirs(CommitPlan* p, std::string* why) {
  for (const std::string& d : p->dirs)
    if (!SyncPath(d, why)) return false;
  return true;
}

bool CheckRewrittenFlags(CommitPlan* p, std::string* why) {
  for (size_t i = 0; i < p->recs.size(); i++) {
    const BatRec* r = p->recs[i];
    CatalogEntry& e = p->cat.bats[i];
    if (!(r->desc.batStatus & BATSTATUS_REWRITTEN)) continue;
    p->checked[i] = true;
    if (PropBits(e.desc) == 0) continue;  // no claim to check
    // A copy of the descriptor with heaps of its own: the BAT in the pool stays as it is
    // until the commit has taken effect.
    BAT copy = r->desc;
    Heap vheap = r->vheap;
    copy.theap.base = nullptr;
    copy.theap.flags &= ~HEAP_MAPPED;
    vheap.base = nullptr;
    vheap.flags &= ~HEAP_MAPPED;
    copy.tvheap = copy.ttype == TYPE_str ? &vheap : nullptr;
    std::string load_why;
    if (!LoadHeaps(&copy, &load_why)) {
      *why = BatLabel(e) + ": cannot check its flags: " + load_why;
      return false;
    }
    if (!CheckClaims(&copy))  // rows that cannot be read: no claim can stand
      copy.tsorted = copy.trevsorted = copy.tkey = copy.tnonil = 0;
    e.desc.tsorted = copy.tsorted;
    e.desc.trevsorted = copy.trevsorted;
    e.desc.tkey = copy.tkey;
    e.desc.tnonil = copy.tnonil;
    FreeHeaps(&copy);
  }
  return true;
}

bool BackUp(CommitPlan* p, std::string* why) {
  if (!Link(p->catalog, p->catalog_backup, why)) return false;
  p->backed_up_catalog = true;
  for (CommitPlan::File& f : p->files)  // a BAT's first files replace nothing
    if (!LinkIfThere(f.path, f.backup, &f.backed_up, why)) return false;
  return true;
}

bool Undo(CommitPlan* p, std::string* why) {
  // Files already in place go back to their pending names first, and the old ones back in
  // place: the new catalog still reads the pending copies, the old one its old files.
  for (auto f = p->files.rbegin(); f != p->files.rend(); ++f) {
    if (!f->renamed) continue;
    if (!Rename(f->path, f->pending, why)) return false;
    f->renamed = false;
    if (f->backed_up) {
      if (!Rename(f->backup, f->path, why)) return false;
      f->backed_up = false;
    }
  }
  if (p->renamed_catalog) {
    if (!Rename(p->catalog_backup, p->catalog, why)) return false;
    p->renamed_catalog = p->backed_up_catalog = false;
    std::string ignored;
    SyncPath(DirOf(p->catalog), &ignored);  // best effort: the rename back is what matters
  }
  // The previous commit is in place again; what is left is the new commit's litter, which
  // the next writer's open would remove as well.
  std::string ignored;
  if (p->wrote_catalog_new) RemoveFile(p->catalog_new, &ignored);
  if (p->backed_up_catalog) RemoveFile(p->catalog_backup, &ignored);
  for (CommitPlan::File& f : p->files) {
    if (f.written) RemoveFile(f.pending, &ignored);
    if (f.backed_up) RemoveFile(f.backup, &ignored);
  }
  return true;
}

void Apply(CommitPlan* p) {
  Kernel& k = K();
  k.generation = p->cat.generation;
  k.catalog_version = p->cat.version;
  for (size_t i = 0; i < p->recs.size(); i++) {
    BatRec* r = p->recs[i];
    BAT& b = r->desc;
    const CatalogEntry& e = p->cat.bats[i];
    b.batDirty = b.batDirtydesc = 0;
    b.theap.dirty = 0;
    if (b.tvheap) b.tvheap->dirty = 0;
    b.batStatus &= ~static_cast<uint32_t>(BATSTATUS_REWRITTEN);
    if (p->checked[i]) {
      b.tsorted = e.desc.tsorted;
      b.trevsorted = e.desc.trevsorted;
      b.tkey = e.desc.tkey;
      b.tnonil = e.desc.tnonil;
      r->checked.Take(b);
    }
    r->pending = 0;
    r->summed = true;
    if (p->hashed[i]) {      // the load that follows within this hold of BBPlock need not hash
      r->sums_fresh = true;  // the same bytes again
      r->fresh_epoch = k.lock_epoch;
    }
    r->name = e.name;
    r->sqltype = e.sqltype;
    r->replaces = 0;
  }
  // Removing what the commit no longer needs cannot undo it: a file that will not go is
  // left to the next commit or the next writer's open, and its BAT id is not handed out
  // again meanwhile.
  std::vector<std::pair<std::string, bat>> doomed;
  doomed.emplace_back(p->catalog_backup, 0);
  for (const CommitPlan::File& f : p->files)
    if (f.backed_up) doomed.emplace_back(f.backup, 0);
  for (bat id : p->dropped) {
    for (int which = 0; which < kFileKinds; which++)
      doomed.emplace_back(BatPath(id, KindExt(which)), id);
    BatRec* t = Rec(id);
    t->name.clear();
    t->sqltype.clear();
    t->replaced_by = 0;
    t->desc.batPersistent = 0;  // lives on as a transient BAT while someone refers to it
    if (t->lrefs == 0 && t->prefs == 0) DropBat(id);
  }
  for (const auto& [path, id] : doomed) {
    std::string why;
    if (RemoveFile(path, &why)) continue;
    std::fprintf(stderr, "#TMcommit: the commit took effect, but %s\n", why.c_str());
    k.leftovers.push_back(path);
    if (id != 0) k.reserved.insert(id);
  }
}

}  // namespace corvid
