#include "tools/inspect.h"

#include <algorithm>
#include <cstdio>
#include <unordered_map>

#include "corvid/farm.h"
#include "tools/closest.h"
#include "tools/kernel_io.h"
#include "tools/level_target.h"
#include "tools/row_view.h"

namespace qopci {

namespace {

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

Status PrintValues(std::ostream& out, const FarmColumn& c, uint64_t limit, bool dates = false) {
  BAT* b = nullptr;
  Status s = LoadShown(c, &b);
  if (!s.ok()) return s;
  {
    ValueFormatter format(c.id, b, dates);
    out << c.name << ":";
    BUN n = b->batCount < limit ? b->batCount : limit;
    std::string text;
    bool nil = false;
    for (BUN j = 0; j < n && s.ok(); ++j) {
      s = format.Format(j, &text, &nil);
      if (s.ok() && format.string() && !nil) text = JsonText(text);
      if (s.ok()) out << (j == 0 ? " " : ", ") << text;
    }
    if (s.ok() && n < b->batCount) out << (n == 0 ? " ..." : ", ...");
    out << "\n";
  }
  ReleaseShown(c, b);
  return s;
}

int64_t IntAt(const BAT* b, BUN i) {
  const void* v = BUNtail(const_cast<BAT*>(b), i);
  switch (b->twidth) {
    case 1: return *static_cast<const bte*>(v);
    case 2: return *static_cast<const sht*>(v);
  }
  return *static_cast<const int*>(v);
}

// Fills the transient BAT `out` with the decoded rows of dictionary column c.
Status Decode(const FarmColumn& c, BAT* codes, BAT* keys, BAT* key_codes, bat out) {
  std::unordered_map<int64_t, BUN> row_of;  // code -> its key's row in the dictionary
  for (BUN i = 0; i < key_codes->batCount && i < keys->batCount; ++i)
    row_of.emplace(IntAt(key_codes, i), i);
  const int64_t nil = codes->twidth == 1 ? bte_nil : codes->twidth == 2 ? sht_nil : int_nil;
  for (BUN i = 0; i < codes->batCount; ++i) {
    const int64_t code = IntAt(codes, i);
    const void* v = ATOMnil(keys->ttype);
    if (code != nil) {
      auto it = row_of.find(code);
      if (it == row_of.end())
        return Status::Error("row " + std::to_string(i) + " of column " + c.name + " holds code " +
                             std::to_string(code) + ", which its dictionary does not hold");
      v = BUNtail(keys, it->second);
    }
    Status s = FromKernel(CVDbat_append(out, v));
    if (!s.ok()) return s;
  }
  return Status::OK();
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

std::vector<FarmColumn> FarmColumns() {
  std::vector<FarmColumn> list;
  for (bat i = 1; i < BBPsize(); ++i) {
    const BAT* b = BBPgetdesc(i);
    const char* name = CVDbat_name(i);
    if (b == nullptr || !b->batPersistent || name == nullptr) continue;
    const std::string owner = CompanionOwner(name);
    if (!owner.empty() && CVDbat_lookup(owner.c_str()) != 0) continue;  // shown with its owner
    FarmColumn c{i, name};
    if (HasLevels(i)) {
      // Missing level BATs are shown as missing: the listing still shows the timestamps.
      for (int k = 0; k < kLevelCount; ++k)
        c.levels.push_back(CVDbat_lookup(RowLevelName(name, k).c_str()));
      if (std::count(c.levels.begin(), c.levels.end(), 0) > 0) c.levels.clear();
      c.level_dict = CVDbat_lookup(DictLevelName(name, 0).c_str());
      list.push_back(c);
      continue;
    }
    c.keys = CVDbat_lookup(DictKeysName(name).c_str());
    c.key_codes = CVDbat_lookup(DictCodesName(name).c_str());
    if (c.keys == 0 || c.key_codes == 0) c.keys = c.key_codes = 0;
    list.push_back(c);
  }
  return list;
}

Status LoadShown(const FarmColumn& c, BAT** out) {
  if (c.keys == 0) return LoadColumn(c.id, c.name, out);
  BAT *codes = nullptr, *keys = nullptr, *key_codes = nullptr;
  Status s = LoadColumn(c.id, c.name, &codes);
  if (s.ok()) s = LoadColumn(c.keys, DictKeysName(c.name), &keys);
  if (s.ok()) s = LoadColumn(c.key_codes, DictCodesName(c.name), &key_codes);
  bat decoded = 0;
  if (s.ok()) s = FromKernel(CVDbat_create(keys->ttype, nullptr, codes->batCount, &decoded));
  if (s.ok()) s = Decode(c, codes, keys, key_codes, decoded);
  if (s.ok()) *out = BBPdescriptor(decoded);
  if (s.ok() && *out == nullptr) s = Status::Error("cannot decode column " + c.name);
  if (!s.ok() && decoded != 0) CVDbat_release(decoded);
  for (BAT* b : {codes, keys, key_codes})
    if (b != nullptr) BBPreleaseref(b->batCacheid);
  return s;
}

void ReleaseShown(const FarmColumn& c, BAT* b) {
  if (c.keys == 0) {
    BBPreleaseref(c.id);
    return;
  }
  const bat decoded = b->batCacheid;
  BBPreleaseref(decoded);
  CVDbat_release(decoded);  // the transient BAT goes with its last reference
}

bool NameMatches(const std::string& name, const std::string& wanted) {
  if (name == wanted) return true;
  size_t dot = name.find('.');
  return dot != std::string::npos && name.compare(dot + 1, std::string::npos, wanted) == 0;
}

ValueFormatter::ValueFormatter(bat id, BAT* b, bool dates)
    : b_(b), scale_(DecimalScale(id, *b)), dates_(dates) {}

ValueFormatter::~ValueFormatter() { GDKfree(buf_); }

bool ValueFormatter::timestamp() const { return b_->ttype == ATOMindex("timestamp"); }

Status ValueFormatter::Format(BUN row, std::string* text, bool* nil) {
  const void* v = BUNtail(b_, row);
  if (v != nullptr) {
    *nil = ATOMcmp(b_->ttype, v, ATOMnil(b_->ttype)) == 0;
    if (*nil) {
      *text = "nil";
      return Status::OK();
    }
    if (scale_ >= 0) {
      *text = FormatDecimal(*b_, v, scale_);
      return Status::OK();
    }
    if (ATOMformat(b_->ttype, v, &buf_, &len_) >= 0) {
      *text = buf_;
      // The kernel always prints milliseconds; they were given only when they are not zero.
      if (timestamp() && text->size() > 4 && text->compare(text->size() - 4, 4, ".000") == 0)
        text->resize(text->size() - 4);
      if (dates_ && timestamp() && text->size() > 9 &&
          text->compare(text->size() - 9, 9, " 00:00:00") == 0)
        text->resize(text->size() - 9);
      return Status::OK();
    }
  }
  return Status::Error("cannot format row " + std::to_string(row) + " of column " +
                       (CVDbat_name(b_->batCacheid) ? CVDbat_name(b_->batCacheid) : "?"));
}

Status PrintFarm(std::ostream& out, const std::vector<std::string>& columns, uint64_t limit) {
  std::vector<FarmColumn> all = FarmColumns(), shown;
  std::vector<std::string> names;
  for (const FarmColumn& c : all) {
    names.push_back(c.name);
    names.push_back(c.name.substr(c.name.find('.') + 1));
  }
  for (const std::string& wanted : columns) {
    size_t before = shown.size();
    for (const FarmColumn& c : all)
      if (NameMatches(c.name, wanted)) shown.push_back(c);
    if (shown.size() == before)
      return Status::Error("no column named \"" + wanted + "\" in farm " + CVDfarm_dir() +
                           DidYouMean(wanted, names));
  }
  if (columns.empty()) shown = all;

  int type_width = 14;  // as wide as the longest type, so that the columns stay aligned
  for (const FarmColumn& c : shown)
    type_width = std::max(type_width, static_cast<int>(SqlTypeOf(c.id).size()));
  char line[512];
  std::snprintf(line, sizeof line, "%5s  %-24s %-*s %12s %5s %23s %23s  %s\n", "id", "name",
                type_width, "type", "count", "width", "tail bytes used/alloc", "heap bytes used/alloc",
                "flags");
  out << line;
  for (const FarmColumn& c : shown) {
    const BAT* b = BBPgetdesc(c.id);
    std::string tail = std::to_string(b->theap.free) + "/" + std::to_string(b->theap.size);
    std::string heap = "-";
    if (b->tvheap != nullptr)
      heap = std::to_string(b->tvheap->free) + "/" + std::to_string(b->tvheap->size);
    std::snprintf(line, sizeof line, "%5d  %-24s %-*s %12llu %5u %23s %23s  %s", c.id,
                  c.name.c_str(), type_width, SqlTypeOf(c.id).c_str(),
                  static_cast<unsigned long long>(b->batCount), b->twidth, tail.c_str(),
                  heap.c_str(), FlagWords(*b).c_str());
    out << line;
    if (c.keys != 0)
      out << "  dictionary: " << BBPgetdesc(c.keys)->batCount << " entries ("
          << DictKeysName(c.name) << ", " << DictCodesName(c.name) << ")";
    if (!c.levels.empty()) {
      out << "  levels: " << RowLevelName(c.name, 0);
      for (int k = 1; k < kLevelCount; ++k) out << ", ." << kLevelWords[k];
    }
    if (c.level_dict != 0)
      out << "; dictionary: " << BBPgetdesc(c.level_dict)->batCount << " entries ("
          << DictLevelName(c.name, 0) << ", ...)";
    out << "\n";
  }
  if (shown.empty()) out << "(no columns)\n";
  if (limit == 0) return Status::OK();
  out << "\n";
  for (const FarmColumn& c : shown) {
    Status s = PrintValues(out, c, limit);
    for (size_t k = 0; s.ok() && k < c.levels.size(); ++k)
      s = PrintValues(out, {c.levels[k], RowLevelName(c.name, static_cast<int>(k))}, limit, k > 0);
    if (!s.ok()) return s;
  }
  return Status::OK();
}

}  // namespace qopci
