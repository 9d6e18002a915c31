// Kept apart from bat_writer.cc: it calls the host, and a program that links the writers
// without a host (some benchmarks do) must not pull it in.
#include "writers/bat_writer.h"

namespace qopci {

void DescribeWrittenBAT(BAT* b, BATWriter* w, BUN rows, bool sorted) {
  b->batCount = b->batCapacity = rows;
  b->theap.free = w->GetTailSize();
  b->theap.size = w->GetTailMappedSize();
  b->twidth = static_cast<uint16_t>(w->GetValueWidth());
  b->tshift = static_cast<uint16_t>(ATOMelmshift(b->twidth));
  b->tailRows = b->twidth != 0 ? b->theap.free / b->twidth : 0;
  b->tsorted = sorted ? 1 : 0;
  b->trevsorted = b->tkey = b->tnonil = b->tdense = 0;
  b->batDirty = b->batDirtydesc = 1;
  b->theap.dirty = 1;
  if (b->tvheap != nullptr) {
    b->tvheap->free = w->GetHeapSize();
    b->tvheap->size = w->GetHeapMappedSize();
    b->tvheap->dirty = 1;
  }
  b->batStatus |= BATSTATUS_REWRITTEN;
}

}  // namespace qopci
