#include "tools/manifest.h"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <fstream>
#include <limits>
#include <nlohmann/json.hpp>
#include <set>
#include <sstream>

#include "tools/closest.h"

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

// "line L, column C" of the 1-based byte offset `byte` into `text` (columns count bytes).
std::string TextPosition(const std::string& text, size_t byte) {
  size_t line = 1, line_start = 0;
  for (size_t i = 0; i + 1 < byte && i < text.size(); ++i)
    if (text[i] == '\n') {
      ++line;
      line_start = i + 1;
    }
  return "line " + std::to_string(line) + ", column " + std::to_string(byte - line_start);
}

// The reason in a parse error's text, without the library's prefix and position.
std::string ParseErrorReason(const std::string& what) {
  size_t dash = what.find(" - ");
  if (dash != std::string::npos) return what.substr(dash + 3);
  size_t colon = what.find(": ");
  return colon == std::string::npos ? what : what.substr(colon + 2);
}

// The type as written, lower-cased, with runs of blanks made one and none around the
// parentheses and the comma: " Decimal( 9 , 2 )" is "decimal(9,2)".
std::string NormalType(const std::string& raw) {
  std::string type;
  for (char c : Trim(raw)) {
    c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    if (c == '\t') c = ' ';
    if (c == ' ' && !type.empty() &&
        (type.back() == ' ' || type.back() == '(' || type.back() == ','))
      continue;
    if ((c == '(' || c == ',' || c == ')') && !type.empty() && type.back() == ' ') type.pop_back();
    type += c;
  }
  return type;
}

// Every spelling of the fixed types, the tool's own word first, then the usual SQL aliases.
const struct {
  const char* name;
  Encoding encoding;
} kTypeNames[] = {
    {"tinyint", Encoding::kTinyint},
    {"smallint", Encoding::kSmallint},
    {"int", Encoding::kInt},
    {"bigint", Encoding::kBigint},
    {"double", Encoding::kDouble},
    {"timestamp", Encoding::kTimestamp},
    {"rowid", Encoding::kRowid},
    {"serial", Encoding::kSerial},
    {"string", Encoding::kString},
    {"int1", Encoding::kTinyint},
    {"int2", Encoding::kSmallint},
    {"integer", Encoding::kInt},
    {"int4", Encoding::kInt},
    {"int8", Encoding::kBigint},
    {"double precision", Encoding::kDouble},
    {"float", Encoding::kDouble},
    {"float8", Encoding::kDouble},
    {"datetime", Encoding::kTimestamp},
    {"text", Encoding::kString},
    {"varchar", Encoding::kString},
};
const char* const kDecimalNames[] = {"decimal", "numeric", "dec"};

// Parse the "(p,s)" or "(p)" behind a decimal type's name; (p) is (p,0).
Status ParseDecimal(const std::string& type, size_t open, ManifestColumn* column) {
  const std::string where = ColumnPrefix(column->name);
  const Status malformed =
      Status::Error(where + "decimal type must be written decimal(p,s), got \"" + type + "\"");
  int numbers[2] = {0, 0}, count = 0;
  size_t i = open + 1;
  for (; count < 2; ++count) {
    size_t start = i;
    while (i < type.size() && std::isdigit(static_cast<unsigned char>(type[i]))) ++i;
    if (i == start || i - start > 3) return malformed;
    numbers[count] = std::stoi(type.substr(start, i - start));
    if (i >= type.size() || type[i] != ',') break;
    ++i;
  }
  if (count == 2 || i != type.size() - 1 || type[i] != ')') return malformed;
  const int p = numbers[0], s = numbers[1];
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
  const std::string type = NormalType(raw);
  std::vector<std::string> names;
  for (const auto& t : kTypeNames) {
    if (type == t.name) {
      column->encoding = t.encoding;
      return Status::OK();
    }
    names.push_back(t.name);
  }
  const size_t open = type.find('(');
  for (const char* d : kDecimalNames) {
    if (type.compare(0, open, d) == 0) {
      if (open == std::string::npos)
        return Status::Error(ColumnPrefix(column->name) +
                             "decimal type must be written decimal(p,s), got \"" + raw + "\"");
      return ParseDecimal(type, open, column);
    }
  }
  names.push_back("decimal");
  return Status::Error(ColumnPrefix(column->name) + "unknown type \"" + raw + "\"" +
                       DidYouMean(type.substr(0, open), names) +
                       " (known: tinyint, smallint, int, bigint, double, decimal(p,s), "
                       "timestamp, rowid, serial, string, and their SQL aliases)");
}

// Keys a manifest may hold, at the top and in a column; any other is kept out with a warning.
const std::vector<std::string> kTopKeys = {"table", "chunk_size", "queued", "columns", "ignore"};
const std::vector<std::string> kColumnKeys = {
    "name", "type", "mode", "attributes", "from", "encoding", "store", "store_dir", "levels"};

// "encoding", "store" and "store_dir": how the column is stored.
Status ParseEncoding(const json& j, ManifestColumn* column) {
  const std::string where = ColumnPrefix(column->name);
  if (j.contains("encoding")) {
    const json& e = j["encoding"];
    const std::string text = e.is_string() ? e.get<std::string>() : e.dump();
    if (text != "dictionary" && text != "plain")
      return Status::Error(where + "unknown encoding " + (e.is_string() ? "\"" + text + "\"" : text) +
                           " (known: plain, dictionary)");
    column->dictionary = text == "dictionary";
  }
  if (j.contains("levels")) {
    const json& l = j["levels"];
    if (!l.is_boolean()) return Status::Error(where + "\"levels\" must be true or false");
    column->levels = l.get<bool>();
    if (column->levels && column->encoding != Encoding::kTimestamp)
      return Status::Error(where + "\"levels\" is for timestamp columns, not " +
                           EncodingName(*column));
  }
  if (column->dictionary && column->encoding == Encoding::kTimestamp && !column->levels)
    return Status::Error(where + "\"encoding\": \"dictionary\" on a timestamp column needs " +
                         "\"levels\": true (its dictionary holds the distinct hours)");
  if (column->dictionary && !column->levels) {
    switch (column->encoding) {
      case Encoding::kTinyint:
      case Encoding::kSmallint:
      case Encoding::kInt:
      case Encoding::kBigint:
      case Encoding::kDouble:
      case Encoding::kString:
        break;
      default:
        return Status::Error(where + "\"encoding\": \"dictionary\" is for int, smallint, "
                             "tinyint, bigint, double and string columns, not " +
                             EncodingName(*column));
    }
  }
  if (j.contains("store")) {
    const json& st = j["store"];
    if (!st.is_string() || st.get<std::string>() != "leveldb")
      return Status::Error(where + "unknown store " + st.dump() + " (known: \"leveldb\")");
    if (!column->dictionary || column->encoding != Encoding::kString)
      return Status::Error(where + "\"store\": \"leveldb\" is for string columns with "
                           "\"encoding\": \"dictionary\"");
    column->store = true;
  }
  if (j.contains("store_dir")) {
    const json& d = j["store_dir"];
    if (!d.is_string() || d.get<std::string>().empty())
      return Status::Error(where + "\"store_dir\" must be a non-empty string (a directory)");
    if (!column->store)
      return Status::Error(where + "\"store_dir\" needs \"store\": \"leveldb\"");
    column->store_dir = d.get<std::string>();
  }
  return Status::OK();
}

void WarnUnknownKeys(const json& object, const std::vector<std::string>& known,
                     const std::string& where, std::vector<std::string>* warnings) {
  for (const auto& [key, value] : object.items()) {
    if (std::find(known.begin(), known.end(), key) != known.end()) continue;
    warnings->push_back(where + "unknown key \"" + key + "\"" + DidYouMean(key, known) +
                        " has no effect");
  }
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

Status ParseColumn(const json& j, size_t index, ManifestColumn* column,
                   std::vector<std::string>* warnings) {
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
  WarnUnknownKeys(j, kColumnKeys, ColumnPrefix(column->name), warnings);
  s = ParseEncoding(j, column);
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
  if (j.contains("from")) {
    const json& from = j["from"];
    const std::string text = from.is_string() ? from.get<std::string>() : "";
    const size_t dot = text.find('.');
    if (dot == std::string::npos || dot == 0 || dot + 1 == text.size())
      return Status::Error(ColumnPrefix(column->name) +
                           "\"from\" must name a column of the farm as \"table.column\"");
    if (column->encoding == Encoding::kRowid || column->encoding == Encoding::kSerial)
      return Status::Error(ColumnPrefix(column->name) + EncodingName(*column) +
                           " columns are numbered and cannot copy another column");
    if (column->dictionary)
      return Status::Error(ColumnPrefix(column->name) +
                           "a dictionary-coded column cannot copy another column (\"from\")");
    if (column->levels)
      return Status::Error(ColumnPrefix(column->name) +
                           "a time-level column cannot copy another column (\"from\")");
    column->from = text;
  }
  if (j.contains("attributes")) return ParseOverrides(j["attributes"], column);
  return Status::OK();
}

}  // namespace

Status ParseManifest(const std::string& json_text, Manifest* out) {
  json j;
  try {
    j = json::parse(json_text);
  } catch (const json::parse_error& e) {
    return Status::Error("manifest: not valid JSON at " + TextPosition(json_text, e.byte) + ": " +
                         ParseErrorReason(e.what()));
  } catch (const json::exception& e) {  // a number beyond a double's range: 1e400
    const std::string what = e.what();
    const size_t close = what.find("] ");
    return Status::Error("manifest: not valid JSON: " +
                         (close == std::string::npos ? what : what.substr(close + 2)));
  }
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
    Status s = ParseColumn(j["columns"][i], i, &column, &out->warnings);
    if (!s.ok()) return s;
    if (!seen.insert(column.name).second)
      return Status::Error(ColumnPrefix(column.name) + "appears twice");
    out->columns.push_back(std::move(column));
  }
  if (j.contains("ignore")) {
    const json& ignore = j["ignore"];
    bool strings = ignore.is_array();
    for (size_t i = 0; strings && i < ignore.size(); ++i) strings = ignore[i].is_string();
    if (!strings) return Status::Error("manifest: \"ignore\" must be an array of CSV column names");
    for (const json& name : ignore) {
      if (seen.count(name.get<std::string>()) != 0)
        return Status::Error("manifest: column \"" + name.get<std::string>() +
                             "\" is both a column and in \"ignore\"");
      out->ignored.push_back(name.get<std::string>());
    }
  }
  WarnUnknownKeys(j, kTopKeys, "manifest: ", &out->warnings);
  return Status::OK();
}

Status ReportWarnings(const std::vector<std::string>& warnings, bool strict, std::ostream& err) {
  if (!strict) {
    for (const std::string& w : warnings) err << "qopci: warning: " << w << "\n";
    return Status::OK();
  }
  std::string text;
  for (const std::string& w : warnings)
    text += (text.empty() ? "" : "\nqopci: ") + std::string("error under --strict: ") + w;
  return text.empty() ? Status::OK() : Status::Error(text);
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
    case Encoding::kString:
      return "varchar";
  }
  return "?";
}

std::string EncodingName(const ManifestColumn& column) {
  if (column.encoding == Encoding::kDecimal)
    return "decimal(" + std::to_string(column.precision) + "," + std::to_string(column.scale) + ")";
  if (column.encoding == Encoding::kRowid) return "rowid";
  if (column.encoding == Encoding::kSerial) return "serial";
  if (column.encoding == Encoding::kString) return "string";
  return SqlTypeName(column.encoding);
}

std::string ColumnTypeName(const ManifestColumn& column) {
  return EncodingName(column) + (column.levels ? " levels" : "") +
         (column.dictionary ? " dictionary" : "");
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
    case Encoding::kString:
      return 0;
    default:
      return 8;
  }
}

bool InResult(const ManifestColumn& column) {
  return column.encoding != Encoding::kRowid && column.from.empty();
}

}  // namespace qopci
