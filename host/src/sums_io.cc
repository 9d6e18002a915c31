// Sums files on disk: reading them, checking a loaded BAT against them, and the commit's
// step that writes the sums of every column file it changes.
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>

#include "catalog.h"
#include "commit.h"
#include "fileio.h"
#include "internal.h"
#include "sums.h"

namespace corvid {
namespace {

std::string Label(const BatRec& r) {
  return "BAT " + std::to_string(r.desc.batCacheid) + " (" +
         (r.name.empty() ? std::string("unnamed") : r.name) + ")";
}

// Sums of the first n bytes of the file at path, extended from `old`. The file was written
// by the copy-into library and is in the page cache: a populated private mapping reads it
// without a copy.
bool SumsOfFile(const std::string& path, size_t n, const BlockSums* old, uint32_t width, bool heap,
                BlockSums* out, std::string* why) {
  if (n == 0) return ExtendSums(old, nullptr, 0, width, heap, out, why);
  const int fd = SysOpen(path.c_str(), O_RDONLY);
  if (fd < 0) {
    *why = "cannot open " + path + ": " + ErrnoText(errno);
    return false;
  }
  void* p = SysMmap(n, PROT_READ, MAP_PRIVATE | MAP_POPULATE, fd);
  const int err = errno;
  ::close(fd);
  if (p == MAP_FAILED) {
    *why = "cannot map " + path + ": " + ErrnoText(err);
    return false;
  }
  std::string bad;
  const bool ok = ExtendSums(old, static_cast<const char*>(p), n, width, heap, out, &bad);
  ::munmap(p, n);
  if (!ok) *why = path + ": " + bad;
  return ok;
}

}  // namespace

bool ReadSums(const std::string& path, BlockSums* s, std::string* why) {
  std::string bytes, bad;
  if (!ReadWhole(path, &bytes, why)) {
    if (errno == ENOENT) *why = "checksum file " + path + " is missing";
    return false;
  }
  if (DecodeSums(bytes, s, &bad)) return true;
  *why = "checksum file " + path + " " + bad;
  return false;
}

bool CheckLoadedSums(const BatRec& r, std::string* why) {
  const BAT& b = r.desc;
  for (int which = 0; which < (b.tvheap ? 2 : 1); which++) {
    const Heap& h = which == 0 ? b.theap : *b.tvheap;
    const std::string file = LoadPath(b.batCacheid, KindExt(which));
    BlockSums s;
    if (!ReadSums(LoadPath(b.batCacheid, KindExt(which + 2)), &s, why)) return false;
    if (s.covered != h.free) {
      *why = "the checksums of " + file + " cover " + std::to_string(s.covered) +
             " bytes, the catalog describes " + std::to_string(h.free);
      return false;
    }
    const std::vector<size_t> bad = BadBlocks(s, h.base, h.free);
    if (!bad.empty()) {
      *why = file + ": " + BlockText(bad[0], h.free) + " does not match its checksum";
      if (bad.size() > 1) *why += " (nor do " + std::to_string(bad.size() - 1) + " more blocks)";
      return false;
    }
  }
  return true;
}

bool WriteSums(CommitPlan* p, std::string* why) {
  for (size_t i = 0; i < p->recs.size(); i++) {
    const BatRec& r = *p->recs[i];
    const BAT& b = r.desc;
    CatalogEntry& e = p->cat.bats[i];
    const bool rewritten = (b.batStatus & BATSTATUS_REWRITTEN) != 0;
    for (int which = 0; which < (b.ttype == TYPE_str ? 2 : 1); which++) {
      const bool from_memory = (e.pending & KindPendingBit(which)) != 0;
      if (!from_memory && !rewritten && r.summed) continue;  // the committed sums hold
      const Heap& h = which == 0 ? b.theap : *b.tvheap;
      const uint32_t width = which == 0 ? b.twidth : 0;
      BlockSums old, sums;
      std::string err;
      if (r.summed && !ReadSums(BatPath(b.batCacheid, KindExt(which + 2)), &old, &err)) {
        *why = Label(r) + ": cannot extend its checksums: " + err;
        return false;
      }
      const BlockSums* base = r.summed ? &old : nullptr;
      const bool ok = from_memory ? ExtendSums(base, h.base, h.free, width, which == 1, &sums, &err)
                                  : SumsOfFile(BatPath(b.batCacheid, KindExt(which)), h.free, base,
                                               width, which == 1, &sums, &err);
      if (!ok) {
        *why = Label(r) + ": cannot extend its checksums: " + err;
        return false;
      }
      CommitPlan::File f;
      f.path = BatPath(b.batCacheid, KindExt(which + 2));
      f.pending = PendingPath(f.path, p->cat.version, p->cat.generation);
      f.backup = f.path + ".prev";
      f.written = true;
      p->files.push_back(f);
      p->dirs.insert(DirOf(f.path));
      e.pending |= KindPendingBit(which + 2);
      const std::string bytes = EncodeSums(sums);
      if (!WriteDurable(f.pending, bytes.data(), bytes.size(), why)) return false;
    }
  }
  return true;
}

}  // namespace corvid
