#include "readers/internal_reader.h"

#include <algorithm>

#include "corvid/strheap.h"

namespace qopci {

const void* BatIterator::At(BUN i) {
  if (b_->ttype == TYPE_void) {
    scratch_ = b_->tseqbase == oid_nil ? oid_nil
                                       : static_cast<oid>(b_->tseqbase - b_->hseqbase + i);
    return &scratch_;
  }
  if (b_->tvheap != nullptr) {
    const char* slot = b_->theap.base + (static_cast<size_t>(i) << b_->tshift);
    uint32_t v;
    switch (b_->twidth) {
      case 1: v = *reinterpret_cast<const uint8_t*>(slot); break;
      case 2: v = *reinterpret_cast<const uint16_t*>(slot); break;
      case 4: v = *reinterpret_cast<const uint32_t*>(slot); break;
      default: v = static_cast<uint32_t>(*reinterpret_cast<const uint64_t*>(slot)); break;
    }
    return b_->tvheap->base + cvd_str_heappos(v, b_->twidth) - b_->tvheap->baseoff;
  }
  return b_->theap.base + (static_cast<size_t>(i) << b_->tshift);
}

RegularInternalReader::RegularInternalReader(BAT* result, BAT* order)
    : type_(result->ttype),
      position_(static_cast<uint32_t>(order->batFirst)),
      end_(static_cast<uint32_t>(result->batCount)),
      result_iter_(result),
      order_iter_(order),
      result_(result),
      order_(order),
      runs_(order->ttype == TYPE_void && order->tseqbase != oid_nil &&
            result->ttype != TYPE_void && result->tvheap == nullptr &&
            result->twidth == ATOMsize(result->ttype)) {}

size_t RegularInternalReader::NextRun(const void** base, size_t max) {
  if (!runs_ || position_ >= end_) return 0;
  // The row ids position_, position_ + 1, ... of a dense order BAT are consecutive oids;
  // a dense head turns them into consecutive rows until one would reach nil or wrap.
  const oid first = static_cast<oid>(order_->tseqbase - order_->hseqbase + position_);
  if (first == oid_nil || first < result_->hseqbase) return 0;
  const uint64_t row = first - result_->hseqbase;
  if (row >= result_->batCount) return 0;
  uint64_t n = std::min<uint64_t>({max, end_ - position_, result_->batCount - row,
                                   (first < oid_nil ? oid_nil : uint64_t{UINT32_MAX} + 1) - first});
  *base = result_->theap.base + (row << result_->tshift);
  position_ += static_cast<uint32_t>(n);
  return static_cast<size_t>(n);
}

const void* RegularInternalReader::next() {
  const oid row_id = *static_cast<const oid*>(order_iter_.At(position_++));
  BUN row = BUNfnd(result_, &row_id);
  if (row == BUN_NONE) throw "Row id of the order BAT not found in the result column";
  return result_iter_.At(row);
}

SingleValInternalReader::SingleValInternalReader(BAT* column) : type_(column->ttype) {
  value_ = column->batCount > 0 ? BatIterator(column).At(0) : ATOMnil(type_);
  // A dense column's value lives in the iterator's scratch; keep it here instead.
  if (column->batCount > 0 && column->ttype == TYPE_void) {
    dense_value_ = *static_cast<const oid*>(value_);
    value_ = &dense_value_;
  }
}

}  // namespace qopci
