// Fuzzes string heaps as the kernel loads them: the input becomes the tail (offsets of
// width 1, 2, 4 or 8) and the heap of a string column in a one-column farm, which is opened,
// loaded and read string by string. Inputs that ask for it open the farm as a writer and
// append strings over the loaded heap, which runs duplicate elimination through whatever
// hash buckets and chains the input holds; every appended string must read back as itself.
//
// Input: byte 0: bits 0-1 the width (1, 2, 4, 8), bit 2 append, bit 3 the input supplies the
// hash area too (otherwise 2048 zero bytes lead the heap); byte 1: rows; then rows * width
// tail bytes; the rest is the heap.
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>

#include "catalog.h"
#include "corvid/farm.h"
#include "corvid/gdk.h"
#include "corvid/strheap.h"

namespace fs = std::filesystem;

namespace {

const fs::path& Dir() {
  static const fs::path* dir = [] {
    const char* tmp = std::getenv("TMPDIR");
    auto* d = new fs::path(fs::path(tmp && *tmp ? tmp : "/tmp") /
                           ("qopci_strheap_fuzz_" + std::to_string(::getpid())));
    std::atexit([] { fs::remove_all(Dir()); });
    return d;
  }();
  return *dir;
}

void WriteAll(const fs::path& p, const std::string& bytes) {
  std::ofstream(p, std::ios::binary | std::ios::trunc) << bytes;
}

// Writes a farm whose only BAT (id 1, "s") has this tail and heap.
void MakeFarm(const std::string& tail, const std::string& heap, int width) {
  fs::remove_all(Dir());
  fs::create_directories(Dir() / "bat" / "00");
  fs::create_directories(Dir() / "log");
  WriteAll(Dir() / "bat" / "00" / "0001.tail", tail);
  WriteAll(Dir() / "bat" / "00" / "0001.theap", heap);
  corvid::Catalog c;
  corvid::CatalogEntry e;
  e.name = "s";
  e.desc.batCacheid = 1;
  e.desc.ttype = TYPE_str;
  e.desc.twidth = static_cast<uint16_t>(width);
  e.desc.tshift = static_cast<uint16_t>(ATOMelmshift(width));
  e.desc.batCount = e.desc.batCapacity = tail.size() / width;
  e.desc.theap.free = e.desc.theap.size = tail.size();
  e.vfree = e.vsize = heap.size();
  c.bats.push_back(e);
  WriteAll(Dir() / "catalog", corvid::SerializeCatalog(c));
}

// Formats every row; returns the first string that could be read, or "".
std::string ReadAll(BAT* b) {
  std::string first;
  char* buf = nullptr;
  size_t len = 0;
  for (BUN row = 0; row < b->batCount; row++) {
    const void* v = BUNtail(b, row);
    if (!v) continue;
    if (ATOMformat(TYPE_str, v, &buf, &len) < 0) continue;
    if (first.empty()) first = static_cast<const char*>(v);
  }
  GDKfree(buf);
  return first;
}

void Append(bat id, const std::string& from_heap) {
  const char* values[] = {"ACME", "", str_nil, from_heap.c_str(), "ACME"};
  for (const char* s : values) {
    if (char* err = CVDbat_append(id, s)) {
      GDKfree(err);
      return;
    }
    BAT* b = BBPgetdesc(id);
    const void* back = BUNtail(b, b->batCount - 1);
    if (!back || ATOMcmp(TYPE_str, back, s) != 0) __builtin_trap();  // appended as itself
  }
  ReadAll(BBPgetdesc(id));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 2) return 0;
  const int width = 1 << (data[0] & 3);
  const bool append = data[0] & 4, own_hash_area = data[0] & 8;
  const size_t rows = std::min<size_t>(data[1], (size - 2) / width);
  const char* p = reinterpret_cast<const char*>(data) + 2;
  const std::string tail(p, rows * width);
  std::string heap(p + rows * width, size - 2 - rows * width);
  if (!own_hash_area) heap.insert(0, CVD_STRHEAP_HASHAREA, '\0');
  if (heap.size() < CVD_STRHEAP_HASHAREA) heap.resize(CVD_STRHEAP_HASHAREA, '\0');
  MakeFarm(tail, heap, width);
  // The bytes are the input's, not what the checksums describe: read them as a farm without
  // checksums would be read.
  CVDfarm_skip_load_checksums(1);
  if (char* err = CVDfarm_open(Dir().c_str(), append ? 0 : CVD_FARM_READONLY)) {
    GDKfree(err);
    return 0;
  }
  if (BAT* b = BBPdescriptor(1)) {
    const std::string first = ReadAll(b);
    if (append) Append(1, first);
    BBPreleaseref(1);
  }
  CVDfarm_close();
  return 0;
}
