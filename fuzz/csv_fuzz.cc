// Fuzzes the CSV reader over arbitrary bytes, then the tool's CSV loading into a result
// against a fixed manifest holding every column encoding, so that the value parsers see
// every field the reader can produce.
#include <cstddef>
#include <cstdint>
#include <sstream>
#include <string>
#include <vector>

#include "tools/csv.h"
#include "tools/manifest.h"
#include "tools/result_data.h"

namespace {

const qopci::Manifest& AllTypes() {
  static const qopci::Manifest* manifest = [] {
    auto* m = new qopci::Manifest;
    const qopci::Status s = qopci::ParseManifest(R"json({"table": "t", "columns": [
        {"name": "a", "type": "tinyint"}, {"name": "b", "type": "smallint"},
        {"name": "c", "type": "int"}, {"name": "d", "type": "bigint"},
        {"name": "e", "type": "double"}, {"name": "f", "type": "decimal(9,2)"},
        {"name": "g", "type": "decimal(18,4)"}, {"name": "h", "type": "timestamp"},
        {"name": "i", "type": "rowid"}, {"name": "j", "type": "serial"}]})json",
                                                 m);
    if (!s.ok()) __builtin_trap();  // the fixed manifest must parse
    return m;
  }();
  return *manifest;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string bytes(reinterpret_cast<const char*>(data), size);
  {
    std::istringstream in(bytes);
    qopci::CsvReader reader(&in);
    std::vector<std::string> fields;
    bool done = false;
    uint64_t last_line = 0;
    while (reader.Next(&fields, &done).ok() && !done) {
      // Every record advances the line count: a reader that stops moving would hang here.
      if (reader.line() <= last_line) __builtin_trap();
      last_line = reader.line();
    }
  }
  std::istringstream in(bytes);
  qopci::ResultData result;
  if (qopci::LoadCsv(AllTypes(), &in, nullptr, &result).ok()) {
    for (const qopci::ResultColumn& c : result.columns)
      if (c.values.size() != result.rows * static_cast<uint64_t>(c.width)) __builtin_trap();
  }
  return 0;
}
