// Opening and closing a farm, and the kernel's own BAT entry points (create, append, look up).
#include "corvid/farm.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "catalog.h"
#include "corvid/exception.h"
#include "fileio.h"
#include "internal.h"
#include "logger.h"

namespace corvid {
namespace {

// The column file that holds the committed bytes: the ".new" one when a commit renamed its
// catalog but not yet the file.
std::string Effective(bat id, const char* ext, bool pending) {
  std::string path = BatPath(id, ext);
  size_t n;
  if (pending && FileSize(path + ".new", &n)) return path + ".new";
  return path;
}

char* CheckFiles(const Catalog& c, std::string* why_out) {
  for (const CatalogEntry& e : c.bats) {
    const BAT& b = e.desc;
    struct Need {
      const char* ext;
      size_t bytes;
      int pending_bit;
    } needs[2] = {{"tail", b.theap.free, kPendingTail}, {"theap", e.vfree, kPendingHeap}};
    for (int i = 0; i < (b.ttype == TYPE_str ? 2 : 1); i++) {
      std::string path = Effective(b.batCacheid, needs[i].ext, e.pending & needs[i].pending_bit);
      size_t size = 0;
      if (!FileSize(path, &size) && needs[i].bytes > 0)
        return createException(IO, "CVDfarm_open", "BAT %d (%s): column file %s is missing",
                               b.batCacheid, e.name.c_str(), path.c_str());
      if (size < needs[i].bytes)
        return createException(IO, "CVDfarm_open",
                               "BAT %d (%s): column file %s holds %zu bytes, the catalog "
                               "describes %zu",
                               b.batCacheid, e.name.c_str(), path.c_str(), size, needs[i].bytes);
    }
  }
  (void)why_out;
  return nullptr;
}

// Finishes renames of a commit that stopped after its catalog was in place, and removes the
// ".new" files of commits that never reached that point.
void Recover(const Catalog& c) {
  for (const CatalogEntry& e : c.bats) {
    const char* exts[2] = {"tail", "theap"};
    const int bits[2] = {kPendingTail, kPendingHeap};
    for (int i = 0; i < 2; i++) {
      std::string path = BatPath(e.desc.batCacheid, exts[i]);
      size_t n;
      if (!FileSize(path + ".new", &n)) continue;
      if (e.pending & bits[i])
        std::rename((path + ".new").c_str(), path.c_str());
      else
        std::remove((path + ".new").c_str());
    }
  }
}

}  // namespace
}  // namespace corvid

using namespace corvid;

extern "C" {

char* CVDfarm_open(const char* dir, int create) {
  Kernel& k = K();
  if (!dir || !*dir) return createException(ILLARG, "CVDfarm_open", "no farm directory given");
  if (!k.farm.empty())
    return createException(MAL, "CVDfarm_open", "farm %s is already open", k.farm.c_str());
  std::string farm = dir, why, text;
  while (farm.size() > 1 && farm.back() == '/') farm.pop_back();
  const std::string catalog = farm + "/catalog";
  size_t size;
  Catalog cat;
  if (!FileSize(catalog, &size)) {
    struct stat st;
    bool fresh = ::stat((farm + "/bat").c_str(), &st) != 0;
    if (!create || !fresh)
      return createException(IO, "CVDfarm_open", "catalog %s is missing", catalog.c_str());
    std::string body = SerializeCatalog(cat);
    if (!MakeDirs(farm + "/bat", &why) || !MakeDirs(farm + "/log", &why) ||
        !WriteDurable(catalog, body.data(), body.size(), &why) || !SyncPath(farm, &why))
      return createException(IO, "CVDfarm_open", "%s", why.c_str());
  } else if (!ReadWhole(catalog, &text, &why) || !ParseCatalog(text, &cat, &why)) {
    return createException(IO, "CVDfarm_open", "%s: %s", catalog.c_str(), why.c_str());
  }
  k.bat_dir = farm + "/bat";
  for (const CatalogEntry& e : cat.bats) {
    if (Rec(e.desc.batCacheid)) {
      k.bat_dir.clear();
      return createException(MAL, "CVDfarm_open", "BAT id %d is in use by a transient BAT",
                             e.desc.batCacheid);
    }
  }
  if (char* err = CheckFiles(cat, &why)) {
    k.bat_dir.clear();
    return err;
  }
  Recover(cat);
  for (const CatalogEntry& e : cat.bats) {
    bat id = e.desc.batCacheid;
    if (k.pool.size() <= static_cast<size_t>(id)) k.pool.resize(id + 1);
    auto rec = std::make_unique<BatRec>();
    rec->desc = e.desc;
    rec->desc.tailRows = e.desc.theap.free / e.desc.twidth;
    rec->name = e.name;
    if (e.desc.ttype == TYPE_str) {
      rec->vheap.free = e.vfree;
      rec->vheap.size = e.vsize;
      rec->vheap.flags = HEAP_STRPREFIX;
      rec->desc.tvheap = &rec->vheap;
    }
    k.pool[id] = std::move(rec);
  }
  k.farm = farm;
  k.generation = cat.generation;
  k.next_oid = cat.next_oid;
  k.lg = LoggerOpen(farm + "/log");
  return nullptr;
}

void CVDfarm_close(void) {
  Kernel& k = K();
  k.pool.clear();
  WaitForReleases();  // a closed farm holds no memory
  LoggerClose(k.lg);
  k.lg = nullptr;
  k.farm.clear();
  k.bat_dir.clear();
  k.generation = 0;
  k.next_oid = 0;
}

const char* CVDfarm_dir(void) { return K().farm.empty() ? nullptr : K().farm.c_str(); }

logger* CVDfarm_logger(void) { return K().lg; }

char* CVDbat_create(int type, const char* name, BUN capacity, bat* out) {
  if (type <= TYPE_void || ATOMsize(type) < 0)
    return createException(ILLARG, "CVDbat_create", "cannot make a BAT of type %d", type);
  if (name) {
    if (K().farm.empty())
      return createException(MAL, "CVDbat_create", "persistent BAT %s needs an open farm", name);
    bool ok = *name && std::strlen(name) <= 1024;
    for (const char* p = name; *p; p++)
      if (static_cast<unsigned char>(*p) <= ' ' || *p == 0x7f) ok = false;
    if (!ok)
      return createException(ILLARG, "CVDbat_create",
                             "BAT name \"%s\" is empty, too long or holds blanks", name);
    if (CVDbat_lookup(name))
      return createException(ILLARG, "CVDbat_create", "BAT name \"%s\" is taken", name);
  }
  BatRec* r = NewBat(type, capacity);
  if (!r) return createException(MAL, "CVDbat_create", "out of memory");
  r->lrefs = 1;
  if (name) {
    r->name = name;
    r->desc.batPersistent = 1;
    // Writers outside the kernel create the column files of a new BAT before its first
    // commit; its directory must be there for them.
    std::string why;
    if (!MakeDirs(DirOf(BatPath(r->desc.batCacheid, "tail")), &why)) {
      DropBat(r->desc.batCacheid);
      return createException(IO, "CVDbat_create", "%s", why.c_str());
    }
  }
  if (out) *out = r->desc.batCacheid;
  return nullptr;
}

char* CVDbat_dense(oid seqbase, BUN count, bat* out) {
  BatRec* r = NewBat(TYPE_void, 0);
  if (!r) return createException(MAL, "CVDbat_dense", "out of memory");
  BAT& b = r->desc;
  r->lrefs = 1;
  b.tseqbase = seqbase;
  b.batCount = b.batCapacity = count;
  b.trevsorted = count <= 1;
  b.tnonil = seqbase != oid_nil;
  b.tkey = b.tsorted = b.tdense = seqbase != oid_nil;
  if (out) *out = b.batCacheid;
  return nullptr;
}

char* CVDbat_append(bat id, const void* value) {
  BatRec* r = Rec(id);
  if (!r) return createException(ILLARG, "CVDbat_append", "no BAT with id %d", id);
  BAT* b = &r->desc;
  if (b->ttype == TYPE_void)
    return createException(ILLARG, "CVDbat_append", "BAT %d has a dense tail", id);
  if (!value) return createException(ILLARG, "CVDbat_append", "no value given");
  if (!HeapsLoaded(b) && !BATload_intern(id, 0))
    return createException(IO, "CVDbat_append", "cannot load BAT %d", id);
  char* err = b->ttype == TYPE_str ? AppendString(b, static_cast<const char*>(value))
                                   : AppendFixed(b, value);
  if (err) return err;
  b->batCount++;
  if (b->batCapacity < b->batCount) b->batCapacity = b->theap.size / b->twidth;
  b->tailRows = b->batCount;
  NoteAppended(b, b->batCount - 1);
  b->theap.dirty = 1;
  b->batDirty = b->batDirtydesc = 1;
  return nullptr;
}

char* CVDbat_append_n(bat id, const void* values, BUN n) {
  BatRec* r = Rec(id);
  if (!r) return createException(ILLARG, "CVDbat_append_n", "no BAT with id %d", id);
  if (r->desc.ttype == TYPE_str || r->desc.ttype == TYPE_void)
    return createException(ILLARG, "CVDbat_append_n", "BAT %d is not fixed-width", id);
  BAT* b = &r->desc;
  const size_t size = ATOMsize(b->ttype);
  if (n == 0) return nullptr;
  if (!values) return createException(ILLARG, "CVDbat_append_n", "no values given");
  if (b->twidth != size) {  // a narrow tail checks that every value fits its width
    for (BUN i = 0; i < n; i++)
      if (char* err = CVDbat_append(id, static_cast<const char*>(values) + i * size)) return err;
    return nullptr;
  }
  if (!HeapsLoaded(b) && !BATload_intern(id, 0))
    return createException(IO, "CVDbat_append_n", "cannot load BAT %d", id);
  const BUN first = b->batCount;
  if (!EnsureHeapRoom(&b->theap, (first + n) * size))
    return createException(MAL, "CVDbat_append_n", "out of memory");
  std::memcpy(b->theap.base + first * size, values, n * size);
  b->theap.free = (first + n) * size;
  b->batCount = first + n;
  if (b->batCapacity < b->batCount) b->batCapacity = b->theap.size / b->twidth;
  b->tailRows = b->batCount;
  NoteAppended(b, first);
  b->theap.dirty = 1;
  b->batDirty = b->batDirtydesc = 1;
  return nullptr;
}

bat CVDbat_lookup(const char* name) {
  if (!name) return 0;
  for (size_t i = 1; i < K().pool.size(); i++)
    if (K().pool[i] && K().pool[i]->desc.batPersistent && K().pool[i]->name == name)
      return static_cast<bat>(i);
  return 0;
}

const char* CVDbat_name(bat id) {
  BatRec* r = Rec(id);
  return r && r->desc.batPersistent ? r->name.c_str() : nullptr;
}

char* CVDbat_filename(bat id, const char* ext, char* buf, size_t len) {
  if (!Rec(id) || !ext || !buf || K().bat_dir.empty()) return nullptr;
  std::string path = BatPath(id, ext);
  if (path.size() + 1 > len) return nullptr;
  std::memcpy(buf, path.c_str(), path.size() + 1);
  return buf;
}

void CVDbat_release(bat id) { BBPdecref(id, 1); }

}  // extern "C"
