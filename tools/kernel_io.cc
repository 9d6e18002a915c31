#include "tools/kernel_io.h"

#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <vector>

#include "corvid/farm.h"
#include "tools/closest.h"
#include "tools/dict_target.h"
#include "tools/error_text.h"
#include "tools/level_target.h"

namespace qopci {

namespace {

// Whether `dir` holds anything but what the kernel puts in a farm before its first catalog.
Status HoldsOtherFiles(const std::string& dir, bool* other) {
  static const char* const kKernel[] = {".", "..", "lock", "bat", "log", "catalog.new"};
  DIR* d = ::opendir(dir.c_str());
  if (d == nullptr) return Status::Error("cannot read " + dir + ": " + SystemText(errno));
  *other = false;
  while (const struct dirent* e = ::readdir(d)) {
    bool kernel = false;
    for (const char* k : kKernel) kernel = kernel || std::strcmp(e->d_name, k) == 0;
    *other = *other || !kernel;
  }
  ::closedir(d);
  return Status::OK();
}

}  // namespace

Status CheckFarmDir(const std::string& dir, FarmUse use, bool init) {
  const std::string make = "qopci copy --farm " + dir + " --manifest FILE --csv FILE";
  struct stat st;
  if (::stat(dir.c_str(), &st) != 0) {
    if (errno != ENOENT) return Status::Error("cannot use " + dir + ": " + SystemText(errno));
    if (use == FarmUse::kRead)
      return Status::Error("no farm at " + dir + " (make one with: " + make + ")");
    std::filesystem::path parent = std::filesystem::path(dir).lexically_normal().parent_path();
    if (parent.empty()) parent = ".";
    if (::stat(parent.c_str(), &st) != 0 && errno == ENOENT)
      return Status::Error("no farm at " + dir + ", and its parent directory " + parent.string() +
                           " does not exist (create it, then: " + make + ")");
    return Status::OK();
  }
  if (!S_ISDIR(st.st_mode)) return Status::Error("farm " + dir + " is not a directory");
  if (::stat((dir + "/catalog").c_str(), &st) == 0) return Status::OK();
  bool other = false;
  Status s = HoldsOtherFiles(dir, &other);
  if (!s.ok() || !other) return s;
  if (use == FarmUse::kRead)
    return Status::Error(dir + " is not a farm: it has no catalog (make one with: " + make + ")");
  if (init) return Status::OK();
  return Status::Error(dir + " is not a farm (it has no catalog) and is not empty: give --init " +
                       "to make a farm in it, or choose a new or empty directory");
}

Status FromKernel(char* exception) {
  if (exception == nullptr) return Status::OK();
  std::string text(exception);
  GDKfree(exception);
  return Status::Error(text);
}

namespace {

int PlainAtomType(const ManifestColumn& column) {
  switch (column.encoding) {
    case Encoding::kTinyint:
      return TYPE_bte;
    case Encoding::kSmallint:
      return TYPE_sht;
    case Encoding::kInt:
      return TYPE_int;
    case Encoding::kBigint:
    case Encoding::kSerial:
      return TYPE_lng;
    case Encoding::kDouble:
      return TYPE_dbl;
    case Encoding::kDecimal:
      switch (DecimalWidth(column.precision)) {
        case 1:
          return TYPE_bte;
        case 2:
          return TYPE_sht;
        case 4:
          return TYPE_int;
      }
      return TYPE_lng;
    case Encoding::kTimestamp:
      return ATOMindex("timestamp");
    case Encoding::kRowid:
      return TYPE_oid;
    case Encoding::kString:
      return TYPE_str;
  }
  return -1;
}

}  // namespace

int KeyAtomType(const ManifestColumn& column) { return PlainAtomType(column); }

int CodeAtomType(const ManifestColumn& column) {
  return column.encoding == Encoding::kTinyint    ? TYPE_bte
         : column.encoding == Encoding::kSmallint ? TYPE_sht
                                                  : TYPE_int;
}

int TargetAtomType(const ManifestColumn& column) {
  // A time-level dictionary keeps its rows' timestamps in the column itself.
  return column.dictionary && !column.levels ? CodeAtomType(column) : PlainAtomType(column);
}

int ResultAtomType(const ManifestColumn& column) {
  return column.encoding == Encoding::kDecimal ? TYPE_lng : PlainAtomType(column);
}

std::string DictKeysName(const std::string& name) { return name + ".dict"; }
std::string DictCodesName(const std::string& name) { return name + ".dict_codes"; }

std::string DictOwner(const std::string& name) {
  for (const char* suffix : {".dict", ".dict_codes"}) {
    const size_t n = std::strlen(suffix);
    if (name.size() > n && name.compare(name.size() - n, n, suffix) == 0) {
      const std::string owner = name.substr(0, name.size() - n);
      // Only a table.column name owns a dictionary.
      if (owner.find('.') != std::string::npos) return owner;
    }
  }
  return "";
}

std::string SqlWord(int atom_type) {
  switch (atom_type) {
    case TYPE_bit:
      return "boolean";
    case TYPE_bte:
      return "tinyint";
    case TYPE_sht:
      return "smallint";
    case TYPE_int:
      return "int";
    case TYPE_lng:
      return "bigint";
    case TYPE_flt:
      return "real";
    case TYPE_dbl:
      return "double";
    case TYPE_str:
      return "varchar";
  }
  const char* name = atom_type >= 0 ? ATOMname(atom_type) : nullptr;
  if (name == nullptr) return "unknown";
  return std::string(name) == "daytime" ? "time" : name;  // date and timestamp are SQL words
}

std::string SqlTypeOf(bat id) {
  const char* sql = CVDbat_sqltype(id);
  if (sql != nullptr && *sql != '\0') return sql;
  const BAT* b = BBPgetdesc(id);
  return b != nullptr ? SqlWord(b->ttype) : "unknown";
}

std::string TargetName(const Manifest& manifest, const ManifestColumn& column) {
  return manifest.table + "." + column.name;
}

namespace {

// Whether the farm holds column `id` as the manifest column's type: its recorded SQL type,
// or its atom type when it records none.
bool SameType(const ManifestColumn& column, bat id) {
  const BAT* b = BBPgetdesc(id);
  const char* recorded = CVDbat_sqltype(id);
  return recorded != nullptr && *recorded != '\0' ? ColumnTypeName(column) == recorded
                                                  : b->ttype == TargetAtomType(column);
}

// Appending keeps the rows' meaning only when the farm holds them as the manifest's type.
Status CheckAppendType(const std::string& name, const ManifestColumn& column, bat id) {
  const BAT* b = BBPgetdesc(id);
  if (b == nullptr) return Status::Error("column " + name + " is listed but has no BAT");
  const std::string wanted = ColumnTypeName(column);
  if (SameType(column, id)) return Status::OK();
  const std::string held = SqlTypeOf(id);
  return Status::Error("column " + name + " is " + held + " in the farm, the manifest asks for " +
                       wanted + "; use --replace to change it");
}

Status ColumnFile(bat id, const char* ext, std::string* out) {
  char path[4096];
  if (CVDbat_filename(id, ext, path, sizeof path) == nullptr)
    return Status::Error("no " + std::string(ext) + " file name for BAT " + std::to_string(id));
  *out = path;
  return Status::OK();
}

Status TailFile(bat id, std::string* out) { return ColumnFile(id, "tail", out); }

// The heap a string target keeps: its file, the bytes in use and the tail's offset width.
// An empty column keeps nothing: its heap is written anew.
Status KeptHeap(bat id, TargetInfo* info) {
  const BAT* b = BBPgetdesc(id);
  Status s = ColumnFile(id, "theap", &info->heap_file);
  info->heap_size = 0;
  info->tail_width = b->twidth;
  if (info->existing_count > 0 && b->tvheap != nullptr)
    info->heap_size = static_cast<int64_t>(b->tvheap->free);
  return s;
}

// The existing column a "from" column copies: found in the farm, of the column's type, and
// not written by this export.
Status FindSource(const Manifest& manifest, const ManifestColumn& column, SourceInfo* out) {
  const std::string name = TargetName(manifest, column);
  const bat id = CVDbat_lookup(column.from.c_str());
  if (id == 0) {
    std::vector<std::string> names;
    for (bat i = 1; i < BBPsize(); ++i)
      if (const char* n = CVDbat_name(i)) names.push_back(n);
    return Status::Error("column " + name + ": no column \"" + column.from +
                         "\" in the farm to copy" + DidYouMean(column.from, names));
  }
  for (const ManifestColumn& c : manifest.columns)
    if (TargetName(manifest, c) == column.from)
      return Status::Error("column " + name + ": its source " + column.from +
                           " is written by this copy; copy from a column the copy leaves as "
                           "it is");
  if (!SameType(column, id))
    return Status::Error("column " + name + " is " + EncodingName(column) + ", but its source " +
                         column.from + " is " + SqlTypeOf(id) + " in the farm");
  const BAT* b = BBPgetdesc(id);
  out->kind = column.encoding == Encoding::kString ? 4 : 2;
  out->count = static_cast<int64_t>(b->batCount);
  out->width = b->twidth;
  Status s = TailFile(id, &out->tail_file);
  if (s.ok() && out->kind == 4) s = ColumnFile(id, "theap", &out->heap_file);
  return s;
}

// The kernel can replace a BAT but not drop one: a column written over another of a form
// with more BATs (a dictionary, time levels) would leave the BATs the new form does not
// have behind as columns of their own. Refused until the kernel can drop them with it.
Status CheckNothingLeftBehind(const std::string& name, const ManifestColumn& c, bat existing) {
  std::vector<std::string> kept = CompanionNames(c, name), all;
  if (c.dictionary && !c.levels) kept = {DictKeysName(name), DictCodesName(name)};
  all = {DictKeysName(name), DictCodesName(name)};
  for (int k = 0; k < kLevelCount; ++k) {
    all.push_back(RowLevelName(name, k));
    all.push_back(DictLevelName(name, k));
  }
  for (const std::string& n : all) {
    if (std::find(kept.begin(), kept.end(), n) != kept.end() || CVDbat_lookup(n.c_str()) == 0)
      continue;
    if (!c.dictionary && n == DictKeysName(name))
      return Status::Error("column " + name +
                           " is dictionary-coded; replacing it by a plain column would leave "
                           "its dictionary " +
                           n + " behind: keep \"encoding\": \"dictionary\" or use a new column");
    return Status::Error("column " + name + " is " + SqlTypeOf(existing) + "; replacing it by a " +
                         ColumnTypeName(c) + " column would leave its " + n +
                         " behind: keep its type or use a new column");
  }
  return Status::OK();
}

}  // namespace

Status PrepareTargets(const Manifest& manifest, std::vector<TargetColumn>* out) {
  out->clear();
  for (size_t i = 0; i < manifest.columns.size(); ++i) {
    const ManifestColumn& c = manifest.columns[i];
    const std::string name = TargetName(manifest, c);
    if (TargetAtomType(c) < 0)
      return Status::Error("the kernel has no atom type for " + EncodingName(c));
    TargetColumn t;
    t.manifest_index = i;
    if (!c.from.empty()) {
      Status s = FindSource(manifest, c, &t.info.source);
      if (!s.ok()) return s;
    }
    bat existing = CVDbat_lookup(name.c_str());
    t.info.replace = c.mode == Mode::kReplace;
    t.info.new_file = existing == 0 || t.info.replace;
    t.info.existing_count = 0;
    if (existing != 0 && !t.info.replace) {
      Status s = CheckAppendType(name, c, existing);
      if (s.ok()) s = TailFile(existing, &t.info.tail_file);
      if (!s.ok()) return s;
      t.id = existing;
      t.info.existing_count = static_cast<int64_t>(BBPgetdesc(existing)->batCount);
      if (c.encoding == Encoding::kString && !c.dictionary) s = KeptHeap(existing, &t.info);
      if (s.ok() && c.dictionary && !c.levels) s = FindDictionary(name, &t);
      if (s.ok() && c.levels) s = FindLevels(c, name, &t);
      if (!s.ok()) return s;
    } else {
      if (existing != 0) {
        Status s = CheckNothingLeftBehind(name, c, existing);
        if (!s.ok()) return s;
      }
      t.replaced = existing;
    }
    Status s = CheckTargetOverrides(name, c, t.info);
    if (!s.ok()) return s;
    out->push_back(t);
  }
  for (TargetColumn& t : *out) {
    if (!t.info.new_file) continue;
    const ManifestColumn& c = manifest.columns[t.manifest_index];
    const std::string name = TargetName(manifest, c);
    Status s =
        FromKernel(t.replaced != 0 ? CVDbat_create_replacement(t.replaced, TargetAtomType(c), &t.id)
                                   : CVDbat_create(TargetAtomType(c), name.c_str(), 0, &t.id));
    if (!s.ok()) return Status::Error("cannot make column " + name + ": " + s.message());
    t.created = t.replaced == 0;
    s = FromKernel(CVDbat_set_sqltype(t.id, ColumnTypeName(c).c_str()));
    if (s.ok()) s = TailFile(t.id, &t.info.tail_file);
    if (s.ok() && c.encoding == Encoding::kString && !c.dictionary) s = KeptHeap(t.id, &t.info);
    if (s.ok() && c.dictionary && !c.levels) s = MakeDictionary(c, name, &t);
    if (s.ok() && c.levels) s = MakeLevels(c, name, &t);
    if (!s.ok()) return Status::Error("column " + name + ": " + s.message());
  }
  return Status::OK();
}

Status BuildResultTable(mvc* m, const Manifest& manifest, const ResultData& data, bool single_row,
                        int* result_id) {
  if (single_row && data.rows != 1)
    return Status::Error("--single-row needs a result of exactly one row, this one has " +
                         std::to_string(data.rows));
  std::vector<bat> bats;  // transient BATs made so far, released on failure
  auto fail = [&bats](const Status& s) {
    for (bat b : bats) CVDbat_release(b);
    return s;
  };
  for (const ResultColumn& c : data.columns) {
    const ManifestColumn& mc = manifest.columns[c.manifest_index];
    bat b = 0;
    Status s = FromKernel(CVDbat_create(ResultAtomType(mc), nullptr, data.rows, &b));
    if (!s.ok()) return fail(Status::Error("result column " + mc.name + ": " + s.message()));
    bats.push_back(b);
    if (mc.encoding == Encoding::kString) {
      for (const char* p = c.texts.data(); s.ok() && p < c.texts.data() + c.texts.size();
           p += std::strlen(p) + 1)
        s = FromKernel(CVDbat_append(b, p));
    } else if (data.rows > 0) {
      s = FromKernel(CVDbat_append_n(b, c.values.data(), data.rows));
    }
    if (!s.ok()) return fail(Status::Error("result column " + mc.name + ": " + s.message()));
  }
  bat order = 0;
  if (!single_row) {
    Status s = FromKernel(CVDbat_dense(0, data.rows, &order));
    if (!s.ok()) return fail(Status::Error("order BAT: " + s.message()));
  }
  res_table* t = res_table_create(m, static_cast<int>(bats.size()), order);
  if (t == nullptr) {
    if (order != 0) CVDbat_release(order);
    return fail(Status::Error("cannot create the result table"));
  }
  // From here the table owns the order BAT; each column takes over its BAT as it is set.
  for (size_t k = 0; k < data.columns.size(); ++k) {
    const ManifestColumn& mc = manifest.columns[data.columns[k].manifest_index];
    res_col_set(t, static_cast<int>(k), manifest.table.c_str(), mc.name.c_str(),
                SqlTypeName(mc.encoding), mc.encoding == Encoding::kDecimal ? mc.precision : 0,
                mc.scale, bats[k]);
  }
  *result_id = t->id;
  return Status::OK();
}

Status LoadColumn(bat id, const std::string& name, BAT** out) {
  Status s = FromKernel(CVDbat_load(id));
  if (s.ok()) *out = BBPdescriptor(id);  // the heaps just loaded
  if (s.ok() && *out == nullptr) s = Status::Error("cannot load column " + name);
  return s;
}

}  // namespace qopci
