#include "tools/row_view.h"

#include <algorithm>
#include <memory>

#include "corvid/farm.h"
#include "tools/closest.h"
#include "tools/inspect.h"
#include "tools/kernel_io.h"
#include "tools/level_target.h"

namespace qopci {

namespace {

std::string TableOf(const std::string& name) {
  size_t dot = name.find('.');
  return dot == std::string::npos ? std::string() : name.substr(0, dot);
}

std::string ShortName(const std::string& name) { return name.substr(name.find('.') + 1); }

std::string Join(const std::vector<std::string>& words) {
  std::string s;
  for (const std::string& w : words) s += (s.empty() ? "" : ", ") + w;
  return s;
}

// The columns `o` chooses, all of one table.
Status ChooseColumns(const RowViewOptions& o, std::vector<FarmColumn>* out) {
  const std::string farm = CVDfarm_dir();
  std::vector<FarmColumn> all = FarmColumns();
  std::vector<std::string> tables, names;
  for (const FarmColumn& c : all) {
    names.push_back(c.name);
    names.push_back(ShortName(c.name));
    if (std::find(tables.begin(), tables.end(), TableOf(c.name)) == tables.end())
      tables.push_back(TableOf(c.name));
  }
  if (all.empty()) return Status::Error("farm " + farm + " holds no columns");
  if (!o.table.empty() && std::find(tables.begin(), tables.end(), o.table) == tables.end())
    return Status::Error("no table named \"" + o.table + "\" in farm " + farm +
                         DidYouMean(o.table, tables));
  if (o.columns.empty()) {
    if (o.table.empty() && tables.size() > 1)
      return Status::Error("farm " + farm + " holds the tables " + Join(tables) +
                           ": choose one with --table");
    const std::string table = o.table.empty() ? tables[0] : o.table;
    for (const FarmColumn& c : all)
      if (TableOf(c.name) == table) out->push_back(c);
    return Status::OK();
  }
  for (const std::string& wanted : o.columns) {
    std::vector<FarmColumn> found;
    for (const FarmColumn& c : all)
      if (NameMatches(c.name, wanted) && (o.table.empty() || TableOf(c.name) == o.table))
        found.push_back(c);
    if (found.empty())
      return Status::Error("no column named \"" + wanted + "\" in " +
                           (o.table.empty() ? "farm " + farm : "table " + o.table) +
                           DidYouMean(wanted, names));
    if (found.size() > 1)
      return Status::Error("column \"" + wanted + "\" is in more than one table (" + found[0].name +
                           ", " + found[1].name + "): give --table or the full name");
    if (!out->empty() && TableOf(found[0].name) != TableOf(out->front().name))
      return Status::Error("columns " + out->front().name + " and " + found[0].name +
                           " are of different tables: rows are printed for one table");
    out->push_back(found[0]);
  }
  return Status::OK();
}

// A value that JSON can hold as a number: integers and finite doubles.
bool JsonNumber(const ValueFormatter& f, const BAT& b, const std::string& text) {
  if (f.decimal() || f.timestamp()) return false;
  const bool numeric = b.ttype == TYPE_bte || b.ttype == TYPE_sht || b.ttype == TYPE_int ||
                       b.ttype == TYPE_lng || b.ttype == TYPE_oid || b.ttype == TYPE_flt ||
                       b.ttype == TYPE_dbl;
  const size_t first = text.size() > 1 && text[0] == '-' ? 1 : 0;
  return numeric && first < text.size() && text[first] >= '0' && text[first] <= '9';
}

std::string JsonString(const std::string& text) { return JsonText(text); }

// Bytes of the valid UTF-8 sequence at s[i], or 0 when none starts there.
size_t Utf8Length(const std::string& s, size_t i) {
  const auto at = [&](size_t k) { return static_cast<unsigned char>(s[k]); };
  const unsigned char c = at(i);
  if (c < 0x80) return 1;
  size_t n = c >= 0xC2 && c <= 0xDF   ? 2
             : c >= 0xE0 && c <= 0xEF ? 3
             : c >= 0xF0 && c <= 0xF4 ? 4
                                      : 0;
  if (n == 0 || i + n > s.size()) return 0;
  // The second byte's range excludes overlong forms, surrogates and code points past U+10FFFF.
  const unsigned char lo = c == 0xE0 ? 0xA0 : c == 0xF0 ? 0x90 : 0x80;
  const unsigned char hi = c == 0xED ? 0x9F : c == 0xF4 ? 0x8F : 0xBF;
  if (at(i + 1) < lo || at(i + 1) > hi) return 0;
  for (size_t k = 2; k < n; ++k)
    if (at(i + k) < 0x80 || at(i + k) > 0xBF) return 0;
  return n;
}

// Characters a table cell takes: UTF-8 sequences count one each.
size_t DisplayWidth(const std::string& text) {
  size_t n = 0;
  for (unsigned char c : text) n += (c & 0xC0) != 0x80;
  return n;
}

struct Loaded {
  FarmColumn column;
  BAT* b;
  std::unique_ptr<ValueFormatter> format;
  int64_t dict_entries = -1;  // a time-level dictionary's size, -1 for other columns
};

Status Print(std::ostream& out, const RowViewOptions& o, std::vector<Loaded>& cols) {
  const BUN count = cols[0].b->batCount;
  const BUN n = count < o.limit ? count : static_cast<BUN>(o.limit);
  std::string text, line;
  bool nil = false;
  std::vector<size_t> width;  // the table view's column widths
  // The table cell of a value: NULL for nil, strings on one line.
  auto table_text = [](const ValueFormatter& f, const std::string& value, bool is_nil) {
    return is_nil ? std::string("NULL") : f.string() ? EscapeControls(value) : value;
  };
  if (o.format == RowFormat::kTable) {
    for (const Loaded& c : cols) width.push_back(DisplayWidth(ShortName(c.column.name)));
    for (BUN r = 0; r < n; ++r)
      for (size_t k = 0; k < cols.size(); ++k) {
        Status s = cols[k].format->Format(r, &text, &nil);
        if (!s.ok()) return s;
        width[k] = std::max(width[k], DisplayWidth(table_text(*cols[k].format, text, nil)));
      }
  }
  // One cell of the current line, after `k` others.
  auto cell = [&](size_t k, const std::string& value) {
    if (o.format == RowFormat::kTable) {
      line += k == 0 ? "" : "  ";
      line.append(width[k] - std::min(width[k], DisplayWidth(value)), ' ');
      line += value;
    } else {
      line += k == 0 ? "" : o.format == RowFormat::kCsv ? "," : ", ";
      line += value;
    }
  };
  if (o.format == RowFormat::kJson) {
    line = "{\"table\": " + JsonString(TableOf(cols[0].column.name)) + ", \"columns\": [";
    for (size_t k = 0; k < cols.size(); ++k)
      line += std::string(k == 0 ? "" : ", ") +
              "{\"name\": " + JsonString(ShortName(cols[k].column.name)) +
              ", \"type\": " + JsonString(SqlTypeOf(cols[k].column.id)) +
              (cols[k].dict_entries >= 0
                   ? ", \"dictionary_entries\": " + std::to_string(cols[k].dict_entries)
                   : std::string()) +
              "}";
    line += "], \"count\": " + std::to_string(count) + ", \"rows\": [";
  } else {
    for (size_t k = 0; k < cols.size(); ++k) {
      const std::string name = ShortName(cols[k].column.name);
      cell(k, o.format == RowFormat::kCsv ? CsvField(name) : name);
    }
  }
  out << line;
  for (BUN r = 0; r < n; ++r) {
    line = o.format == RowFormat::kJson ? (r == 0 ? "\n[" : ",\n[") : "\n";
    for (size_t k = 0; k < cols.size(); ++k) {
      Status s = cols[k].format->Format(r, &text, &nil);
      if (!s.ok()) return s;
      if (o.format == RowFormat::kCsv)
        cell(k, nil ? std::string() : CsvField(text));
      else if (o.format == RowFormat::kJson)
        cell(k, nil                                             ? "null"
                : JsonNumber(*cols[k].format, *cols[k].b, text) ? text
                                                                : JsonString(text));
      else
        cell(k, table_text(*cols[k].format, text, nil));
    }
    if (o.format == RowFormat::kJson) line += "]";
    out << line;
  }
  if (o.format == RowFormat::kJson) out << "]}";
  out << "\n";
  if (o.format == RowFormat::kTable && n < count)
    out << "(" << n << " of " << count << " rows; --all prints every row)\n";
  for (const Loaded& c : cols)
    if (o.format == RowFormat::kTable && c.dict_entries >= 0)
      out << "(" << ShortName(c.column.name) << ": dictionary of " << c.dict_entries
          << " entries)\n";
  return Status::OK();
}

}  // namespace

bool ParseRowFormat(const std::string& word, RowFormat* out) {
  if (word == "table")
    *out = RowFormat::kTable;
  else if (word == "csv")
    *out = RowFormat::kCsv;
  else if (word == "json")
    *out = RowFormat::kJson;
  else
    return false;
  return true;
}

std::string CsvField(const std::string& text) {
  const auto blank = [](char c) { return c == ' ' || c == '\t'; };
  if (!text.empty() && text.find_first_of(",\"\r\n") == std::string::npos && !blank(text.front()) &&
      !blank(text.back()))
    return text;
  std::string q = "\"";
  for (char c : text) q += c == '"' ? "\"\"" : std::string(1, c);
  return q + "\"";
}

std::string JsonText(const std::string& text) {
  static const char kHex[] = "0123456789abcdef";
  std::string out = "\"";
  for (size_t i = 0; i < text.size();) {
    const unsigned char c = static_cast<unsigned char>(text[i]);
    const size_t n = Utf8Length(text, i);
    if (c == '"' || c == '\\') {
      out += '\\';
      out += static_cast<char>(c);
    } else if (c == '\n') {
      out += "\\n";
    } else if (c == '\t') {
      out += "\\t";
    } else if (c == '\r') {
      out += "\\r";
    } else if (c < 0x20 || c == 0x7f || n == 0) {
      out += "\\u00";
      out += kHex[c >> 4];
      out += kHex[c & 15];
    } else {
      out.append(text, i, n);
      i += n;
      continue;
    }
    ++i;
  }
  return out + "\"";
}

std::string EscapeControls(const std::string& text) {
  static const char kHex[] = "0123456789abcdef";
  std::string out;
  for (char ch : text) {
    const unsigned char c = static_cast<unsigned char>(ch);
    if (c == '\\')
      out += "\\\\";
    else if (c == '\n')
      out += "\\n";
    else if (c == '\t')
      out += "\\t";
    else if (c == '\r')
      out += "\\r";
    else if (c < 0x20 || c == 0x7f)
      out += std::string("\\x") + kHex[c >> 4] + kHex[c & 15];
    else
      out += ch;
  }
  return out;
}

Status PrintRows(std::ostream& out, const RowViewOptions& options) {
  std::vector<FarmColumn> chosen;
  Status s = ChooseColumns(options, &chosen);
  if (!s.ok()) return s;
  std::vector<Loaded> cols;
  // One printed column: a chosen column, or one of the levels shown beside its timestamps.
  auto add = [&cols](const FarmColumn& c, bool dates) {
    BAT* b = nullptr;
    Status loaded = LoadShown(c, &b);
    if (!loaded.ok()) return loaded;
    cols.push_back({c, b, std::make_unique<ValueFormatter>(c.id, b, dates)});
    if (b->batCount == cols[0].b->batCount) return Status::OK();
    return Status::Error("columns " + cols[0].column.name + " (" +
                         std::to_string(cols[0].b->batCount) + " rows) and " + c.name + " (" +
                         std::to_string(b->batCount) +
                         " rows) differ in length: choose columns of one length with --column");
  };
  for (const FarmColumn& c : chosen) {
    s = add(c, false);
    if (s.ok() && c.level_dict != 0)
      cols.back().dict_entries = static_cast<int64_t>(BBPgetdesc(c.level_dict)->batCount);
    for (size_t k = 0; s.ok() && k < c.levels.size(); ++k)
      s = add({c.levels[k], RowLevelName(c.name, static_cast<int>(k))}, k > 0);
    if (!s.ok()) break;
  }
  if (s.ok()) s = Print(out, options, cols);
  for (Loaded& c : cols) {
    c.format.reset();
    ReleaseShown(c.column, c.b);
  }
  return s;
}

}  // namespace qopci
