#include "tools/manifest.h"

#include <cctype>
#include <cstdio>
#include <fstream>
#include <limits>
#include <nlohmann/json.hpp>
#include <set>
#include <sstream>

namespace qopci {

namespace {

using nlohmann::json;

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
  kMaxAttribute = 50,
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

std::string Trim(const std::string& s) {
  size_t b = s.find_first_not_of(" \t");
  size_t e = s.find_last_not_of(" \t");
  return b == std::string::npos ? std::string() : s.substr(b, e - b + 1);
}

// Parse "decimal(p,s)" (spaces allowed around the numbers).
Status ParseDecimal(const std::string& type, ManifestColumn* column) {
  const std::string where = ColumnPrefix(column->name);
  size_t open = type.find('('), comma = type.find(','), close = type.find(')');
  if (open != 7 || comma == std::string::npos || close != type.size() - 1 || comma > close)
    return Status::Error(where + "decimal type must be written decimal(p,s), got \"" + type + "\"");
  auto number = [](const std::string& text, int* out) {
    std::string t = Trim(text);
    if (t.empty() || t.size() > 3) return false;
    for (char c : t)
      if (!std::isdigit(static_cast<unsigned char>(c))) return false;
    *out = std::stoi(t);
    return true;
  };
  int p = 0, s = 0;
  if (!number(type.substr(open + 1, comma - open - 1), &p) ||
      !number(type.substr(comma + 1, close - comma - 1), &s))
    return Status::Error(where + "decimal type must be written decimal(p,s), got \"" + type + "\"");
  if (p < 1 || p > 18)
    return Status::Error(where + "decimal precision must be 1 to 18, got " + std::to_string(p));
  if (s > p)
    return Status::Error(where + "decimal scale must be 0 to the precision " + std::to_string(p) +
                         ", got " + std::to_string(s));
  column->encoding = Encoding::kDecimal;
  column->precision = p;
  column->scale = s;
  return Status::OK();
}

Status ParseType(const std::string& raw, ManifestColumn* column) {
  std::string type;
  for (char c : raw) type += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  type = Trim(type);
  static const struct {
    const char* name;
    Encoding encoding;
  } kPlain[] = {{"tinyint", Encoding::kTinyint}, {"smallint", Encoding::kSmallint},
                {"int", Encoding::kInt},         {"bigint", Encoding::kBigint},
                {"double", Encoding::kDouble},   {"timestamp", Encoding::kTimestamp},
                {"rowid", Encoding::kRowid}};
  for (const auto& p : kPlain) {
    if (type == p.name) {
      column->encoding = p.encoding;
      return Status::OK();
    }
  }
  if (type.rfind("decimal", 0) == 0) return ParseDecimal(type, column);
  return Status::Error(ColumnPrefix(column->name) + "unknown type \"" + raw +
                       "\" (known: tinyint, smallint, int, bigint, double, decimal(p,s), "
                       "timestamp, rowid)");
}

Status ParseOverrides(const json& attrs, ManifestColumn* column) {
  const std::string where = ColumnPrefix(column->name);
  if (!attrs.is_object()) return Status::Error(where + "\"attributes\" must be an object");
  for (const auto& [key, value] : attrs.items()) {
    int number = -1;
    bool digits = !key.empty() && key.size() <= 2;
    for (char c : key) digits = digits && std::isdigit(static_cast<unsigned char>(c));
    if (digits) number = std::stoi(key);
    if (number < 0 || number > kMaxAttribute)
      return Status::Error(where + "attribute \"" + key + "\" is not a number from 0 to 50");
    if (value.is_string()) {
      column->overrides.push_back(Attribute::Str(number, value.get<std::string>()));
    } else if (value.is_number_integer()) {
      // Kept as a 64-bit value here; ColumnAttributes() picks the size the export reads.
      column->overrides.push_back(Attribute::Lng(number, value.get<int64_t>()));
    } else {
      return Status::Error(where + "attribute \"" + key + "\" must be an integer or a string");
    }
  }
  return Status::OK();
}

Status ParseColumn(const json& j, size_t index, ManifestColumn* column) {
  const std::string which = "manifest: column " + std::to_string(index + 1) + ": ";
  if (!j.is_object()) return Status::Error(which + "must be an object");
  if (!j.contains("name")) return Status::Error(which + "missing \"name\"");
  if (!j["name"].is_string() || j["name"].get<std::string>().empty())
    return Status::Error(which + "\"name\" must be a non-empty string");
  column->name = j["name"].get<std::string>();
  if (!j.contains("type")) return Status::Error(ColumnPrefix(column->name) + "missing \"type\"");
  if (!j["type"].is_string())
    return Status::Error(ColumnPrefix(column->name) + "\"type\" must be a string");
  Status s = ParseType(j["type"].get<std::string>(), column);
  if (!s.ok()) return s;
  if (j.contains("attributes")) return ParseOverrides(j["attributes"], column);
  return Status::OK();
}

}  // namespace

Status ParseManifest(const std::string& json_text, Manifest* out) {
  json j = json::parse(json_text, nullptr, /*allow_exceptions=*/false);
  if (j.is_discarded()) return Status::Error("manifest: not valid JSON");
  if (!j.is_object()) return Status::Error("manifest: must be a JSON object");
  *out = Manifest();
  if (!j.contains("table")) return Status::Error("manifest: missing \"table\"");
  if (!j["table"].is_string() || j["table"].get<std::string>().empty())
    return Status::Error("manifest: \"table\" must be a non-empty string");
  out->table = j["table"].get<std::string>();
  if (j.contains("chunk_size")) {
    const json& c = j["chunk_size"];
    if (!c.is_number_integer() || c.get<int64_t>() < 1 ||
        c.get<int64_t>() > std::numeric_limits<int32_t>::max())
      return Status::Error("manifest: \"chunk_size\" must be a positive 32-bit integer");
    out->chunk_size = static_cast<int>(c.get<int64_t>());
  }
  if (j.contains("queued")) {
    const json& q = j["queued"];
    if (q.is_boolean())
      out->queued = q.get<bool>();
    else if (q.is_number_integer())
      out->queued = q.get<int64_t>() != 0;
    else
      return Status::Error("manifest: \"queued\" must be true or false");
  }
  if (!j.contains("columns")) return Status::Error("manifest: missing \"columns\"");
  if (!j["columns"].is_array() || j["columns"].empty())
    return Status::Error("manifest: \"columns\" must be a non-empty array");
  std::set<std::string> seen;
  for (size_t i = 0; i < j["columns"].size(); ++i) {
    ManifestColumn column;
    Status s = ParseColumn(j["columns"][i], i, &column);
    if (!s.ok()) return s;
    if (!seen.insert(column.name).second)
      return Status::Error(ColumnPrefix(column.name) + "appears twice");
    out->columns.push_back(std::move(column));
  }
  return Status::OK();
}

Status LoadManifest(const std::string& path, Manifest* out) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return Status::Error("manifest: cannot open " + path);
  std::ostringstream text;
  text << in.rdbuf();
  if (in.bad()) return Status::Error("manifest: cannot read " + path);
  return ParseManifest(text.str(), out);
}

const char* SqlTypeName(Encoding encoding) {
  switch (encoding) {
    case Encoding::kTinyint:
      return "tinyint";
    case Encoding::kSmallint:
      return "smallint";
    case Encoding::kInt:
      return "int";
    case Encoding::kBigint:
      return "bigint";
    case Encoding::kDouble:
      return "double";
    case Encoding::kDecimal:
      return "decimal";
    case Encoding::kTimestamp:
      return "timestamp";
    case Encoding::kRowid:
      return "oid";
  }
  return "?";
}

std::string EncodingName(const ManifestColumn& column) {
  if (column.encoding == Encoding::kDecimal)
    return "decimal(" + std::to_string(column.precision) + "," + std::to_string(column.scale) + ")";
  if (column.encoding == Encoding::kRowid) return "rowid";
  return SqlTypeName(column.encoding);
}

int DecimalWidth(int precision) {
  return precision <= 2 ? 1 : precision <= 4 ? 2 : precision <= 9 ? 4 : 8;
}

int ResultWidth(Encoding encoding) {
  switch (encoding) {
    case Encoding::kTinyint:
      return 1;
    case Encoding::kSmallint:
      return 2;
    case Encoding::kInt:
      return 4;
    case Encoding::kRowid:
      return 0;
    default:
      return 8;
  }
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
      Attribute::Int(kKeepExisting, 1),
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
