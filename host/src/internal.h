// Kernel-internal state shared by the buffer pool, BAT, farm and commit sources. Not part of
// the host interface.
// Threading: everything here belongs to the thread that holds BBPlock (or the single thread
// of a tool or test that does not take it).
#ifndef CORVID_SRC_INTERNAL_H_
#define CORVID_SRC_INTERNAL_H_

#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "corvid/gdk.h"

namespace corvid {

// One buffer-pool entry: the descriptor plus what the pool itself keeps about it.
struct BatRec {
  BatRec() = default;
  BatRec(const BatRec&) = delete;
  BatRec& operator=(const BatRec&) = delete;
  ~BatRec();

  BAT desc{};
  Heap vheap{};       // the string heap; desc.tvheap points here for str BATs
  std::string name;   // logical name, empty for a transient BAT
  int lrefs = 0;      // logical references: keep the BAT alive
  int prefs = 0;      // physical references (fixes): keep its heaps loaded
  bool cold = false;  // heaps may be unloaded once nobody fixes the BAT
  alignas(8) unsigned char scratch[8] = {};  // value handed out by BUNtail for computed tails
};

struct Kernel {
  std::mutex bbp_mutex;                       // BBPlock
  std::string farm;                           // farm directory, empty while closed
  std::string bat_dir;                        // farm + "/bat"
  std::vector<std::unique_ptr<BatRec>> pool;  // indexed by BAT id; slot 0 is never used
  oid next_oid = 0;                           // OIDnew counter, persisted by the commit
  uint64_t generation = 0;                    // commits made to this farm
  logger* lg = nullptr;
  int fail_commit_at = -1;  // test hook: fail the commit before step N (see SetCommitFault)
};

Kernel& K();
BatRec* Rec(bat i);  // nullptr for a free or out-of-range id

// Allocates a pool slot and a fresh descriptor of `type` with an empty tail; the id is the
// lowest free one.
BatRec* NewBat(int type, BUN capacity);
void DropBat(bat i);  // frees the entry and its memory

std::string Physical(bat i);                  // "07/0734" style name
std::string BatPath(bat i, const char* ext);  // "<farm>/bat/<physical>.<ext>"
std::string ErrnoText(int err);               // strerror with the number

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
bool ScanPlainTail(const BAT* b, BUN from, BUN to, bool* sorted, bool* revsorted,
                   bool* distinct, bool* nonil);
// Brings the property flags up to date after rows [first, batCount) were appended, exactly
// as appending them one by one does.
void NoteAppended(BAT* b, BUN first);
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
