#include "tools/column_attributes.h"

#include <limits>

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
  kWriterScale = 10,
  kSourceKind = 33,
  kQueued = 34,
  kCompressed = 36,
  kExistingCount = 38,
  kTimestampConversion = 50,
};

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

// The last raw override of `number`, or null.
const Attribute* Override(const ManifestColumn& column, int number) {
  const Attribute* found = nullptr;
  for (const Attribute& a : column.overrides)
    if (a.number == number) found = &a;
  return found;
}

}  // namespace

Status ResolveModes(Manifest* manifest, bool replace_all) {
  for (ManifestColumn& c : manifest->columns) {
    const std::string where = ColumnPrefix(c.name);
    const Attribute* file = Override(c, kTailFile);
    const Attribute* keep = Override(c, kKeepExisting);
    const Attribute* count = Override(c, kExistingCount);
    if (file != nullptr && file->kind != Attribute::kStr)
      return Status::Error(where + "attribute 5 (the tail file) must be a string");
    for (const Attribute* a : {keep, count})
      if (a != nullptr && a->kind == Attribute::kStr)
        return Status::Error(where + "attribute " + std::to_string(a->number) +
                             " must be an integer");
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
  }
  if (code >= 0) own = {Attribute::Int(kChunkerType, code), Attribute::Int(kWriterType, code)};

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
      // An override keeps the size the encoding registers that number with; a new number
      // is an int when its value fits in 32 bits.
      bool was_lng = false, known = false;
      for (const Attribute& e : attrs)
        if (e.number == a.number && e.kind != Attribute::kStr) {
          known = true;
          was_lng = e.kind == Attribute::kLng;
        }
      bool fits = a.value >= std::numeric_limits<int32_t>::min() &&
                  a.value <= std::numeric_limits<int32_t>::max();
      a.kind = (known ? was_lng : !fits) ? Attribute::kLng : Attribute::kInt;
      if (a.kind == Attribute::kInt && !fits) a.kind = Attribute::kLng;
    }
    attrs.push_back(a);
  }
  return attrs;
}

}  // namespace qopci
