// Sums files on disk: reading them, checking a loaded BAT against them, and the commit's
// step that writes the sums of every column file it changes.
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <thread>

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

// The sums a commit makes, hashed in pieces of kPieceBlocks blocks by a helper thread and by
// the commit's own thread once it has nothing else to do. The pieces write distinct blocks.
class SumsHasher {
 public:
  struct Job {
    size_t entry = 0;
    int which = 0;               // 0 tail, 1 string heap
    const char* data = nullptr;  // the bytes in use: heap memory, or `map`
    size_t n = 0;
    void* map = nullptr;  // a private mapping of the file, or null
    BlockSums sums;
    size_t first = 0;  // blocks before it were kept from the previous sums
  };

  SumsHasher() = default;
  SumsHasher(const SumsHasher&) = delete;
  SumsHasher& operator=(const SumsHasher&) = delete;
  ~SumsHasher() {
    Finish();
    for (Job& j : jobs)
      if (j.map != nullptr) ::munmap(j.map, j.n);
  }

  void Start() {
    for (size_t j = 0; j < jobs.size(); j++)
      for (size_t b = jobs[j].first; b < BlockCount(jobs[j].n); b += kPieceBlocks)
        pieces_.push_back({j, b, std::min(b + kPieceBlocks, BlockCount(jobs[j].n))});
    if (pieces_.size() < 2) return;  // not worth a thread
    try {
      helper_ = std::thread([this] { Work(); });
    } catch (...) {  // no thread to be had: Finish hashes alone
    }
  }

  void Finish() {
    Work();
    if (helper_.joinable()) helper_.join();
  }

  std::vector<Job> jobs;

 private:
  static constexpr size_t kPieceBlocks = 64;  // 4 MiB
  struct Piece {
    size_t job, first, last;
  };

  void Work() {
    for (size_t i; (i = next_.fetch_add(1)) < pieces_.size();) {
      Job& j = jobs[pieces_[i].job];
      HashBlocks(j.data, j.n, pieces_[i].first, pieces_[i].last, &j.sums);
    }
  }

  std::vector<Piece> pieces_;
  std::atomic<size_t> next_{0};
  std::thread helper_;
};

void SumsHasherDeleter::operator()(SumsHasher* h) const { delete h; }

bool StartSums(CommitPlan* p, std::string* why) {
  p->hasher.reset(new SumsHasher);
  for (size_t i = 0; i < p->recs.size(); i++) {
    const BatRec& r = *p->recs[i];
    const BAT& b = r.desc;
    CatalogEntry& e = p->cat.bats[i];
    const bool rewritten = (b.batStatus & BATSTATUS_REWRITTEN) != 0;
    for (int which = 0; which < (b.ttype == TYPE_str ? 2 : 1); which++) {
      const bool from_memory = (e.pending & KindPendingBit(which)) != 0;
      if (!from_memory && !rewritten && r.summed) continue;  // the committed sums hold
      p->hasher->jobs.emplace_back();
      SumsHasher::Job& j = p->hasher->jobs.back();
      j.entry = i;
      j.which = which;
      const Heap& h = which == 0 ? b.theap : *b.tvheap;
      j.n = h.free;
      BlockSums old;
      std::string err;
      if (r.summed && !ReadSums(BatPath(b.batCacheid, KindExt(which + 2)), &old, &err)) {
        *why = Label(r) + ": cannot extend its checksums: " + err;
        return false;
      }
      const std::string path = BatPath(b.batCacheid, KindExt(which));
      j.data = h.base;
      if (!from_memory && j.n > 0) {  // the file, which the copy-into library just wrote
        const int fd = SysOpen(path.c_str(), O_RDONLY);
        j.map = fd < 0 ? MAP_FAILED : SysMmap(j.n, PROT_READ, MAP_PRIVATE, fd);
        const int err_no = errno;
        if (fd >= 0) ::close(fd);
        if (j.map == MAP_FAILED) {
          j.map = nullptr;
          *why = Label(r) + ": cannot read " + path + ": " + ErrnoText(err_no);
          return false;
        }
        j.data = static_cast<const char*>(j.map);
      }
      if (!StartExtension(r.summed ? &old : nullptr, j.data, j.n, which == 0 ? b.twidth : 0,
                          which == 1, &j.sums, &j.first, &err)) {
        *why = Label(r) + ": cannot extend its checksums: " + path + ": " + err;
        return false;
      }
    }
  }
  p->hasher->Start();
  return true;
}

void FinishSums(CommitPlan* p) {
  if (p->hasher) p->hasher->Finish();
}

bool WriteSums(CommitPlan* p, std::string* why) {
  for (const SumsHasher::Job& j : p->hasher->jobs) {
    CatalogEntry& e = p->cat.bats[j.entry];
    CommitPlan::File f;
    f.path = BatPath(e.desc.batCacheid, KindExt(j.which + 2));
    f.pending = PendingPath(f.path, p->cat.version, p->cat.generation);
    f.backup = f.path + ".prev";
    f.written = true;
    p->files.push_back(f);
    p->dirs.insert(DirOf(f.path));
    p->hashed[j.entry] = true;
    e.pending |= KindPendingBit(j.which + 2);
    const std::string bytes = EncodeSums(j.sums);
    if (!WriteDurable(f.pending, bytes.data(), bytes.size(), why)) return false;
  }
  return true;
}

}  // namespace corvid
