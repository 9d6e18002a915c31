// The kernel's own BAT entry points: create (and replace), append, SQL types, look up.
#include "corvid/farm.h"

#include <cstring>

#include "catalog.h"
#include "corvid/exception.h"
#include "fileio.h"
#include "internal.h"

namespace corvid {
namespace {

// A persistent BAT's directory must exist before its first commit: writers outside the
// kernel create its column files there.
char* MakeBatDir(const char* place, BatRec* r) {
  std::string why;
  if (MakeDirs(DirOf(BatPath(r->desc.batCacheid, "tail")), &why)) return nullptr;
  DropBat(r->desc.batCacheid);
  return createException(IO, place, "%s", why.c_str());
}

char* CheckWritable(const char* place) {
  Kernel& k = K();
  if (k.farm.empty()) return createException(MAL, place, "persistent BATs need an open farm");
  if (k.read_only) return createException(MAL, place, "farm %s is open read-only", k.farm.c_str());
  return nullptr;
}

}  // namespace
}  // namespace corvid

using namespace corvid;

extern "C" {

char* CVDbat_create(int type, const char* name, BUN capacity, bat* out) {
  if (type <= TYPE_void || ATOMsize(type) < 0)
    return createException(ILLARG, "CVDbat_create", "cannot make a BAT of type %d", type);
  if (name) {
    if (char* err = CheckWritable("CVDbat_create")) return err;
    if (!ValidBatName(name))
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
    if (char* err = MakeBatDir("CVDbat_create", r)) return err;
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
  return r && r->desc.batPersistent && !r->name.empty() ? r->name.c_str() : nullptr;
}

char* CVDbat_create_replacement(bat target, int type, bat* out) {
  if (char* err = CheckWritable("CVDbat_create_replacement")) return err;
  BatRec* t = Rec(target);
  if (!t || !t->desc.batPersistent || t->name.empty())
    return createException(ILLARG, "CVDbat_create_replacement",
                           "BAT %d is not a named persistent BAT", target);
  if (t->replaced_by != 0)
    return createException(ILLARG, "CVDbat_create_replacement",
                           "BAT %d (%s) already has a replacement, BAT %d", target, t->name.c_str(),
                           t->replaced_by);
  if (type <= TYPE_void || ATOMsize(type) < 0)
    return createException(ILLARG, "CVDbat_create_replacement", "cannot make a BAT of type %d",
                           type);
  BatRec* r = NewBat(type, 0);
  if (!r) return createException(MAL, "CVDbat_create_replacement", "out of memory");
  r->lrefs = 1;
  r->desc.batPersistent = 1;
  if (char* err = MakeBatDir("CVDbat_create_replacement", r)) return err;
  r->replaces = target;
  Rec(target)->replaced_by = r->desc.batCacheid;  // NewBat may have moved the pool
  if (out) *out = r->desc.batCacheid;
  return nullptr;
}

char* CVDbat_set_sqltype(bat id, const char* sqltype) {
  BatRec* r = Rec(id);
  if (!r || !r->desc.batPersistent)
    return createException(ILLARG, "CVDbat_set_sqltype", "BAT %d is not a persistent BAT", id);
  if (!sqltype || !ValidSqlType(sqltype))
    return createException(ILLARG, "CVDbat_set_sqltype",
                           "SQL type of BAT %d is missing, longer than 1024 bytes or holds "
                           "control characters",
                           id);
  r->sqltype = sqltype;
  return nullptr;
}

const char* CVDbat_sqltype(bat id) {
  BatRec* r = Rec(id);
  return r && r->desc.batPersistent ? r->sqltype.c_str() : nullptr;
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
