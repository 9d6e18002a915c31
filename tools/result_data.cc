#include "tools/result_data.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <fstream>

#include "corvid/gdk.h"
#include "corvid/mtime.h"
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
    if (manifest.columns[i].encoding == Encoding::kRowid) continue;
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

}  // namespace

Status LoadCsv(const Manifest& manifest, std::istream* in, ProgressBar* progress, ResultData* out) {
  PrepareColumns(manifest, out);
  CsvReader reader(in);
  std::vector<std::string> fields;
  bool done = false;
  Status s = reader.Next(&fields, &done);
  if (!s.ok()) return s;
  if (done) return Status::Error("CSV is empty: the first line must name the columns");
  const size_t field_count = fields.size();

  // Where each result column's field sits in a record; serial columns are made here.
  std::vector<size_t> position;
  for (const ResultColumn& c : out->columns) {
    const std::string& name = manifest.columns[c.manifest_index].name;
    if (manifest.columns[c.manifest_index].encoding == Encoding::kSerial) {
      position.push_back(field_count);
      continue;
    }
    size_t at = field_count;
    for (size_t f = 0; f < field_count; ++f)
      if (fields[f] == name) {
        at = f;
        break;
      }
    if (at == field_count)
      return Status::Error("CSV header (line 1) lacks the manifest's column \"" + name + "\"");
    position.push_back(at);
  }

  std::vector<unsigned char> value(8);
  for (;;) {
    s = reader.Next(&fields, &done);
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
      s = ParseFieldValue(manifest.columns[c.manifest_index], fields[position[k]], value.data());
      if (!s.ok()) return Status::Error(line + s.message());
      c.values.insert(c.values.end(), value.begin(), value.begin() + c.width);
    }
    ++out->rows;
    if (progress != nullptr && (out->rows & 0xfff) == 0) progress->Update(reader.bytes_read());
  }
  for (size_t k = 0; k < out->columns.size(); ++k)
    if (position[k] == field_count) NumberSerial(out->rows, 1, &out->columns[k]);
  return Status::OK();
}

Status LoadCsvFile(const Manifest& manifest, const std::string& path, ResultData* out) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return Status::Error("cannot open CSV " + path + ": " + std::strerror(errno));
  struct stat st;
  uint64_t size = stat(path.c_str(), &st) == 0 ? static_cast<uint64_t>(st.st_size) : 0;
  std::string base = path.substr(path.find_last_of('/') + 1);
  ProgressBar bar("loading " + base, size >= kProgressMinBytes ? size : 0, stderr);
  Status s = LoadCsv(manifest, &in, &bar, out);
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
