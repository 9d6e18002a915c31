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

constexpr int kMaxAttribute = 50;  // attribute numbers run from 0

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
                {"rowid", Encoding::kRowid},     {"serial", Encoding::kSerial}};
  for (const auto& p : kPlain) {
    if (type == p.name) {
      column->encoding = p.encoding;
      return Status::OK();
    }
  }
  if (type.rfind("decimal", 0) == 0) return ParseDecimal(type, column);
  return Status::Error(ColumnPrefix(column->name) + "unknown type \"" + raw +
                       "\" (known: tinyint, smallint, int, bigint, double, decimal(p,s), "
                       "timestamp, rowid, serial)");
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
    } else if (value.is_number_unsigned() &&
               value.get<uint64_t>() > uint64_t{std::numeric_limits<int64_t>::max()}) {
      return Status::Error(where + "attribute \"" + key + "\" must fit in a 64-bit integer");
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
  if (j.contains("mode")) {
    const json& mode = j["mode"];
    std::string text = mode.is_string() ? mode.get<std::string>() : mode.dump();
    if (text == "append" || text == "replace") {
      column->mode = text == "append" ? Mode::kAppend : Mode::kReplace;
      column->mode_given = true;
    } else {
      return Status::Error(ColumnPrefix(column->name) + "unknown mode " +
                           (mode.is_string() ? "\"" + text + "\"" : text) +
                           " (known: append, replace)");
    }
  }
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
    case Encoding::kSerial:
      return "bigint";
  }
  return "?";
}

std::string EncodingName(const ManifestColumn& column) {
  if (column.encoding == Encoding::kDecimal)
    return "decimal(" + std::to_string(column.precision) + "," + std::to_string(column.scale) + ")";
  if (column.encoding == Encoding::kRowid) return "rowid";
  if (column.encoding == Encoding::kSerial) return "serial";
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

}  // namespace qopci
