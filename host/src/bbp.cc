// The buffer pool: BAT ids, descriptors, reference counts, caching and the pool lock.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "corvid/exception.h"
#include "corvid/farm.h"
#include "internal.h"
#include "sums.h"

namespace corvid {

BatRec::~BatRec() {
  ReleaseHeapMemory(&desc.theap);
  ReleaseHeapMemory(&vheap);
}

Kernel& K() {
  static Kernel* kernel = new Kernel;  // never destroyed: BATs may be released at exit
  return *kernel;
}

BatRec* Rec(bat i) {
  Kernel& k = K();
  if (i <= 0 || static_cast<size_t>(i) >= k.pool.size()) return nullptr;
  return k.pool[i].get();
}

BatRec* NewBat(int type, BUN capacity) {
  Kernel& k = K();
  if (k.pool.empty()) k.pool.resize(1);
  size_t id = 1;  // the lowest free id whose files are not waiting to be removed
  while ((id < k.pool.size() && k.pool[id]) || k.reserved.count(static_cast<bat>(id))) id++;
  if (id >= k.pool.size()) k.pool.resize(id + 1);
  auto rec = std::make_unique<BatRec>();
  BAT& b = rec->desc;
  b.batCacheid = static_cast<bat>(id);
  b.ttype = type;
  b.tseqbase = oid_nil;
  b.twidth = static_cast<uint16_t>(type == TYPE_void ? 0 : ATOMsize(type));
  b.tshift = static_cast<uint16_t>(ATOMelmshift(b.twidth));
  if (type == TYPE_str) {
    b.twidth = 1;  // offsets start narrow and widen with the heap
    b.tshift = 0;
    b.tvheap = &rec->vheap;
    InitStringHeap(b.tvheap);
  }
  if (type != TYPE_void) {
    b.batCapacity = capacity;
    if (capacity > 0 && !EnsureHeapRoom(&b.theap, capacity * b.twidth)) return nullptr;
    b.theap.dirty = 1;
  }
  b.tsorted = b.trevsorted = b.tkey = b.tnonil = 1;
  b.tdense = type == TYPE_void;
  b.batDirty = b.batDirtydesc = 1;
  b.batStatus = BATSTATUS_LOADED;
  k.pool[id] = std::move(rec);
  return k.pool[id].get();
}

void DropBat(bat i) {
  Kernel& k = K();
  if (!Rec(i)) return;
  k.pool[i].reset();
  while (k.pool.size() > 1 && !k.pool.back()) k.pool.pop_back();
}

std::string Physical(bat i) {
  char buf[32];
  std::snprintf(buf, sizeof buf, "%02o/%04o", static_cast<unsigned>(i) >> 6,
                static_cast<unsigned>(i));
  return buf;
}

std::string BatPath(bat i, const char* ext) { return K().bat_dir + "/" + Physical(i) + "." + ext; }

std::string ErrnoText(int err) {
  return std::string(std::strerror(err)) + " (errno " + std::to_string(err) + ")";
}

}  // namespace corvid

using corvid::K;
using corvid::Rec;

extern "C" {

void BBPlock(const char* who) {
  (void)who;
  K().bbp_mutex.lock();
}

void BBPunlock(const char* who) {
  (void)who;
  K().lock_epoch++;
  K().bbp_mutex.unlock();
}

bat BBPsize(void) {
  size_t n = K().pool.size();
  return n == 0 ? 1 : static_cast<bat>(n);
}

char* BBPphysical(bat i, char* buf) {
  if (!buf) return buf;
  buf[0] = 0;
  if (Rec(i)) std::strcpy(buf, corvid::Physical(i).c_str());
  return buf;
}

const char* BBPfarmdir(void) { return K().bat_dir.c_str(); }

BAT* BBPgetdesc(bat i) {
  corvid::BatRec* r = Rec(i);
  return r ? &r->desc : nullptr;
}

BAT* BBPdescriptor(bat i) {
  corvid::BatRec* r = Rec(i);
  if (!r) return nullptr;
  if (!corvid::HeapsLoaded(&r->desc) && !BATload_intern(i, 0)) return nullptr;
  r->prefs++;
  return &r->desc;
}

int BBPincref(bat i, int logical) {
  corvid::BatRec* r = Rec(i);
  if (!r) return -1;
  return logical ? ++r->lrefs : ++r->prefs;
}

int BBPdecref(bat i, int logical) {
  corvid::BatRec* r = Rec(i);
  if (!r) return -1;
  int& count = logical ? r->lrefs : r->prefs;
  if (count > 0) count--;
  int left = count;
  if (r->lrefs == 0 && r->prefs == 0 && !r->desc.batPersistent) {
    corvid::DropBat(i);  // a transient BAT lives only as long as someone refers to it
  } else if (r->prefs == 0 && r->cold && !r->desc.batDirty && r->desc.batPersistent) {
    corvid::FreeHeaps(&r->desc);  // clean and cold: the files hold everything
    r->cold = false;
  }
  return left;
}

int BBPfix(bat i) { return BBPincref(i, 0); }

int BBPreleaseref(bat i) { return BBPdecref(i, 0); }

int BBPcacheit(BAT* b, int lock) {
  (void)lock;  // the caller holds BBPlock already or runs alone
  if (!b || !Rec(b->batCacheid) || &Rec(b->batCacheid)->desc != b) return -1;
  Rec(b->batCacheid)->cold = false;
  return 0;
}

void BBPuncacheit(bat i, int unloaddesc) {
  (void)unloaddesc;  // the descriptor is the pool's only record of the BAT: it always stays
  corvid::BatRec* r = Rec(i);
  if (r && r->desc.batPersistent) corvid::FreeHeaps(&r->desc);
}

namespace {
bool skip_load_checksums = false;
}  // namespace

void CVDfarm_skip_load_checksums(int skip) { skip_load_checksums = skip != 0; }

char* CVDbat_load(bat i) {
  corvid::BatRec* r = Rec(i);
  if (!r) return createException(ILLARG, "BATload_intern", "no BAT with id %d", i);
  BAT* b = &r->desc;
  if (!b->batPersistent || b->ttype == TYPE_void) {
    if (corvid::HeapsLoaded(b)) return nullptr;
    return createException(MAL, "BATload_intern", "BAT %d is transient and not loaded", i);
  }
  // Memory holding the kernel's own uncommitted appends is newer than the files.
  if (corvid::HeapsLoaded(b) && b->batDirty && !(b->batStatus & BATSTATUS_REWRITTEN))
    return nullptr;
  std::string why;
  bool ok = corvid::LoadHeaps(b, &why);
  const bool fresh = r->sums_fresh && r->fresh_epoch == corvid::K().lock_epoch;
  r->sums_fresh = false;
  // Files rewritten since the last commit have no sums yet: the commit makes them.
  if (ok && r->summed && !fresh && !skip_load_checksums && !(b->batStatus & BATSTATUS_REWRITTEN) &&
      !corvid::CheckLoadedSums(*r, &why)) {
    corvid::FreeHeaps(b);
    ok = false;
  }
  if (ok) return nullptr;
  return createException(IO, "BATload_intern", "BAT %d (%s): %s", i,
                         r->name.empty() ? "unnamed" : r->name.c_str(), why.c_str());
}

BAT* BATload_intern(bat i, int lock) {
  (void)lock;
  corvid::BatRec* r = Rec(i);
  if (!r) return nullptr;
  BAT* b = &r->desc;
  if (!b->batPersistent || b->ttype == TYPE_void) return corvid::HeapsLoaded(b) ? b : nullptr;
  char* err = CVDbat_load(i);
  if (err == nullptr) return b;
  std::fprintf(stderr, "#BATload_intern: %s\n", err);
  GDKfree(err);
  return nullptr;
}

char* BKCcoldBAT(bat* b) {
  corvid::BatRec* r = b ? Rec(*b) : nullptr;
  if (!r) return createException(ILLARG, "BKCcoldBAT", "no BAT with id %d", b ? *b : 0);
  r->cold = true;
  if (r->prefs == 0 && r->desc.batPersistent && !r->desc.batDirty) corvid::FreeHeaps(&r->desc);
  return nullptr;
}

}  // extern "C"
