// Opening and closing a farm: the writer's lock, a fresh farm's first catalog, the checks
// that decide whether the farm may be opened, and a writer's tidying of what interrupted
// commits and exports left behind.
#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "catalog.h"
#include "corvid/exception.h"
#include "corvid/farm.h"
#include "fileio.h"
#include "internal.h"
#include "logger.h"
#include "sums.h"

namespace corvid {
namespace {

bool IsOctal(const char* s) {
  if (!*s) return false;
  for (; *s; s++)
    if (*s < '0' || *s > '7') return false;
  return true;
}

// Calls fn(path) for every file in the farm's bat directory that is named like a column
// file ("<octal dir>/<octal id>.<anything>"); other files are none of the kernel's business.
template <typename Fn>
bool ForEachColumnFile(const std::string& bat_dir, Fn fn) {
  DIR* top = ::opendir(bat_dir.c_str());
  if (!top) return true;
  bool go_on = true;
  while (struct dirent* d = ::readdir(top)) {
    if (!IsOctal(d->d_name)) continue;
    const std::string sub = bat_dir + "/" + d->d_name;
    DIR* in = ::opendir(sub.c_str());
    if (!in) continue;
    while (go_on) {
      struct dirent* f = ::readdir(in);
      if (!f) break;
      const char* dot = std::strchr(f->d_name, '.');
      if (!dot || dot == f->d_name) continue;
      std::string id(f->d_name, static_cast<size_t>(dot - f->d_name));
      size_t size;
      if (IsOctal(id.c_str()) && FileSize(sub + "/" + f->d_name, &size))
        go_on = fn(sub + "/" + f->d_name);
    }
    ::closedir(in);
    if (!go_on) break;
  }
  ::closedir(top);
  return go_on;
}

bool DirExists(const std::string& path) {
  struct stat st;
  return ::stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

// Takes the writer's lock of the farm and writes this process's id into the lock file.
char* Lock(const std::string& farm, int* fd_out) {
  const std::string path = farm + "/lock";
  int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
  if (fd < 0)
    return createException(IO, "CVDfarm_open", "cannot open the lock file %s: %s", path.c_str(),
                           ErrnoText(errno).c_str());
  if (::flock(fd, LOCK_EX | LOCK_NB) != 0) {
    const int err = errno;
    ::close(fd);
    if (err != EWOULDBLOCK)
      return createException(IO, "CVDfarm_open", "cannot lock %s: %s", path.c_str(),
                             ErrnoText(err).c_str());
    std::string holder, why;
    ReadWhole(path, &holder, &why);
    while (!holder.empty() && (holder.back() == '\n' || holder.back() == ' ')) holder.pop_back();
    if (holder.empty() || holder.find_first_not_of("0123456789") != std::string::npos)
      holder = "unknown";
    return createException(MAL, "CVDfarm_open", "farm %s is locked by another writer (process %s)",
                           farm.c_str(), holder.c_str());
  }
  const std::string pid = std::to_string(::getpid()) + "\n";
  if (::ftruncate(fd, 0) != 0 || ::pwrite(fd, pid.data(), pid.size(), 0) < 0) {
    const int err = errno;
    ::close(fd);
    return createException(IO, "CVDfarm_open", "cannot write %s: %s", path.c_str(),
                           ErrnoText(err).c_str());
  }
  *fd_out = fd;
  return nullptr;
}

// The first catalog of a new farm, written as every later one is: a temporary file, flushed,
// renamed into place, and the directory flushed.
bool MakeFarm(const std::string& farm, Catalog* cat, std::string* why) {
  const std::string catalog = farm + "/catalog";
  if (!RemoveFile(catalog + ".new", why) || !MakeDirs(farm + "/bat", why) ||
      !MakeDirs(farm + "/log", why))
    return false;
  const std::string text = SerializeCatalog(*cat);
  if (!WriteDurable(catalog + ".new", text.data(), text.size(), why) ||
      !Rename(catalog + ".new", catalog, why)) {
    std::string ignored;
    RemoveFile(catalog + ".new", &ignored);
    return false;
  }
  return SyncPath(farm, why);
}

// Finishes the renames of a commit that stopped after its catalog was in place.
bool Recover(const Catalog& c, std::string* why) {
  std::set<std::string> dirs;
  for (const CatalogEntry& e : c.bats) {
    for (int i = 0; i < kFileKinds; i++) {
      if (!(e.pending & KindPendingBit(i))) continue;
      const std::string path = BatPath(e.desc.batCacheid, KindExt(i));
      const std::string pending = PendingPath(path, c.version, c.generation);
      size_t n;
      if (!FileSize(pending, &n)) continue;
      if (!Rename(pending, path, why)) return false;
      dirs.insert(DirOf(path));
    }
  }
  for (const std::string& d : dirs)
    if (!SyncPath(d, why)) return false;
  return true;
}

// Removes what no catalog entry names: the catalog's temporary and backup copies, pending
// files of commits that never took effect, backups of commits that did, and the files of
// replaced BATs and of exports that were never committed.
bool Sweep(const std::string& farm, const Catalog& c, std::string* why) {
  if (!RemoveFile(farm + "/catalog.new", why) || !RemoveFile(farm + "/catalog.prev", why))
    return false;
  std::set<std::string> named;
  for (const CatalogEntry& e : c.bats) {
    for (int i = 0; i < kFileKinds; i++)
      if (e.desc.ttype == TYPE_str || i % 2 == 0)
        named.insert(BatPath(e.desc.batCacheid, KindExt(i)));
  }
  return ForEachColumnFile(farm + "/bat", [&](const std::string& path) {
    return named.count(path) != 0 || RemoveFile(path, why);
  });
}

}  // namespace

std::string LoadPath(bat i, const char* ext) {
  std::string path = BatPath(i, ext);
  const BatRec* r = Rec(i);
  const int bit = KindPendingBit(KindOf(ext));
  if (!r || !(r->pending & bit)) return path;
  std::string pending = PendingPath(path, K().catalog_version, K().generation);
  size_t n;
  return FileSize(pending, &n) ? pending : path;
}

char* OpenFarm(const char* dir, int flags, bool check_files) {
  Kernel& k = K();
  if (!dir || !*dir) return createException(ILLARG, "CVDfarm_open", "no farm directory given");
  if ((flags & ~(CVD_FARM_CREATE | CVD_FARM_READONLY)) != 0 ||
      (flags & CVD_FARM_CREATE && flags & CVD_FARM_READONLY))
    return createException(ILLARG, "CVDfarm_open", "bad flags %d", flags);
  if (!k.farm.empty())
    return createException(MAL, "CVDfarm_open", "farm %s is already open", k.farm.c_str());
  const bool read_only = flags & CVD_FARM_READONLY, create = flags & CVD_FARM_CREATE;
  std::string farm = dir, why, text;
  while (farm.size() > 1 && farm.back() == '/') farm.pop_back();
  const std::string catalog = farm + "/catalog";
  size_t size;
  if (!create && !read_only && !FileSize(catalog, &size))  // nothing to lock, nothing to change
    return createException(IO, "CVDfarm_open", "catalog %s is missing", catalog.c_str());
  if (create && !MakeDirs(farm, &why))
    return createException(IO, "CVDfarm_open", "%s", why.c_str());
  int lock_fd = -1;
  if (!read_only)
    if (char* err = Lock(farm, &lock_fd)) return err;
  // From here on every failure lets go of the lock and of the bat directory.
  auto fail = [&](char* err) {
    if (lock_fd >= 0) ::close(lock_fd);
    k.bat_dir.clear();
    return err;
  };
  Catalog cat;
  if (!FileSize(catalog, &size)) {
    // A farm whose first catalog was never put in place holds no column files yet.
    const bool half_made =
        DirExists(farm) &&
        ForEachColumnFile(farm + "/bat", [](const std::string&) { return false; });
    if (!half_made || !(create || read_only))
      return fail(createException(IO, "CVDfarm_open", "catalog %s is missing%s", catalog.c_str(),
                                  create && DirExists(farm)
                                      ? ", and the farm holds column files: not making a new "
                                        "farm over them"
                                      : ""));
    if (create && !MakeFarm(farm, &cat, &why))
      return fail(createException(IO, "CVDfarm_open", "%s", why.c_str()));
  } else if (!ReadWhole(catalog, &text, &why) || !ParseCatalog(text, &cat, &why)) {
    return fail(createException(IO, "CVDfarm_open", "%s: %s", catalog.c_str(), why.c_str()));
  }
  k.bat_dir = farm + "/bat";
  for (const CatalogEntry& e : cat.bats)
    if (Rec(e.desc.batCacheid))
      return fail(createException(MAL, "CVDfarm_open", "BAT id %d is in use by a transient BAT",
                                  e.desc.batCacheid));
  if (check_files && !CheckCatalogFiles(cat, &why))
    return fail(createException(IO, "CVDfarm_open", "%s", why.c_str()));
  if (!read_only && (!Recover(cat, &why) || !Sweep(farm, cat, &why)))
    return fail(createException(IO, "CVDfarm_open", "%s", why.c_str()));
  for (const CatalogEntry& e : cat.bats) {
    bat id = e.desc.batCacheid;
    if (k.pool.size() <= static_cast<size_t>(id)) k.pool.resize(id + 1);
    auto rec = std::make_unique<BatRec>();
    rec->desc = e.desc;
    rec->desc.tailRows = e.desc.theap.free / e.desc.twidth;
    rec->name = e.name;
    rec->sqltype = e.sqltype;
    rec->pending = read_only ? e.pending : 0;  // a writer's Recover has renamed them
    rec->summed = cat.version >= kFirstSummedVersion;
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
  k.catalog_version = cat.version;
  k.next_oid = cat.next_oid;
  k.read_only = read_only;
  k.lock_fd = lock_fd;
  k.lg = LoggerOpen(farm + "/log", read_only);
  return nullptr;
}

}  // namespace corvid

using namespace corvid;

extern "C" {

char* CVDfarm_open(const char* dir, int flags) { return OpenFarm(dir, flags, true); }

void CVDfarm_close(void) {
  Kernel& k = K();
  k.pool.clear();
  WaitForReleases();  // a closed farm holds no memory
  if (!k.read_only) {
    std::string ignored;  // what will not go now, the next writer's open removes
    for (const std::string& path : k.leftovers) RemoveFile(path, &ignored);
  }
  k.leftovers.clear();
  k.reserved.clear();
  // Closing the descriptor ends the lock unless a forked child still holds a copy of it; the
  // lock is never released explicitly, which would end it for that child's parent as well.
  if (k.lock_fd >= 0) ::close(k.lock_fd);
  k.lock_fd = -1;
  LoggerClose(k.lg);
  k.lg = nullptr;
  k.farm.clear();
  k.bat_dir.clear();
  k.generation = 0;
  k.next_oid = 0;
  k.catalog_version = 0;
  k.read_only = false;
}

const char* CVDfarm_dir(void) { return K().farm.empty() ? nullptr : K().farm.c_str(); }

logger* CVDfarm_logger(void) { return K().lg; }

}  // extern "C"
