// Catalog text: one header, one line per BAT, a checksum over everything before it.
#include "catalog.h"

#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <set>
#include <sstream>

#include "corvid/strheap.h"
#include "internal.h"

namespace corvid {
namespace {

constexpr bat kMaxBatId = 1 << 24;

uint64_t Fnv1a(const char* p, size_t n) {
  uint64_t h = 0xcbf29ce484222325ull;
  for (size_t i = 0; i < n; i++) {
    h ^= static_cast<unsigned char>(p[i]);
    h *= 0x100000001b3ull;
  }
  return h;
}

int PackProps(const BAT& b) {
  return b.tsorted | b.trevsorted << 1 | b.tkey << 2 | b.tnonil << 3 | b.tdense << 4;
}

void UnpackProps(int p, BAT* b) {
  b->tsorted = p & 1;
  b->trevsorted = (p >> 1) & 1;
  b->tkey = (p >> 2) & 1;
  b->tnonil = (p >> 3) & 1;
  b->tdense = (p >> 4) & 1;
}

bool ValidName(const std::string& n) {
  if (n.empty() || n.size() > 1024) return false;
  for (unsigned char ch : n)
    if (ch <= ' ' || ch == 0x7f) return false;
  return true;
}

bool CheckEntry(const CatalogEntry& e, std::string* why) {
  const BAT& b = e.desc;
  char line[128];
  std::snprintf(line, sizeof line, "BAT %d: ", b.batCacheid);
  auto fail = [&](const char* what) {
    *why = std::string(line) + what;
    return false;
  };
  if (b.batCacheid <= 0 || b.batCacheid >= kMaxBatId) return fail("id out of range");
  if (b.ttype <= TYPE_void) return fail("unknown or void tail type");
  const int w = b.twidth;
  const bool pow2 = w == 1 || w == 2 || w == 4 || w == 8;
  if (!pow2 || (b.ttype != TYPE_str && w > ATOMsize(b.ttype)) || b.tshift != ATOMelmshift(w))
    return fail("bad tail width or shift");
  if (b.batCount > b.theap.free / w) return fail("tail heap holds fewer rows than counted");
  if (b.ttype == TYPE_str && e.vfree < CVD_STRHEAP_HASHAREA)
    return fail("string heap smaller than its hash area");
  if (!ValidName(e.name)) return fail("bad logical name");
  return true;
}

}  // namespace

std::string SerializeCatalog(const Catalog& c) {
  std::string out;
  char line[2048];
  std::snprintf(line, sizeof line, "corvid-catalog %d\ngeneration %" PRIu64 "\noid %u\nbats %zu\n",
                kCatalogVersion, c.generation, c.next_oid, c.bats.size());
  out += line;
  for (const CatalogEntry& e : c.bats) {
    const BAT& b = e.desc;
    std::snprintf(line, sizeof line,
                  "bat %d %s %s %s %" PRIu64 " %" PRIu64 " %u %u %u %zu %zu %zu %zu %d %u %d\n",
                  b.batCacheid, Physical(b.batCacheid).c_str(), e.name.c_str(), ATOMname(b.ttype),
                  b.batCount, b.batCapacity, b.twidth, b.tshift, b.hseqbase, b.theap.free,
                  b.theap.size, e.vfree, e.vsize, PackProps(b),
                  b.batStatus & ~static_cast<uint32_t>(BATSTATUS_LOADED | BATSTATUS_REWRITTEN),
                  e.pending);
    out += line;
  }
  std::snprintf(line, sizeof line, "checksum %016" PRIx64 "\n", Fnv1a(out.data(), out.size()));
  return out + line;
}

bool ParseCatalog(const std::string& text, Catalog* c, std::string* why) {
  size_t tail = text.rfind("checksum ");
  if (tail == std::string::npos || (tail > 0 && text[tail - 1] != '\n') || text.back() != '\n') {
    *why = "catalog is truncated (no checksum line)";
    return false;
  }
  uint64_t stored = 0;
  if (std::sscanf(text.c_str() + tail, "checksum %" SCNx64, &stored) != 1 ||
      stored != Fnv1a(text.data(), tail)) {
    *why = "catalog checksum mismatch";
    return false;
  }
  std::istringstream in(text.substr(0, tail));
  std::string word;
  int version = 0;
  size_t count = 0;
  if (!(in >> word) || word != "corvid-catalog" || !(in >> version)) {
    *why = "not a corvid catalog";
    return false;
  }
  if (version != kCatalogVersion) {
    *why = "unsupported catalog version " + std::to_string(version);
    return false;
  }
  std::string g, o, n;
  if (!(in >> g >> c->generation >> o >> c->next_oid >> n >> count) || g != "generation" ||
      o != "oid" || n != "bats") {
    *why = "catalog header is malformed";
    return false;
  }
  std::set<bat> ids;
  std::set<std::string> names;
  for (size_t i = 0; i < count; i++) {
    CatalogEntry e;
    BAT& b = e.desc;
    std::string tag, physical, type;
    int props = 0;
    unsigned width = 0, shift = 0, hseq = 0;
    if (!(in >> tag >> b.batCacheid >> physical >> e.name >> type >> b.batCount >> b.batCapacity >>
          width >> shift >> hseq >> b.theap.free >> b.theap.size >> e.vfree >> e.vsize >> props >>
          b.batStatus >> e.pending) ||
        tag != "bat") {
      *why = "catalog line " + std::to_string(i + 1) + " of the BATs is malformed";
      return false;
    }
    b.ttype = ATOMindex(type.c_str());
    if (b.ttype < 0) {
      *why = "BAT " + std::to_string(b.batCacheid) + ": unknown type \"" + type + "\"";
      return false;
    }
    b.twidth = static_cast<uint16_t>(width);
    b.tshift = static_cast<uint16_t>(shift);
    b.hseqbase = hseq;
    b.tseqbase = oid_nil;
    UnpackProps(props, &b);
    if (!CheckEntry(e, why)) return false;
    if (physical != Physical(b.batCacheid)) {
      *why = "BAT " + std::to_string(b.batCacheid) + ": physical name " + physical +
             " does not belong to its id";
      return false;
    }
    if (!ids.insert(b.batCacheid).second || !names.insert(e.name).second) {
      *why = "BAT " + std::to_string(b.batCacheid) + " or its name is listed twice";
      return false;
    }
    b.batPersistent = 1;
    c->bats.push_back(std::move(e));
  }
  if (in >> word) {
    *why = "catalog holds more lines than it counts";
    return false;
  }
  return true;
}

}  // namespace corvid
