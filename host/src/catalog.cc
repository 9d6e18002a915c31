// Catalog text: one header, one line per BAT, a checksum over everything before it; and the
// checks that open and commit share.
#include "catalog.h"

#include <cctype>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <set>
#include <sstream>

#include "corvid/strheap.h"
#include "fileio.h"
#include "internal.h"
#include "sums.h"

namespace corvid {
namespace {

constexpr bat kMaxBatId = 1 << 24;
constexpr size_t kMaxText = 1024;  // longest BAT name or SQL type

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

// SQL types may hold blanks ("timestamp with time zone"): the catalog writes every blank,
// control character and '%' as %XX, and "-" for no type.
std::string EncodeSqlType(const std::string& t) {
  if (t.empty()) return "-";
  if (t == "-") return "%2D";
  std::string out;
  for (unsigned char ch : t) {
    if (ch <= ' ' || ch == 0x7f || ch == '%') {
      char hex[4];
      std::snprintf(hex, sizeof hex, "%%%02X", ch);
      out += hex;
    } else {
      out += static_cast<char>(ch);
    }
  }
  return out;
}

bool DecodeSqlType(const std::string& text, std::string* out) {
  out->clear();
  if (text == "-") return true;
  for (size_t i = 0; i < text.size(); i++) {
    if (text[i] != '%') {
      *out += text[i];
      continue;
    }
    if (i + 2 >= text.size() || !std::isxdigit(static_cast<unsigned char>(text[i + 1])) ||
        !std::isxdigit(static_cast<unsigned char>(text[i + 2])))
      return false;
    *out += static_cast<char>(std::stoi(text.substr(i + 1, 2), nullptr, 16));
    i += 2;
  }
  return !out->empty() && ValidSqlType(*out);
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
  if (b.ttype <= TYPE_void || ATOMindex(ATOMname(b.ttype)) != b.ttype)
    return fail("unknown or void tail type");
  const int w = b.twidth;
  const bool pow2 = w == 1 || w == 2 || w == 4 || w == 8;
  if (!pow2 || (b.ttype != TYPE_str && w > ATOMsize(b.ttype)) || b.tshift != ATOMelmshift(w))
    return fail("bad tail width or shift");
  if (b.batCount > b.theap.free / w) return fail("tail heap holds fewer rows than counted");
  if (b.ttype == TYPE_str && e.vfree < CVD_STRHEAP_HASHAREA)
    return fail("string heap smaller than its hash area");
  if (!ValidBatName(e.name)) return fail("bad logical name");
  if (!ValidSqlType(e.sqltype)) return fail("bad SQL type");
  return true;
}

}  // namespace

bool ValidBatName(const std::string& n) {
  if (n.empty() || n.size() > kMaxText) return false;
  for (unsigned char ch : n)
    if (ch <= ' ' || ch == 0x7f) return false;
  return true;
}

bool ValidSqlType(const std::string& t) {
  if (t.size() > kMaxText) return false;
  for (unsigned char ch : t)
    if (ch < ' ' || ch == 0x7f) return false;
  return true;
}

std::string PendingPath(const std::string& path, int version, uint64_t generation) {
  if (version < 2) return path + ".new";
  return path + "." + std::to_string(generation) + ".new";
}

bool CommittedPath(const Catalog& c, const CatalogEntry& e, int which, std::string* path,
                   std::string* why) {
  *path = BatPath(e.desc.batCacheid, KindExt(which));
  if (!(e.pending & KindPendingBit(which))) return true;
  std::string pending = PendingPath(*path, c.version, c.generation);
  size_t n;
  if (FileSize(pending, &n, why)) {
    *path = pending;
    return true;
  }
  return errno == ENOENT;  // the renames of that commit are done
}

bool CheckCatalogFiles(const Catalog& c, std::string* why) {
  for (const CatalogEntry& e : c.bats) {
    const BAT& b = e.desc;
    const size_t need[2] = {b.theap.free, e.vfree};
    for (int i = 0; i < (b.ttype == TYPE_str ? 2 : 1); i++) {
      char head[128];
      std::snprintf(head, sizeof head, "BAT %d (", b.batCacheid);
      std::string path;
      if (!CommittedPath(c, e, i, &path, why)) {
        *why = head + e.name + "): " + *why;
        return false;
      }
      size_t size = 0;
      if (!FileSize(path, &size)) {
        if (errno == ENOENT && need[i] == 0) continue;
        *why = head + e.name + "): column file " + path +
               (errno == ENOENT ? " is missing" : ": " + ErrnoText(errno));
        return false;
      }
      if (size < need[i]) {
        *why = head + e.name + "): column file " + path + " holds " + std::to_string(size) +
               " bytes, the catalog describes " + std::to_string(need[i]);
        return false;
      }
    }
  }
  return true;
}

std::string SerializeCatalog(const Catalog& c) {
  std::string out;
  char line[512];
  std::snprintf(line, sizeof line, "corvid-catalog %d\ngeneration %" PRIu64 "\noid %u\nbats %zu\n",
                kCatalogVersion, c.generation, c.next_oid, c.bats.size());
  out += line;
  for (const CatalogEntry& e : c.bats) {
    const BAT& b = e.desc;
    std::snprintf(line, sizeof line, "bat %d %s ", b.batCacheid, Physical(b.batCacheid).c_str());
    out += line;
    out += e.name;
    std::snprintf(
        line, sizeof line, " %s %" PRIu64 " %" PRIu64 " %u %u %u %zu %zu %zu %zu %d %u %d ",
        ATOMname(b.ttype), b.batCount, b.batCapacity, b.twidth, b.tshift, b.hseqbase, b.theap.free,
        b.theap.size, e.vfree, e.vsize, PackProps(b),
        b.batStatus & ~static_cast<uint32_t>(BATSTATUS_LOADED | BATSTATUS_REWRITTEN), e.pending);
    out += line;
    out += EncodeSqlType(e.sqltype);
    out += '\n';
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
  size_t count = 0;
  if (!(in >> word) || word != "corvid-catalog" || !(in >> c->version)) {
    *why = "not a corvid catalog";
    return false;
  }
  if (c->version < 1 || c->version > kCatalogVersion) {
    *why = "unsupported catalog version " + std::to_string(c->version);
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
    std::string tag, physical, type, sqltype = "-";
    int props = 0;
    unsigned width = 0, shift = 0, hseq = 0;
    if (!(in >> tag >> b.batCacheid >> physical >> e.name >> type >> b.batCount >> b.batCapacity >>
          width >> shift >> hseq >> b.theap.free >> b.theap.size >> e.vfree >> e.vsize >> props >>
          b.batStatus >> e.pending) ||
        tag != "bat" || (c->version >= 2 && !(in >> sqltype))) {
      *why = "catalog line " + std::to_string(i + 1) + " of the BATs is malformed";
      return false;
    }
    if (!DecodeSqlType(sqltype, &e.sqltype)) {
      *why = "BAT " + std::to_string(b.batCacheid) + ": bad SQL type \"" + sqltype + "\"";
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
