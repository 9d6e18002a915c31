#include "tools/column_attributes.h"

#include <algorithm>
#include <limits>

#include "tools/attribute_table.h"

namespace qopci {

namespace {

// Attribute numbers the export reads for every column.
enum : int {
  kChunkerKind = 0,
  kWriterKind = 1,
  kChunkSize = 2,
  kChunkerType = 3,
  kWriterType = 4,
  kTailFile = 5,
  kKeepExisting = 6,
  kWriterPrecision = 9,
  kRowLevelFiles = 15,  // 15-19: level number, year, quarter, month and day of each row
  kDictCodesFile = 24,
  kDictLevelFiles = 25,  // 25-29: the same five of each dictionary entry
  kWriterScale = 10,
  kHeapParameter = 11,
  kChunkerHeapFile = 12,
  kWriterHeapFile = 22,
  kTailWidth = 23,
  kStoreDir = 13,
  kInitialCapacity = 14,
  kDictKeyFile = 20,
  kDictCodeFile = 21,
  kReloadKeyFile = 30,
  kReloadKeyHeap = 31,
  kReloadCodeFile = 32,
  kSourceKind = 33,
  kNilAsKey = 35,
  kChunkerEntries = 37,
  kWriterEntries = 39,
  kWriterRows = 40,
  kQueued = 34,
  kCompressed = 36,
  kExistingCount = 38,
  kChunkerHeapSize = 41,
  kWriterHeapSize = 42,
  kSourceFile = 43,
  kSourceCount = 44,
  kSourceType = 45,
  kSourceHeapFile = 48,
  kSourceWidth = 49,
  kTimestampConversion = 50,
};

// Bytes a string column expects per string: the chunker's heap buffer starts at chunk size
// times this (plus the hash area) and grows as needed.
constexpr int kHeapParameter20 = 20;

// Slots the in-memory string dictionary starts with; it grows as strings arrive.
constexpr int kInitialCapacity1024 = 1024;

// The attributes of a dictionary-coded column (chunker and writer kinds 1, or 3 and 6 for
// strings): where its dictionary is, what it keeps, and where the row codes go. Nil rows get
// the code type's nil code (nil is not a key of the dictionary).
std::vector<Attribute> DictionaryAttributes(const ManifestColumn& column, const TargetInfo& t,
                                            int code) {
  const DictInfo& d = t.dict;
  std::vector<Attribute> own = {
      Attribute::Int(kNilAsKey, 0),
      Attribute::Str(kReloadKeyFile, d.key_file),
      Attribute::Str(kReloadKeyHeap, d.key_heap),
      Attribute::Str(kReloadCodeFile, d.code_file),
      Attribute::Lng(kChunkerEntries, d.entries),
      Attribute::Str(kDictKeyFile, d.key_file),
      Attribute::Str(kDictCodeFile, d.code_file),
      Attribute::Lng(kWriterEntries, d.entries),
      Attribute::Lng(kWriterRows, t.existing_count),
  };
  if (column.encoding != Encoding::kString) {
    own.push_back(Attribute::Int(kChunkerType, code));
    own.push_back(Attribute::Int(kWriterType, code));
    return own;
  }
  for (const Attribute& a :
       {Attribute::Int(kHeapParameter, kHeapParameter20), Attribute::Str(kChunkerHeapFile, d.key_heap),
        Attribute::Str(kStoreDir, d.store_dir), Attribute::Int(kInitialCapacity, kInitialCapacity1024),
        Attribute::Lng(kChunkerHeapSize, d.heap_size), Attribute::Str(kWriterHeapFile, d.key_heap),
        Attribute::Int(kTailWidth, d.key_width), Attribute::Lng(kWriterHeapSize, d.heap_size)})
    own.push_back(a);
  return own;
}

// The attributes of a time-level column (chunker 6 and writer 2, or 7 and 4 for the
// dictionary form): the files of its level streams and, in the dictionary form, where its
// dictionary of hours is and what it keeps. The row part is appended to or written anew
// with the column (attributes 5, 6, 38); the dictionary is always appended to.
std::vector<Attribute> LevelAttributes(const ManifestColumn& column, const TargetInfo& t) {
  std::vector<Attribute> own;
  for (size_t k = 0; k < t.level_files.size(); ++k)
    own.push_back(Attribute::Str(kRowLevelFiles + static_cast<int>(k), t.level_files[k]));
  if (!column.dictionary) return own;
  const DictInfo& d = t.dict;
  for (const Attribute& a :
       {Attribute::Int(kNilAsKey, 0), Attribute::Str(kReloadKeyFile, d.key_file),
        Attribute::Str(kReloadKeyHeap, ""), Attribute::Str(kReloadCodeFile, d.code_file),
        Attribute::Lng(kChunkerEntries, d.entries), Attribute::Str(kDictCodesFile, d.code_file),
        Attribute::Lng(kWriterEntries, d.entries), Attribute::Lng(kWriterRows, t.existing_count)})
    own.push_back(a);
  for (size_t k = 0; k < t.dict_level_files.size(); ++k)
    own.push_back(Attribute::Str(kDictLevelFiles + static_cast<int>(k), t.dict_level_files[k]));
  return own;
}

// Simple type codes of the fixed-width chunkers and writers.
enum : int {
  kCodeInt = 0,
  kCodeUInt = 1,
  kCodeChar = 2,
  kCodeShort = 4,
  kCodeInt64 = 6,
  kCodeDouble = 8
};

std::string ColumnPrefix(const std::string& name) { return "manifest: column \"" + name + "\": "; }

bool FitsInt32(int64_t v) {
  return v >= std::numeric_limits<int32_t>::min() && v <= std::numeric_limits<int32_t>::max();
}

// The last raw override of `number`, or null.
const Attribute* Override(const ManifestColumn& column, int number) {
  const Attribute* found = nullptr;
  for (const Attribute& a : column.overrides)
    if (a.number == number) found = &a;
  return found;
}

}  // namespace

Status CheckAttributes(Manifest* manifest) {
  if (manifest->chunk_size > kMaxChunkSize)
    return Status::Error("manifest: \"chunk_size\" must be 1 to " + std::to_string(kMaxChunkSize) +
                         ", not " + std::to_string(manifest->chunk_size));
  for (const ManifestColumn& c : manifest->columns) {
    for (const Attribute& a : c.overrides) {
      const AttributeSpec& spec = AttributeInfo(a.number);
      const std::string what = ColumnPrefix(c.name) + "attribute " + std::to_string(a.number) +
                               " (" + spec.meaning + ")";
      if (!spec.read) {
        manifest->warnings.push_back(what +
                                     " is not read by this version of the library; it is "
                                     "registered but changes nothing");
        continue;
      }
      if ((spec.call == Attribute::kStr) != (a.kind == Attribute::kStr))
        return Status::Error(
            what + " must be a " +
            (spec.call == Attribute::kStr ? "string, not a number" : "number, not a string"));
      if (spec.call == Attribute::kInt && !FitsInt32(a.value))
        return Status::Error(what + " must be a 32-bit integer, not " + std::to_string(a.value));
      if (a.kind != Attribute::kStr && !InRange(spec.range, a.value))
        return Status::Error(what + " must be " +
                             (spec.range.kind == AttributeRange::kCodes ? "one of " : "") +
                             RangeText(spec.range) + ", not " + std::to_string(a.value));
    }
  }
  return Status::OK();
}

Status ResolveModes(Manifest* manifest, bool replace_all) {
  Status checked = CheckAttributes(manifest);
  if (!checked.ok()) return checked;
  for (ManifestColumn& c : manifest->columns) {
    const std::string where = ColumnPrefix(c.name);
    const Attribute* keep = Override(c, kKeepExisting);
    const Attribute* count = Override(c, kExistingCount);
    const std::string keep_text = keep ? "attribute 6 = " + std::to_string(keep->value) : "";
    const std::string count_text = count ? "attribute 38 = " + std::to_string(count->value) : "";
    if (keep != nullptr && keep->value == 0) {
      if (c.mode_given && c.mode == Mode::kAppend)
        return Status::Error(where + keep_text +
                             " (write anew) contradicts mode \"append\"; use mode \"replace\"");
      // Without this the file would be written anew behind a hole of the old rows.
      if (count != nullptr && count->value != 0)
        return Status::Error(where + count_text + " contradicts " + keep_text +
                             ": a file written anew keeps no rows; leave attribute 38 out");
      c.mode = Mode::kReplace;
    }
    const Attribute* kind = Override(c, kSourceKind);
    if (!c.from.empty() && kind != nullptr)
      return Status::Error(where + "attribute 33 = " + std::to_string(kind->value) +
                           ": a \"from\" column is read back as its source is stored (source "
                           "kind 2 for fixed-width values, 4 for strings); dictionary sources "
                           "(kinds 3 and 5) are not made by this tool; leave attribute 33 out");
    if (replace_all) c.mode = Mode::kReplace;
    if (c.mode != Mode::kReplace) continue;
    const std::string why = replace_all ? "--replace" : c.mode_given ? "mode \"replace\"" : "";
    if (keep != nullptr && keep->value != 0)
      return Status::Error(where + keep_text + " (keep the rows) contradicts " + why +
                           ": a replaced column keeps no rows; leave attribute 6 out");
    if (count != nullptr && count->value != 0)
      return Status::Error(where + count_text + " contradicts " + why +
                           ": a replaced column keeps no rows; leave attribute 38 out");
  }
  return Status::OK();
}

Status CheckTargetOverrides(const std::string& target_name, const ManifestColumn& column,
                            const TargetInfo& target) {
  const std::string where = "column " + target_name + ": ";
  const Attribute* count = Override(column, kExistingCount);
  if (count != nullptr && count->value != target.existing_count)
    return Status::Error(where + "attribute 38 = " + std::to_string(count->value) +
                         " contradicts the " + std::to_string(target.existing_count) +
                         " rows the column holds, behind which the export appends; leave "
                         "attribute 38 out");
  const Attribute* file = Override(column, kTailFile);
  if (file != nullptr && target.new_file)
    return Status::Error(where + "attribute 5 names " + file->text +
                         ", but the export writes this column into a new file that it makes; "
                         "leave attribute 5 out");
  if (file != nullptr && file->text != target.tail_file)
    return Status::Error(where + "attribute 5 names " + file->text +
                         ", not the column's tail file " + target.tail_file +
                         "; leave attribute 5 out");
  if (column.levels) {
    // The level files are the column's own, as its tail is: 15-19, and 24-29 for the
    // dictionary form.
    std::vector<std::pair<int, std::string>> files;
    for (size_t k = 0; k < target.level_files.size(); ++k)
      files.emplace_back(kRowLevelFiles + static_cast<int>(k), target.level_files[k]);
    if (column.dictionary) files.emplace_back(kDictCodesFile, target.dict.code_file);
    for (size_t k = 0; column.dictionary && k < target.dict_level_files.size(); ++k)
      files.emplace_back(kDictLevelFiles + static_cast<int>(k), target.dict_level_files[k]);
    for (int n = kRowLevelFiles; n < kDictLevelFiles + 5; ++n) {
      const Attribute* a = Override(column, n);
      if (a == nullptr || (n >= kDictCodesFile && !column.dictionary)) continue;
      const std::string number = std::to_string(n);
      if (target.new_file)
        return Status::Error(where + "attribute " + number + " names " + a->text +
                             ", but the export writes this column's levels into new files that "
                             "it makes; leave attribute " +
                             number + " out");
      for (const auto& [m, file] : files)
        if (m == n && a->text != file)
          return Status::Error(where + "attribute " + number + " names " + a->text +
                               ", not the column's level file " + file + "; leave attribute " +
                               number + " out");
    }
  }
  if (column.encoding != Encoding::kString || column.dictionary) return Status::OK();
  // The heap the export extends must be the target's, described as the farm holds it: a
  // heap file, size or width of its own would make the tail point at other strings.
  for (int n : {kChunkerHeapFile, kWriterHeapFile}) {
    const Attribute* a = Override(column, n);
    if (a != nullptr && a->text != target.heap_file)
      return Status::Error(where + "attribute " + std::to_string(n) + " names " + a->text +
                           ", not the column's heap file " + target.heap_file +
                           "; leave attribute " + std::to_string(n) + " out");
  }
  for (int n : {kChunkerHeapSize, kWriterHeapSize, kTailWidth}) {
    const Attribute* a = Override(column, n);
    const int64_t want = n == kTailWidth ? target.tail_width : target.heap_size;
    if (a != nullptr && a->value != want)
      return Status::Error(where + "attribute " + std::to_string(n) + " = " +
                           std::to_string(a->value) + " contradicts the column's " +
                           (n == kTailWidth ? "tail width " : "heap size ") + std::to_string(want) +
                           "; leave attribute " + std::to_string(n) + " out");
  }
  return Status::OK();
}

std::vector<Attribute> ColumnAttributes(const Manifest& manifest, const ManifestColumn& column,
                                        const TargetInfo& target, bool force_sync) {
  // Plain fixed-width columns: chunker and writer kind 0 over one simple type code.
  int chunker = 0, writer = 0, source = 0, code = -1;
  std::vector<Attribute> own;
  switch (column.encoding) {
    case Encoding::kTinyint:
      code = kCodeChar;
      break;
    case Encoding::kSmallint:
      code = kCodeShort;
      break;
    case Encoding::kInt:
      code = kCodeInt;
      break;
    case Encoding::kBigint:
      code = kCodeInt64;
      break;
    case Encoding::kDouble:
      code = kCodeDouble;
      break;
    case Encoding::kSerial:
      code = kCodeInt64;
      break;
    case Encoding::kRowid:
      code = kCodeUInt;
      source = 1;
      break;
    case Encoding::kDecimal: {
      // The fixed-width chunker of the storage width's integer type keeps every value whole;
      // the decimal writer picks the same width from the precision.
      const int width = DecimalWidth(column.precision);
      writer = 7;
      own = {Attribute::Int(kChunkerType, width == 1   ? kCodeChar
                                          : width == 2 ? kCodeShort
                                          : width == 4 ? kCodeInt
                                                       : kCodeInt64),
             Attribute::Int(kWriterPrecision, column.precision),
             Attribute::Int(kWriterScale, column.scale)};
      break;
    }
    case Encoding::kTimestamp:
      writer = 3;  // 64-bit writer; it takes no type code
      own = {Attribute::Int(kChunkerType, kCodeInt64)};
      break;
    case Encoding::kString:
      // The heap is extended where it ends; while it is small its strings are loaded so
      // that a string the column already holds is pointed at, not added again.
      chunker = 2;
      writer = 5;
      own = {Attribute::Int(kHeapParameter, kHeapParameter20),
             Attribute::Str(kChunkerHeapFile, target.heap_file),
             Attribute::Lng(kChunkerHeapSize, target.heap_size),
             Attribute::Str(kWriterHeapFile, target.heap_file),
             Attribute::Int(kTailWidth, target.tail_width),
             Attribute::Lng(kWriterHeapSize, target.heap_size)};
      break;
  }
  if (code >= 0) own = {Attribute::Int(kChunkerType, code), Attribute::Int(kWriterType, code)};
  if (column.dictionary) {
    const bool strings = column.encoding == Encoding::kString;
    chunker = strings ? 3 : 1;
    writer = strings ? 6 : 1;
    own = DictionaryAttributes(column, target, code);
  }
  if (column.levels) {
    chunker = column.dictionary ? 7 : 6;
    writer = column.dictionary ? 4 : 2;
    own = LevelAttributes(column, target);
  }
  if (!column.from.empty()) {
    // A generated column reads its source's files back: fixed-width values by their type
    // code, strings through the source's heap.
    const SourceInfo& from = target.source;
    source = from.kind;
    own.push_back(Attribute::Str(kSourceFile, from.tail_file));
    own.push_back(Attribute::Lng(kSourceCount, from.count));
    if (from.kind == 2) {
      int value_code = code;
      for (const Attribute& a : own)
        if (a.number == kChunkerType) value_code = static_cast<int>(a.value);
      own.push_back(Attribute::Int(kSourceType, value_code));
    } else {
      own.push_back(Attribute::Str(kSourceHeapFile, from.heap_file));
      own.push_back(Attribute::Int(kSourceWidth, from.width));
    }
  }

  std::vector<Attribute> attrs = {
      Attribute::Int(kChunkerKind, chunker),
      Attribute::Int(kWriterKind, writer),
      Attribute::Int(kChunkSize, manifest.chunk_size),
      Attribute::Str(kTailFile, target.tail_file),
      Attribute::Int(kKeepExisting, target.replace ? 0 : 1),
      Attribute::Int(kSourceKind, source),
      Attribute::Int(kQueued, manifest.queued && !force_sync ? 1 : 0),
      Attribute::Int(kCompressed, 0),
      Attribute::Lng(kExistingCount, target.existing_count),
      Attribute::Int(kTimestampConversion, 0),
  };
  attrs.insert(attrs.end(), own.begin(), own.end());

  for (const Attribute& o : column.overrides) {
    Attribute a = o;
    if (a.kind != Attribute::kStr) {
      // A number the library reads as a number gets the size it reads; another is an int
      // when its value fits in 32 bits (a number where a string is read stays a number, for
      // RegisteredAttributes() to refuse).
      const AttributeSpec& spec = AttributeInfo(a.number);
      const bool sized = spec.read && spec.call != Attribute::kStr;
      a.kind = sized ? spec.call : FitsInt32(a.value) ? Attribute::kInt : Attribute::kLng;
    }
    attrs.push_back(a);
  }
  return attrs;
}

Status RegisteredAttributes(const Manifest& manifest, const ManifestColumn& column,
                            const TargetInfo& target, bool force_sync, uint64_t rows,
                            std::vector<Attribute>* out) {
  *out = ColumnAttributes(manifest, column, target, force_sync);
  // Every column allocates a chunk of chunk-size values at once: a small result gets a chunk
  // of its own size, so its memory follows its rows and not the manifest's chunk size.
  const int64_t fit =
      static_cast<int64_t>(std::min<uint64_t>(std::max<uint64_t>(rows, 1), uint64_t{INT64_MAX}));
  for (Attribute& a : *out)
    if (a.number == kChunkSize && a.kind != Attribute::kStr && a.value > fit) a.value = fit;
  for (const Attribute& a : *out) {
    Status s = CheckRegistered(column.name, a);
    if (!s.ok()) return s;
  }
  return Status::OK();
}

}  // namespace qopci
