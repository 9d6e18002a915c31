#include "tools/result_data.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>

#include "corvid/gdk.h"
#include "corvid/mtime.h"
#include "tools/closest.h"
#include "tools/csv.h"
#include "tools/progress.h"
#include "tools/values.h"

namespace qopci {

namespace {

// Files below this size load too fast for a bar to be worth drawing.
constexpr uint64_t kProgressMinBytes = 4u << 20;

void PrepareColumns(const Manifest& manifest, ResultData* out) {
  *out = ResultData();
  for (size_t i = 0; i < manifest.columns.size(); ++i) {
    if (!InResult(manifest.columns[i])) continue;
    ResultColumn c;
    c.manifest_index = i;
    c.width = ResultWidth(manifest.columns[i].encoding);
    out->columns.push_back(std::move(c));
  }
}

template <typename T>
void Append(ResultColumn* c, T v) {
  size_t at = c->values.size();
  c->values.resize(at + sizeof(T));
  std::memcpy(c->values.data() + at, &v, sizeof(T));
}

// The header's names, quoted and comma-separated, for messages; long headers are cut.
std::string HeaderList(const std::vector<std::string>& header) {
  constexpr size_t kShown = 20;
  std::string list;
  for (size_t f = 0; f < header.size() && f < kShown; ++f)
    list += (f > 0 ? ", \"" : "\"") + header[f] + "\"";
  if (header.size() > kShown) list += ", ... (" + std::to_string(header.size()) + " in all)";
  return list;
}

// Find each result column's field in the header (*position gets the field count for the
// generated serial columns), refuse missing and repeated names, and warn of the CSV columns
// that are read by no manifest column.
Status MatchHeader(const Manifest& manifest, const std::vector<std::string>& header,
                   const CsvReader& reader, ResultData* out, std::vector<size_t>* position) {
  const std::string where = "CSV header (line " + std::to_string(reader.line()) + ")";
  std::vector<bool> read(header.size(), false);
  std::vector<std::string> generated, unread;
  for (const ResultColumn& c : out->columns) {
    const ManifestColumn& mc = manifest.columns[c.manifest_index];
    std::vector<size_t> at;
    for (size_t f = 0; f < header.size(); ++f)
      if (header[f] == mc.name) at.push_back(f);
    if (mc.encoding == Encoding::kSerial) {
      position->push_back(header.size());
      continue;
    }
    if (at.empty()) {
      // Hint only at names that no other manifest column takes.
      std::vector<std::string> free;
      for (const std::string& name : header)
        if (std::none_of(manifest.columns.begin(), manifest.columns.end(),
                         [&](const ManifestColumn& m) { return m.name == name; }))
          free.push_back(name);
      return Status::Error(where + " lacks the manifest's column \"" + mc.name + "\"" +
                           DidYouMean(mc.name, free) + "; split at " +
                           DelimiterName(reader.delimiter()) + " it names " + HeaderList(header));
    }
    if (at.size() > 1)
      return Status::Error(where + " names the manifest's column \"" + mc.name + "\" " +
                           std::to_string(at.size()) + " times (fields " +
                           std::to_string(at[0] + 1) + " and " + std::to_string(at[1] + 1) + ")");
    read[at[0]] = true;
    position->push_back(at[0]);
  }
  for (size_t f = 0; f < header.size(); ++f) {
    if (read[f]) continue;
    const std::string& name = header[f];
    const auto is = [&](const std::string& n) { return n == name; };
    if (std::any_of(manifest.ignored.begin(), manifest.ignored.end(), is)) continue;
    bool made = std::any_of(manifest.columns.begin(), manifest.columns.end(),
                            [&](const ManifestColumn& c) { return c.name == name; });
    std::vector<std::string>& list = made ? generated : unread;
    if (std::none_of(list.begin(), list.end(), is)) list.push_back(name);
  }
  if (!unread.empty())
    out->warnings.push_back(
        "CSV columns that no manifest column reads are not exported: " + HeaderList(unread) +
        " (name them in \"ignore\" to drop them "
        "without a warning)");
  if (!generated.empty())
    out->warnings.push_back("CSV columns " + HeaderList(generated) +
                            " are not read: the manifest's rowid, serial and \"from\" columns of "
                            "that name are generated");
  return Status::OK();
}

// Append a string field's text to c->texts: nil for the empty unquoted field (or the
// --null text, quoted or not), the text otherwise. The text the kernel would read back as
// nil, or cut at a zero byte, is refused.
Status AppendString(const ManifestColumn& mc, const std::string& text, bool quoted,
                    const CsvOptions& options, ResultColumn* c) {
  if (text == options.null_text && (!options.null_text.empty() || !quoted)) {
    c->texts += kNilString;
  } else if (text == kNilString) {
    return Status::Error("column \"" + mc.name +
                         "\": the one-byte string 0x80 is the kernel's nil string and would "
                         "read back as nil");
  } else if (text.find('\0') != std::string::npos) {
    return Status::Error("column \"" + mc.name +
                         "\": a zero byte in a string, which would end it there and lose the "
                         "rest");
  } else {
    c->texts += text;
  }
  c->texts += '\0';
  return Status::OK();
}

}  // namespace

Status LoadCsv(const Manifest& manifest, std::istream* in, ProgressBar* progress, ResultData* out,
               const CsvOptions& options) {
  PrepareColumns(manifest, out);
  CsvReader reader(in, options);
  std::vector<std::string> fields;
  std::vector<bool> quoted;
  bool done = false;
  Status s = reader.Next(&fields, &done);
  if (!s.ok()) return s;
  if (done) return Status::Error("CSV is empty: the first line must name the columns");
  const std::vector<std::string> header = fields;
  const size_t field_count = header.size();
  std::vector<size_t> position;
  s = MatchHeader(manifest, header, reader, out, &position);
  if (!s.ok()) return s;

  struct Caveat {  // values read with a caveat (see ParseFieldValue), per result column
    uint64_t count = 0, first_line = 0;
    std::string first_text;
  };
  std::vector<Caveat> caveats(out->columns.size());
  std::vector<unsigned char> value(8);
  for (;;) {
    s = reader.Next(&fields, &done, &quoted);
    if (!s.ok()) return s;
    if (done) break;
    const std::string line = "line " + std::to_string(reader.line()) + ": ";
    if (fields.size() != field_count)
      return Status::Error(line + "expected " + std::to_string(field_count) + " fields, found " +
                           std::to_string(fields.size()));
    if (out->rows == kMaxResultRows)
      return Status::Error(line + "more than " + std::to_string(kMaxResultRows) + " rows");
    for (size_t k = 0; k < out->columns.size(); ++k) {
      ResultColumn& c = out->columns[k];
      if (position[k] == field_count) continue;
      const ManifestColumn& mc = manifest.columns[c.manifest_index];
      const std::string& text = fields[position[k]];
      if (mc.encoding == Encoding::kString) {
        s = AppendString(mc, text, quoted[position[k]], options, &c);
        if (!s.ok()) return Status::Error(line + s.message());
        continue;
      }
      bool caveat = false;
      if (text == options.null_text) {
        StoreNil(mc, value.data());
      } else if (text.empty()) {
        return Status::Error(line + "column \"" + mc.name + "\": empty field; nil is written \"" +
                             options.null_text + "\" (--null)");
      } else {
        s = ParseFieldValue(mc, text, value.data(), &caveat);
        if (!s.ok()) return Status::Error(line + s.message());
      }
      if (caveat && caveats[k].count++ == 0) {
        caveats[k].first_line = reader.line();
        caveats[k].first_text = text;
      }
      c.values.insert(c.values.end(), value.begin(), value.begin() + c.width);
    }
    ++out->rows;
    if (progress != nullptr && (out->rows & 0xfff) == 0) progress->Update(reader.bytes_read());
  }
  for (size_t k = 0; k < out->columns.size(); ++k) {
    if (position[k] == field_count) NumberSerial(out->rows, 1, &out->columns[k]);
    if (caveats[k].count == 0) continue;
    const Caveat& c = caveats[k];
    const bool nan = manifest.columns[out->columns[k].manifest_index].encoding == Encoding::kDouble;
    out->warnings.push_back(
        "column \"" + manifest.columns[out->columns[k].manifest_index].name +
        "\": " + std::to_string(c.count) + (c.count == 1 ? " value " : " values ") +
        (nan ? (c.count == 1 ? "is" : "are") +
                   std::string(" NaN, which the kernel compares equal to every value, so no sort "
                               "order of the column holds")
             : (c.count == 1 ? "has" : "have") +
                   std::string(" digits below a millisecond, which a timestamp cannot hold")) +
        " (the first: \"" + c.first_text + "\" on line " + std::to_string(c.first_line) + ")");
  }
  return Status::OK();
}

Status LoadCsvFile(const Manifest& manifest, const std::string& path, ResultData* out,
                   const CsvOptions& options) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return Status::Error("cannot open CSV " + path + ": " + std::strerror(errno));
  struct stat st;
  uint64_t size = stat(path.c_str(), &st) == 0 ? static_cast<uint64_t>(st.st_size) : 0;
  std::string base = path.substr(path.find_last_of('/') + 1);
  ProgressBar bar("loading " + base, size >= kProgressMinBytes ? size : 0, stderr);
  Status s = LoadCsv(manifest, &in, &bar, out, options);
  if (!s.ok()) return Status::Error(path + ": " + s.message());
  return s;
}

Status GenerateRows(const Manifest& manifest, uint64_t rows, ResultData* out) {
  PrepareColumns(manifest, out);
  if (rows > kMaxResultRows)
    return Status::Error("cannot generate " + std::to_string(rows) + " rows: at most " +
                         std::to_string(kMaxResultRows));
  out->rows = rows;
  const int32_t day0 = cvd_date_days(2013, 1, 1);
  for (ResultColumn& c : out->columns) {
    const ManifestColumn& mc = manifest.columns[c.manifest_index];
    c.values.reserve(rows * c.width);
    int64_t modulus = 100000;
    if (mc.encoding == Encoding::kDecimal) {
      int64_t p10 = 1;
      for (int k = 0; k < mc.precision && p10 < modulus; ++k) p10 *= 10;
      modulus = p10;
    }
    for (uint64_t r = 0; r < rows; ++r) {
      const int64_t i = static_cast<int64_t>(r);
      switch (mc.encoding) {
        case Encoding::kTinyint:
          Append<bte>(&c, static_cast<bte>(i % 128));
          break;
        case Encoding::kSmallint:
          Append<sht>(&c, static_cast<sht>(i % 32768));
          break;
        case Encoding::kInt:
          Append<int>(&c, static_cast<int>(i));
          break;
        case Encoding::kBigint:
          Append<lng>(&c, i * 7);
          break;
        case Encoding::kDouble:
          Append<dbl>(&c, static_cast<double>(i) * 0.5);
          break;
        case Encoding::kDecimal:
          Append<lng>(&c, i % modulus);
          break;
        case Encoding::kTimestamp:
          Append<lng>(&c, cvd_timestamp(day0 + static_cast<int32_t>(i / 86400),
                                        static_cast<int32_t>(i % 86400) * 1000));
          break;
        case Encoding::kString:
          c.texts += "s" + std::to_string(i % 1000);
          c.texts += '\0';
          break;
        case Encoding::kSerial:
        case Encoding::kRowid:
          break;
      }
    }
    if (mc.encoding == Encoding::kSerial) NumberSerial(rows, 1, &c);
  }
  return Status::OK();
}

void NumberSerial(uint64_t rows, int64_t first, ResultColumn* column) {
  column->values.resize(rows * sizeof(lng));
  for (uint64_t r = 0; r < rows; ++r) {
    const lng v = first + static_cast<lng>(r);
    std::memcpy(column->values.data() + r * sizeof v, &v, sizeof v);
  }
}

}  // namespace qopci
