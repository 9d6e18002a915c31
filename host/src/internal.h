// Kernel-internal state shared by the buffer pool, BAT, farm and commit sources. Not part of
// the host interface.
// Threading: everything here belongs to the thread that holds BBPlock (or the single thread
// of a tool or test that does not take it).
#ifndef CORVID_SRC_INTERNAL_H_
#define CORVID_SRC_INTERNAL_H_

#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "corvid/gdk.h"

namespace corvid {

// What a check of a BAT's property flags saw. While the BAT still matches it (same rows,
// sizes and width, no claim beyond the checked ones, not rewritten since), the flags are
// known to be true and BATpropcheck need not scan the data again.
struct PropStamp {
  bool valid = false;
  BUN count = 0;
  size_t tail_free = 0, heap_free = 0;
  uint16_t width = 0;
  int props = 0;  // PropBits of the checked flags

  void Take(const BAT& b);
  bool Covers(const BAT& b) const;
};

int PropBits(const BAT& b);  // sorted 1, revsorted 2, key 4, nonil 8

// One buffer-pool entry: the descriptor plus what the pool itself keeps about it.
struct BatRec {
  BatRec() = default;
  BatRec(const BatRec&) = delete;
  BatRec& operator=(const BatRec&) = delete;
  ~BatRec();

  BAT desc{};
  Heap vheap{};         // the string heap; desc.tvheap points here for str BATs
  std::string name;     // logical name; empty for a transient BAT or a pending replacement
  std::string sqltype;  // SQL type of a persistent BAT's column, "" when none was set
  bat replaces = 0;     // a replacement: the BAT whose name it takes at the next commit
  bat replaced_by = 0;  // the pending replacement of this BAT, 0 when none
  int pending = 0;      // kPending* bits: a read-only farm reads these files from the
                        // pending copies while the writer's commit has not renamed them
  PropStamp checked;    // the last check of the property flags
  bool summed = false;  // its committed column files have sums files (sums.h)
  // The last commit hashed its files for new sums: the next load within the same hold of
  // BBPlock (fresh_epoch) reads the very bytes just hashed and does not check them again.
  bool sums_fresh = false;
  uint64_t fresh_epoch = 0;
  int lrefs = 0;                             // logical references: keep the BAT alive
  int prefs = 0;                             // physical references (fixes): keep its heaps loaded
  bool cold = false;                         // heaps may be unloaded once nobody fixes the BAT
  alignas(8) unsigned char scratch[8] = {};  // value handed out by BUNtail for computed tails
};

struct Kernel {
  std::mutex bbp_mutex;                       // BBPlock
  std::string farm;                           // farm directory, empty while closed
  std::string bat_dir;                        // farm + "/bat"
  std::vector<std::unique_ptr<BatRec>> pool;  // indexed by BAT id; slot 0 is never used
  oid next_oid = 0;                           // OIDnew counter, persisted by the commit
  uint64_t generation = 0;                    // commits made to this farm
  int catalog_version = 0;                    // of the catalog last read or written
  logger* lg = nullptr;
  bool read_only = false;  // CVD_FARM_READONLY: nothing on disk may change
  int lock_fd = -1;        // a writer's lock file, held from open to close
  // Files that a commit could not remove once it had taken effect, and the ids of dropped
  // BATs among them, which are not handed out again until the files are gone.
  std::vector<std::string> leftovers;
  std::set<bat> reserved;
  uint64_t lock_epoch = 0;  // BBPunlock calls so far
  int fail_commit_at = -1;  // test hook: fail the commit at step N (CVDfarm_fail_commit)
};

Kernel& K();
BatRec* Rec(bat i);  // nullptr for a free or out-of-range id

// Allocates a pool slot and a fresh descriptor of `type` with an empty tail; the id is the
// lowest free one.
BatRec* NewBat(int type, BUN capacity);
void DropBat(bat i);  // frees the entry and its memory

std::string Physical(bat i);                  // "07/0734" style name
std::string BatPath(bat i, const char* ext);  // "<farm>/bat/<physical>.<ext>"
// The file to load BAT i's heap from: BatPath, or in a read-only farm the pending copy that
// the last commit has not yet renamed into place.
std::string LoadPath(bat i, const char* ext);
std::string ErrnoText(int err);  // strerror with the number

// CVDfarm_open; check_files false skips the check of the column files' presence and sizes,
// for CVDfarm_verify, which reports each fault itself.
char* OpenFarm(const char* dir, int flags, bool check_files);

// Heaps.
bool HeapsLoaded(const BAT* b);
void FreeHeaps(BAT* b);
// Reads the heaps from the files as the descriptor describes them; on failure the
// descriptor is untouched and *why says what was wrong.
bool LoadHeaps(BAT* b, std::string* why);
bool EnsureHeapRoom(Heap* h, size_t need);  // grows h->base to at least `need` bytes
// Loaded heaps are private mappings of their files until something changes them: every
// path that writes into a heap first makes its memory the kernel's own.
bool MakeHeapOwned(Heap* h);
// A tail of an integer type stored narrower than the type (decimals): 1, 2 or 4 bytes.
bool IsNarrowInteger(const BAT* b);
// The property scan of rows [from, to) of a tail whose host order (nil first) is the
// plain order: signed integers whose nil is the type's smallest value, narrow integer
// tails, doubles without NaN or -inf. False, scanning nothing, for other tails.
bool ScanPlainTail(const BAT* b, BUN from, BUN to, bool* sorted, bool* revsorted, bool* distinct,
                   bool* nonil);
// Brings the property flags up to date after rows [first, batCount) were appended, exactly
// as appending them one by one does.
void NoteAppended(BAT* b, BUN first);
// Checks the sorted, revsorted, key and no-nil claims of loaded BAT b against its data and
// clears the false ones (marking the descriptor dirty). False, changing nothing, when a row
// cannot be read.
bool CheckClaims(BAT* b);
// Unmaps or frees base; base becomes null. Heaps of at least kReleaseLaterBytes are given
// back on a background thread (reclaim.cc).
void ReleaseHeapMemory(Heap* h);
inline constexpr size_t kReleaseLaterBytes = size_t{16} << 20;
// Waits until every heap handed to the background thread has been given back.
void WaitForReleases();

// The value of row i, or nullptr when out of range or not loaded. Computed values (void and
// narrow tails) go to `scratch` (8 bytes).
const void* TailValue(const BAT* b, BUN i, void* scratch);

// Appends; the error texts are exceptions ready to return.
char* AppendFixed(BAT* b, const void* value);
char* AppendString(BAT* b, const char* s);
void InitStringHeap(Heap* h);

}  // namespace corvid

#endif  // CORVID_SRC_INTERNAL_H_
