// Fuzzes the farm catalog parser: the input as it is, and the input with its checksum line
// made correct so that the fields behind it are reached. What parses must serialize and
// parse again to the same catalog.
#include <cstddef>
#include <cstdint>
#include <string>

#include "catalog.h"
#include "fuzz/fuzz_util.h"

namespace {

bool SameEntry(const corvid::CatalogEntry& a, const corvid::CatalogEntry& b) {
  const BAT &x = a.desc, &y = b.desc;
  const uint32_t kept = ~static_cast<uint32_t>(BATSTATUS_LOADED | BATSTATUS_REWRITTEN);
  return a.name == b.name && a.sqltype == b.sqltype && a.vfree == b.vfree && a.vsize == b.vsize &&
         a.pending == b.pending && x.batCacheid == y.batCacheid && x.ttype == y.ttype &&
         x.twidth == y.twidth && x.tshift == y.tshift && x.hseqbase == y.hseqbase &&
         x.batCount == y.batCount && x.batCapacity == y.batCapacity &&
         x.theap.free == y.theap.free && x.theap.size == y.theap.size && x.tsorted == y.tsorted &&
         x.trevsorted == y.trevsorted && x.tkey == y.tkey && x.tnonil == y.tnonil &&
         x.tdense == y.tdense && (x.batStatus & kept) == (y.batStatus & kept) &&
         x.batPersistent == y.batPersistent;
}

void Check(const std::string& text) {
  corvid::Catalog first;
  std::string why;
  if (!corvid::ParseCatalog(text, &first, &why)) {
    if (why.empty()) __builtin_trap();  // a refusal says why
    return;
  }
  const std::string again = corvid::SerializeCatalog(first);
  corvid::Catalog second;
  if (!corvid::ParseCatalog(again, &second, &why)) __builtin_trap();
  if (second.generation != first.generation || second.next_oid != first.next_oid ||
      second.bats.size() != first.bats.size())
    __builtin_trap();
  for (size_t i = 0; i < first.bats.size(); i++)
    if (!SameEntry(first.bats[i], second.bats[i])) __builtin_trap();
  if (corvid::SerializeCatalog(second) != again) __builtin_trap();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  Check(text);
  Check(qopci_fuzz::WithChecksum(text));
  return 0;
}
