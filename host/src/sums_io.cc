// Sums files on disk: reading them, checking a loaded BAT against them, and the commit's
// step that writes the sums of every column file it changes.
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <memory>
#include <mutex>
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

// The sums a commit makes, hashed in pieces of kPieceBlocks blocks by helper threads and by
// the commit's own thread once it has nothing else to do. The pieces write distinct blocks.
class SumsHasher {
 public:
  struct Job {
    size_t entry = 0;
    int which = 0;               // 0 tail, 1 string heap
    const char* data = nullptr;  // the bytes in use: heap memory, or `map`
    size_t n = 0;
    void* map = nullptr;  // a private mapping of the file, or null
    int fd = -1;          // the file, read for hashing: mapped pages cost more than a read
    std::string path;     // of the file, for messages
    BlockSums sums;
    size_t first = 0;  // blocks before it were kept from the previous sums
  };

  SumsHasher() = default;
  SumsHasher(const SumsHasher&) = delete;
  SumsHasher& operator=(const SumsHasher&) = delete;
  ~SumsHasher() {
    std::string ignored;
    Finish(&ignored);
    for (Job& j : jobs) {
      if (j.map != nullptr) ::munmap(j.map, j.n);
      if (j.fd >= 0) ::close(j.fd);
    }
  }

  void Start() {
    for (size_t j = 0; j < jobs.size(); j++)
      for (size_t b = jobs[j].first; b < BlockCount(jobs[j].n); b += kPieceBlocks)
        pieces_.push_back({j, b, std::min(b + kPieceBlocks, BlockCount(jobs[j].n))});
    // The commit's own thread mostly waits for the disk meanwhile: one helper per core.
    const size_t helpers = std::min<size_t>(pieces_.size() / 2, kHelpers);
    try {
      for (size_t i = 0; i < helpers; i++) helpers_.emplace_back([this] { Work(); });
    } catch (...) {  // no more threads to be had: the others and Finish hash the rest
    }
  }

  // False with *why when a file could not be read.
  bool Finish(std::string* why) {
    Work();
    for (std::thread& t : helpers_) t.join();
    helpers_.clear();
    if (failed_.load()) *why = failure_;
    return !failed_.load();
  }

  std::vector<Job> jobs;

 private:
  static constexpr size_t kPieceBlocks = 64;  // 4 MiB
  static constexpr size_t kHelpers = 2;
  struct Piece {
    size_t job, first, last;
  };

  void Work() {
    std::unique_ptr<char[]> buffer;  // not zeroed: every byte hashed is read first
    for (size_t i; (i = next_.fetch_add(1)) < pieces_.size() && !failed_.load();) {
      const Piece& piece = pieces_[i];
      Job& j = jobs[piece.job];
      if (j.fd < 0) {
        HashBlocks(j.data, j.n, piece.first, piece.last, &j.sums);
        continue;
      }
      const size_t start = piece.first * kSumBlock;
      const size_t n = std::min(piece.last * kSumBlock, j.n) - start;
      if (!buffer) buffer.reset(new char[kPieceBlocks * kSumBlock]);
      size_t got = 0;
      while (got < n) {
        const ssize_t r = ::pread(j.fd, buffer.get() + got, n - got, static_cast<off_t>(start + got));
        if (r <= 0) {
          Fail("cannot read " + j.path + ": " + (r == 0 ? "it ended early" : ErrnoText(errno)));
          return;
        }
        got += static_cast<size_t>(r);
      }
      for (size_t b = piece.first; b < piece.last; b++) {
        const size_t at = (b - piece.first) * kSumBlock;
        j.sums.blocks[b] = HashBlock(buffer.get() + at, std::min(kSumBlock, n - at), b,
                                     j.sums.width == 0);
      }
    }
  }

  void Fail(std::string why) {
    std::lock_guard<std::mutex> hold(failure_mutex_);
    if (failed_.load()) return;
    failure_ = std::move(why);
    failed_.store(true);
  }

  std::vector<Piece> pieces_;
  std::atomic<size_t> next_{0};
  std::vector<std::thread> helpers_;
  std::mutex failure_mutex_;
  std::atomic<bool> failed_{false};
  std::string failure_;  // the first read that failed; set once, under failure_mutex_
};

void SumsHasherDeleter::operator()(SumsHasher* h) const { delete h; }

bool StartSums(CommitPlan* p, std::string* why) {
  p->hasher.reset(new SumsHasher);
  for (size_t i = 0; i < p->recs.size(); i++) {
    const BatRec& r = *p->recs[i];
    const BAT& b = r.desc;
    const bool rewritten = (b.batStatus & BATSTATUS_REWRITTEN) != 0;
    const bool str = b.ttype == TYPE_str;
    // The heaps WriteColumnFiles writes from memory (it runs after this, so that the hashing
    // overlaps its flushes): those of the kernel's own loaded and dirty BATs.
    const bool dirty = b.batDirty || b.theap.dirty || (str && b.tvheap->dirty);
    const bool from_memory = !rewritten && HeapsLoaded(&b) && dirty;
    for (int which = 0; which < (str ? 2 : 1); which++) {
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
        j.fd = fd;
        j.path = path;
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

bool FinishSums(CommitPlan* p, std::string* why) {
  return p->hasher == nullptr || p->hasher->Finish(why);
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
