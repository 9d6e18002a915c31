// The tail property flags (sorted, revsorted, key, no-nil): kept up to date on appends,
// checked against the data by BATpropcheck and by the commit, and remembered once checked
// so that the same data is not scanned twice.
#include <algorithm>
#include <vector>

#include "internal.h"

namespace corvid {

int PropBits(const BAT& b) {
  return (b.tsorted ? 1 : 0) | (b.trevsorted ? 2 : 0) | (b.tkey ? 4 : 0) | (b.tnonil ? 8 : 0);
}

void PropStamp::Take(const BAT& b) {
  valid = true;
  count = b.batCount;
  tail_free = b.theap.free;
  heap_free = b.tvheap ? b.tvheap->free : 0;
  width = b.twidth;
  props = PropBits(b);
}

bool PropStamp::Covers(const BAT& b) const {
  return valid && !(b.batStatus & BATSTATUS_REWRITTEN) && count == b.batCount &&
         tail_free == b.theap.free && heap_free == (b.tvheap ? b.tvheap->free : 0) &&
         width == b.twidth && (PropBits(b) & ~props) == 0;
}

void NoteAppended(BAT* b, BUN first) {
  if (BatRec* r = Rec(b->batCacheid); r && &r->desc == b) r->checked.valid = false;
  const BUN from = first > 0 ? first - 1 : 0;  // the row before the new ones joins them
  bool sorted = true, revsorted = true, distinct = true, nonil = true;
  if (!ScanPlainTail(b, from, b->batCount, &sorted, &revsorted, &distinct, &nonil)) {
    alignas(8) unsigned char s1[8], s2[8];
    const void* nil = ATOMnil(b->ttype);
    for (BUN i = from; i < b->batCount; i++) {
      const void* cur = TailValue(b, i, s1);
      if (ATOMcmp(b->ttype, cur, nil) == 0) nonil = false;
      if (i == from) continue;
      int c = ATOMcmp(b->ttype, TailValue(b, i - 1, s2), cur);
      if (c > 0) sorted = false;
      if (c < 0) revsorted = false;
      if (c == 0) distinct = false;
    }
  }
  if (!nonil) b->tnonil = 0;
  if (b->batCount - from < 2) return;  // a first row has nothing to be ordered against
  if (!sorted) b->tsorted = 0;
  if (!revsorted) b->trevsorted = 0;
  if (!distinct || (!b->tsorted && !b->trevsorted)) b->tkey = 0;  // unknown is not key
}

bool CheckClaims(BAT* b) {
  if (!b->tsorted && !b->trevsorted && !b->tkey && !b->tnonil) return true;  // nothing to clear
  const int t = b->ttype;
  alignas(8) unsigned char s1[8], s2[8];
  bool sorted = true, revsorted = true, adjacent_distinct = true, nonil = true;
  const void* nil = ATOMnil(t);
  if (!ScanPlainTail(b, 0, b->batCount, &sorted, &revsorted, &adjacent_distinct, &nonil)) {
    for (BUN i = 0; i < b->batCount; i++) {
      const void* v = TailValue(b, i, s1);
      if (!v) return false;  // an unreadable row: nothing can be told
      if (ATOMcmp(t, v, nil) == 0) nonil = false;
      if (i == 0) continue;
      int c = ATOMcmp(t, TailValue(b, i - 1, s2), TailValue(b, i, s1));
      if (c > 0) sorted = false;
      if (c < 0) revsorted = false;
      if (c == 0) adjacent_distinct = false;
    }
  }
  bool key = adjacent_distinct;
  if (key && !sorted && !revsorted && b->tkey) {  // only an unordered tail needs the full check
    std::vector<BUN> rows(b->batCount);
    for (BUN i = 0; i < b->batCount; i++) rows[i] = i;
    auto less = [&](BUN x, BUN y) {
      return ATOMcmp(t, TailValue(b, x, s1), TailValue(b, y, s2)) < 0;
    };
    std::sort(rows.begin(), rows.end(), less);
    for (BUN i = 1; i < rows.size() && key; i++)
      key = ATOMcmp(t, TailValue(b, rows[i - 1], s1), TailValue(b, rows[i], s2)) != 0;
  }
  auto clear = [&](uint8_t* flag, bool holds) {
    if (*flag && !holds) {
      *flag = 0;
      b->batDirtydesc = 1;
    }
  };
  clear(&b->tsorted, sorted);
  clear(&b->trevsorted, revsorted);
  clear(&b->tkey, key);
  clear(&b->tnonil, nonil);
  return true;
}

}  // namespace corvid

extern "C" {

void BATpropcheck(BAT* b) {
  if (!b || (b->ttype != TYPE_void && !corvid::HeapsLoaded(b))) return;
  corvid::BatRec* r = corvid::Rec(b->batCacheid);
  const bool ours = r && &r->desc == b;
  if (ours && r->checked.Covers(*b)) return;  // the commit checked these very flags
  if (corvid::CheckClaims(b) && ours) r->checked.Take(*b);
}

}  // extern "C"
