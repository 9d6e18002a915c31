#include "tools/inspect.h"

#include <cstdio>
#include <vector>

#include "corvid/farm.h"

namespace qopci {

namespace {

struct Entry {
  bat id;
  std::string name;
};

std::vector<Entry> PersistentBats() {
  std::vector<Entry> list;
  for (bat i = 1; i < BBPsize(); ++i) {
    const BAT* b = BBPgetdesc(i);
    const char* name = CVDbat_name(i);
    if (b != nullptr && b->batPersistent && name != nullptr) list.push_back({i, name});
  }
  return list;
}

// The type a column holds as its users know it: the recorded SQL type ("decimal(9,2)"), or
// the kernel's atom name when none is recorded.
std::string TypeName(bat id, const BAT& b) {
  const char* sql = CVDbat_sqltype(id);
  return sql != nullptr && *sql != '\0' ? sql : ATOMname(b.ttype);
}

// The scale of a column recorded as decimal(p,s) and held as an integer type, or -1.
int DecimalScale(bat id, const BAT& b) {
  int p = 0, s = 0;
  char end = 0;
  const char* sql = CVDbat_sqltype(id);
  if (sql == nullptr || std::sscanf(sql, "decimal(%d,%d%c", &p, &s, &end) != 3 || end != ')')
    return -1;
  bool integer =
      b.ttype == TYPE_bte || b.ttype == TYPE_sht || b.ttype == TYPE_int || b.ttype == TYPE_lng;
  return integer && s >= 0 && s <= 18 ? s : -1;
}

// An integer value of a decimal column with its scale: 20149 at scale 2 is "201.49".
std::string FormatDecimal(const BAT& b, const void* v, int scale) {
  int64_t x = 0;
  switch (b.ttype) {
    case TYPE_bte:
      x = *static_cast<const bte*>(v);
      break;
    case TYPE_sht:
      x = *static_cast<const sht*>(v);
      break;
    case TYPE_int:
      x = *static_cast<const int*>(v);
      break;
    default:
      x = *static_cast<const lng*>(v);
  }
  // Digits of |x| without overflow at the lng limits (the lng nil never gets here).
  uint64_t mag = x < 0 ? 0 - static_cast<uint64_t>(x) : static_cast<uint64_t>(x);
  std::string digits = std::to_string(mag);
  if (static_cast<int>(digits.size()) <= scale)
    digits.insert(0, static_cast<size_t>(scale) + 1 - digits.size(), '0');
  if (scale > 0) digits.insert(digits.size() - static_cast<size_t>(scale), ".");
  return x < 0 ? "-" + digits : digits;
}

bool Matches(const std::string& bat_name, const std::string& wanted) {
  if (bat_name == wanted) return true;
  size_t dot = bat_name.find('.');
  return dot != std::string::npos && bat_name.compare(dot + 1, std::string::npos, wanted) == 0;
}

Status PrintValues(std::ostream& out, const Entry& e, uint64_t limit) {
  BAT* b = BBPdescriptor(e.id);
  if (b == nullptr) return Status::Error("cannot load column " + e.name + " from its files");
  char* buf = nullptr;
  size_t len = 0;
  Status s;
  out << e.name << ":";
  const int scale = DecimalScale(e.id, *b);
  BUN n = b->batCount < limit ? b->batCount : limit;
  for (BUN j = 0; j < n; ++j) {
    const void* v = BUNtail(b, j);
    if (v == nullptr || ATOMformat(b->ttype, v, &buf, &len) < 0) {
      s = Status::Error("cannot format row " + std::to_string(j) + " of column " + e.name);
      break;
    }
    const bool plain = scale < 0 || ATOMcmp(b->ttype, v, ATOMnil(b->ttype)) == 0;
    out << (j == 0 ? " " : ", ") << (plain ? std::string(buf) : FormatDecimal(*b, v, scale));
  }
  if (s.ok() && n < b->batCount) out << (n == 0 ? " ..." : ", ...");
  out << "\n";
  GDKfree(buf);
  BBPreleaseref(e.id);
  return s;
}

}  // namespace

std::string FlagWords(const BAT& b) {
  std::string w;
  if (b.tsorted) w += " sorted";
  if (b.trevsorted) w += " revsorted";
  if (b.tkey) w += " key";
  if (b.tnonil) w += " nonil";
  if (b.tdense) w += " dense";
  return w.empty() ? "-" : w.substr(1);
}

Status PrintFarm(std::ostream& out, const std::string& column, uint64_t limit) {
  std::vector<Entry> all = PersistentBats(), shown;
  for (const Entry& e : all)
    if (column.empty() || Matches(e.name, column)) shown.push_back(e);
  if (!column.empty() && shown.empty())
    return Status::Error("no column named \"" + column + "\" in farm " + CVDfarm_dir());

  char line[512];
  std::snprintf(line, sizeof line, "%5s  %-24s %-14s %12s %5s %23s %23s  %s\n", "id", "name",
                "type", "count", "width", "tail bytes used/alloc", "heap bytes used/alloc",
                "flags");
  out << line;
  for (const Entry& e : shown) {
    const BAT* b = BBPgetdesc(e.id);
    std::string tail = std::to_string(b->theap.free) + "/" + std::to_string(b->theap.size);
    std::string heap = "-";
    if (b->tvheap != nullptr)
      heap = std::to_string(b->tvheap->free) + "/" + std::to_string(b->tvheap->size);
    std::snprintf(line, sizeof line, "%5d  %-24s %-14s %12llu %5u %23s %23s  %s\n", e.id,
                  e.name.c_str(), TypeName(e.id, *b).c_str(),
                  static_cast<unsigned long long>(b->batCount), b->twidth, tail.c_str(),
                  heap.c_str(), FlagWords(*b).c_str());
    out << line;
  }
  if (shown.empty()) out << "(no columns)\n";
  if (limit == 0) return Status::OK();
  out << "\n";
  for (const Entry& e : shown) {
    Status s = PrintValues(out, e, limit);
    if (!s.ok()) return s;
  }
  return Status::OK();
}

}  // namespace qopci
