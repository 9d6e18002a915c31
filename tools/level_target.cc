#include "tools/level_target.h"

#include <cstring>
#include <unordered_set>

#include "corvid/farm.h"
#include "corvid/mtime.h"

namespace qopci {

namespace {

constexpr int kRowLevels = kLevelCount;      // companions 0-4: the row levels
constexpr int kDictCodes = 2 * kLevelCount;  // companion 10: the dictionary's ordinals

bool EndsWith(const std::string& s, const std::string& suffix) {
  return s.size() > suffix.size() &&
         s.compare(s.size() - suffix.size(), suffix.size(), suffix) == 0;
}

Status TailOf(bat id, std::string* out) {
  char path[4096];
  if (CVDbat_filename(id, "tail", path, sizeof path) == nullptr)
    return Status::Error("no tail file name for BAT " + std::to_string(id));
  *out = path;
  return Status::OK();
}

// Atom type of companion k: the level numbers and ordinals are int, the rest timestamps.
int CompanionType(int k) {
  return k % kLevelCount == 0 || k == kDictCodes ? TYPE_int : ATOMindex("timestamp");
}

// Fills the file lists of t->info from t->companions.
Status DescribeLevels(const ManifestColumn& column, TargetColumn* t) {
  TargetInfo& info = t->info;
  info.level_files.assign(kLevelCount, "");
  info.dict_level_files.assign(column.dictionary ? kLevelCount : 0, "");
  Status s;
  for (int k = 0; s.ok() && k < kRowLevels; ++k) s = TailOf(t->companions[k], &info.level_files[k]);
  if (!column.dictionary) return s;
  for (int k = 0; s.ok() && k < kLevelCount; ++k)
    s = TailOf(t->companions[kRowLevels + k], &info.dict_level_files[k]);
  if (s.ok()) s = TailOf(t->companions[kDictCodes], &info.dict.code_file);
  info.dict.key_file = info.dict_level_files.empty() ? "" : info.dict_level_files[0];
  return s;
}

// The text of a stored value for a message: a level number, or a timestamp as the kernel
// prints it. The value of atom type `type` (int or timestamp) held in 64 bits.
std::string LevelText(int type, int64_t v) {
  if (type == TYPE_int) return v == int_nil ? "nil" : std::to_string(v);
  if (v == lng_nil) return "nil";
  char* buf = nullptr;
  size_t len = 0;
  std::string text = ATOMformat(type, &v, &buf, &len) >= 0 ? buf : "?";
  GDKfree(buf);
  // Milliseconds only when they are not zero, as inspect prints them.
  if (text.size() > 4 && text.compare(text.size() - 4, 4, ".000") == 0)
    text.resize(text.size() - 4);
  return text;
}

int64_t At(const BAT* b, BUN i) {
  const void* v = BUNtail(const_cast<BAT*>(b), i);
  if (b->ttype == TYPE_int) return *static_cast<const int*>(v);
  int64_t x;
  std::memcpy(&x, v, sizeof x);
  return x;
}

std::string ValueText(const BAT* b, BUN i) { return LevelText(b->ttype, At(b, i)); }

// The five values of a Levels as 64-bit numbers, in companion order.
void Spread(const Levels& l, int64_t out[kLevelCount]) {
  out[0] = l.level;
  out[1] = l.year;
  out[2] = l.quarter;
  out[3] = l.month;
  out[4] = l.day;
}

// The first fault of one time-level column, or "": the loaded `main` (its timestamps) and
// companions `comp` (CompanionNames() order) of column `name`.
std::string CheckColumn(const std::string& name, const BAT* main, const std::vector<BAT*>& comp) {
  const bool dict = comp.size() > kRowLevels;
  const std::string dict_codes = name + ".dict_codes";
  for (int k = 0; k < kRowLevels; ++k)
    if (comp[k]->batCount != main->batCount)
      return RowLevelName(name, k) + " holds " + std::to_string(comp[k]->batCount) + " rows but " +
             name + " holds " + std::to_string(main->batCount);
  for (size_t k = kRowLevels + 1; k < comp.size(); ++k)
    if (comp[k]->batCount != comp[kRowLevels]->batCount)
      return (k == kDictCodes ? dict_codes
                              : DictLevelName(name, static_cast<int>(k) - kRowLevels)) +
             " holds " + std::to_string(comp[k]->batCount) + " entries but " +
             DictLevelName(name, 0) + " holds " + std::to_string(comp[kRowLevels]->batCount);
  int64_t want[kLevelCount];
  for (BUN i = 0; i < main->batCount; ++i) {
    Spread(LevelsOf(At(main, i)), want);
    for (int k = 0; k < kRowLevels; ++k)
      if (At(comp[k], i) != want[k])
        return "row " + std::to_string(i) + " of column " + name + ": " + RowLevelName(name, k) +
               " holds " + ValueText(comp[k], i) + ", but its timestamp " + ValueText(main, i) +
               " gives " + LevelText(k == 0 ? TYPE_int : main->ttype, want[k]);
  }
  if (!dict) return "";
  const BAT* keys = comp[kRowLevels];
  std::unordered_set<int64_t> hours;
  for (BUN e = 0; e < keys->batCount; ++e) {
    const std::string entry = "entry " + std::to_string(e) + " of the dictionary of " + name;
    if (At(comp[kDictCodes], e) != static_cast<int64_t>(e) + 1)
      return entry + ": " + dict_codes + " holds " + ValueText(comp[kDictCodes], e) +
             ", not its ordinal " + std::to_string(e + 1);
    // The entry's day gives its year, quarter and month; its level number is that day's
    // plus the hour.
    const int64_t day = At(comp[kRowLevels + 4], e);
    Spread(LevelsOf(day), want);
    bool agrees = true;
    for (int k = 1; k < kLevelCount; ++k) agrees = agrees && At(comp[kRowLevels + k], e) == want[k];
    const uint32_t hour = static_cast<uint32_t>(At(keys, e)) - static_cast<uint32_t>(want[0]);
    if (day != lng_nil) agrees = agrees && (hour < 24 || hour == 0x80000000u);
    if (!agrees)
      return entry + ": its level " + ValueText(keys, e) + " and its periods (" +
             ValueText(comp[kRowLevels + 1], e) + ", " + ValueText(comp[kRowLevels + 2], e) + ", " +
             ValueText(comp[kRowLevels + 3], e) + ", " + ValueText(comp[kRowLevels + 4], e) +
             ") do not agree";
    hours.insert(At(keys, e));
  }
  for (BUN i = 0; i < main->batCount; ++i)
    if (At(comp[0], i) != int_nil && hours.count(At(comp[0], i)) == 0)
      return "row " + std::to_string(i) + " of column " + name + " is in hour " +
             ValueText(comp[0], i) + ", which its dictionary does not hold";
  return "";
}

}  // namespace

std::string RowLevelName(const std::string& name, int k) { return name + "." + kLevelWords[k]; }

std::string DictLevelName(const std::string& name, int k) {
  return name + ".dict." + kLevelWords[k];
}

std::vector<std::string> CompanionNames(const ManifestColumn& column, const std::string& name) {
  std::vector<std::string> names;
  if (!column.levels) return names;
  for (int k = 0; k < kLevelCount; ++k) names.push_back(RowLevelName(name, k));
  if (!column.dictionary) return names;
  for (int k = 0; k < kLevelCount; ++k) names.push_back(DictLevelName(name, k));
  names.push_back(name + ".dict_codes");
  return names;
}

std::string CompanionOwner(const std::string& name) {
  const std::string dict_owner = DictOwner(name);
  if (!dict_owner.empty()) return dict_owner;
  for (const char* prefix : {".", ".dict."})
    for (const char* word : kLevelWords) {
      const std::string suffix = std::string(prefix) + word;
      if (!EndsWith(name, suffix)) continue;
      const std::string owner = name.substr(0, name.size() - suffix.size());
      const bat id = owner.find('.') != std::string::npos ? CVDbat_lookup(owner.c_str()) : 0;
      if (id != 0 && HasLevels(id)) return owner;
    }
  return "";
}

bool HasLevels(bat id) {
  const char* sql = CVDbat_sqltype(id);
  return sql != nullptr && std::strncmp(sql, "timestamp levels", 16) == 0;
}

Levels LevelsOf(int64_t t) {
  const Levels nil = {int_nil, lng_nil, lng_nil, lng_nil, lng_nil};
  int year = 0, month = 0, day = 0;
  if (t == 0 || t == lng_nil || cvd_date_from_days(cvd_timestamp_days(t), &year, &month, &day) != 0)
    return nil;
  const int32_t ms = cvd_timestamp_msecs(t);
  const uint32_t hour = ms == CVD_MSEC_NIL ? 0x80000000u : static_cast<uint32_t>(ms / 3600000);
  // 32-bit arithmetic, as the export's: years past 2147 wrap.
  const uint32_t level = ((static_cast<uint32_t>(year) * 100 + static_cast<uint32_t>(month)) * 100 +
                          static_cast<uint32_t>(day)) *
                             100 +
                         hour;
  const int quarter = (month - 1) / 3 + 1;
  // A period start of day number 0 is the timestamp 0, which the level streams store as nil.
  auto midnight = [](int32_t days) { return days == 0 ? lng_nil : cvd_timestamp(days, 0); };
  return {static_cast<int32_t>(level), midnight(cvd_date_days(year, 1, 1)),
          midnight(cvd_date_days(year, 3 * quarter - 2, 1)),
          midnight(cvd_date_days(year, month, 1)), midnight(cvd_date_days(year, month, day))};
}

Status FindLevels(const ManifestColumn& column, const std::string& name, TargetColumn* t) {
  const std::vector<std::string> names = CompanionNames(column, name);
  t->companions.clear();
  for (const std::string& n : names) {
    const bat id = CVDbat_lookup(n.c_str());
    if (id == 0)
      return Status::Error("column " + name + " is a time-level column without its " + n +
                           "; use --replace to write it anew");
    t->companions.push_back(id);
  }
  const BUN rows = BBPgetdesc(t->id)->batCount;
  for (size_t k = 0; k < names.size(); ++k) {
    const BUN have = BBPgetdesc(t->companions[k])->batCount;
    const bool row_level = k < kRowLevels;
    const BUN want = row_level ? rows : BBPgetdesc(t->companions[kRowLevels])->batCount;
    if (have != want)
      return Status::Error("column " + name + ": " + names[k] + " holds " + std::to_string(have) +
                           (row_level ? " rows but " + name + " holds "
                                      : " entries but " + names[kRowLevels] + " holds ") +
                           std::to_string(want) + "; use --replace to write it anew");
  }
  t->info.dict = DictInfo();
  if (column.dictionary)
    t->info.dict.entries = static_cast<int64_t>(BBPgetdesc(t->companions[kRowLevels])->batCount);
  return DescribeLevels(column, t);
}

Status MakeLevels(const ManifestColumn& column, const std::string& name, TargetColumn* t) {
  const std::vector<std::string> names = CompanionNames(column, name);
  t->companions.assign(names.size(), 0);
  t->companions_replaced.assign(names.size(), 0);
  for (size_t k = 0; k < names.size(); ++k) {
    const int k_type = CompanionType(static_cast<int>(k));
    // A committed companion gives way at the same commit as the column.
    const bat old = t->replaced != 0 ? CVDbat_lookup(names[k].c_str()) : 0;
    t->companions_replaced[k] = old;
    Status s = FromKernel(old != 0 ? CVDbat_create_replacement(old, k_type, &t->companions[k])
                                   : CVDbat_create(k_type, names[k].c_str(), 0, &t->companions[k]));
    if (!s.ok()) return Status::Error("cannot make " + names[k] + ": " + s.message());
  }
  t->info.dict = DictInfo();
  return DescribeLevels(column, t);
}

int CheckLevelColumns(std::ostream& out) {
  int faults = 0;
  for (bat i = 1; i < BBPsize(); ++i) {
    const BAT* d = BBPgetdesc(i);
    const char* n = CVDbat_name(i);
    if (d == nullptr || !d->batPersistent || n == nullptr || !HasLevels(i)) continue;
    const std::string name = n;
    ManifestColumn form;
    form.levels = true;
    form.dictionary = std::strstr(CVDbat_sqltype(i), "dictionary") != nullptr;
    std::vector<bat> ids = {i};
    std::string fault;
    for (const std::string& c : CompanionNames(form, name)) {
      ids.push_back(CVDbat_lookup(c.c_str()));
      if (ids.back() == 0 && fault.empty()) fault = "its " + c + " is missing";
    }
    std::vector<BAT*> loaded;
    for (size_t k = 0; fault.empty() && k < ids.size(); ++k) {
      BAT* b = nullptr;
      Status s = LoadColumn(ids[k], CVDbat_name(ids[k]), &b);
      if (!s.ok()) fault = s.message();
      if (s.ok()) loaded.push_back(b);
    }
    if (fault.empty())
      fault = CheckColumn(name, loaded[0], std::vector<BAT*>(loaded.begin() + 1, loaded.end()));
    for (BAT* b : loaded) BBPreleaseref(b->batCacheid);
    if (fault.empty()) continue;
    out << name << ": " << fault << "\n";
    ++faults;
  }
  return faults;
}

}  // namespace qopci
