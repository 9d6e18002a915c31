#include "tools/copy_command.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <iostream>
#include <nlohmann/json.hpp>
#include <vector>

#include "corvid/farm.h"
#include "corvid/sql.h"
#include "qopci/qopci.h"
#include "tools/column_attributes.h"
#include "tools/dict_store_prep.h"
#include "tools/dict_target.h"
#include "tools/inspect.h"
#include "tools/kernel_io.h"
#include "tools/level_target.h"
#include "tools/session.h"

namespace qopci {

namespace {

const char* Action(const TargetColumn& t) {
  return t.created ? "created" : t.replaced != 0 ? "replaced" : "appended";
}

// Entries of a dictionary column's committed dictionary (the distinct hours of a time-level
// one).
uint64_t DictionarySize(const Manifest& manifest, const ManifestColumn& c) {
  const std::string name = TargetName(manifest, c);
  const bat keys = CVDbat_lookup((c.levels ? DictLevelName(name, 0) : DictKeysName(name)).c_str());
  const BAT* b = keys != 0 ? BBPgetdesc(keys) : nullptr;
  return b != nullptr ? b->batCount : 0;
}

// The summary's type: "int", "timestamp levels", or "string dictionary[3]" with the
// dictionary's size, and "in memory" when a store was asked for and could not be used.
std::string SummaryType(const Manifest& manifest, const TargetColumn& t) {
  const ManifestColumn& c = manifest.columns[t.manifest_index];
  if (!c.dictionary) return ColumnTypeName(c);
  std::string type = ColumnTypeName(c) + "[" + std::to_string(DictionarySize(manifest, c)) + "]";
  if (c.store) type += t.store_note.empty() ? " leveldb" : " in memory";
  return type;
}

void PrintJsonSummary(const Manifest& manifest, const std::vector<TargetColumn>& targets,
                      uint64_t rows, double seconds, std::ostream& out) {
  nlohmann::ordered_json columns = nlohmann::ordered_json::array();
  for (const TargetColumn& t : targets) {
    const ManifestColumn& c = manifest.columns[t.manifest_index];
    const bat id = CVDbat_lookup(TargetName(manifest, c).c_str());
    const BAT* b = id != 0 ? BBPgetdesc(id) : nullptr;
    if (b == nullptr) continue;
    nlohmann::ordered_json flags = nlohmann::ordered_json::array();
    const std::string words = FlagWords(*b);
    for (size_t at = 0; words != "-" && at < words.size();) {
      size_t end = std::min(words.find(' ', at), words.size());
      flags.push_back(words.substr(at, end - at));
      at = end + 1;
    }
    nlohmann::ordered_json column = {{"name", TargetName(manifest, c)},
                                     {"type", ColumnTypeName(c)},
                                     {"action", Action(t)},
                                     {"rows", b->batCount},
                                     {"tail_bytes", b->theap.free},
                                     {"flags", flags}};
    if (c.dictionary) {
      column["dictionary_entries"] = DictionarySize(manifest, c);
      if (c.store) column["store"] = t.store_note.empty() ? "leveldb" : "in memory";
      if (!t.store_note.empty()) column["store_note"] = t.store_note;
    }
    columns.push_back(column);
  }
  nlohmann::ordered_json summary = {
      {"table", manifest.table}, {"columns", columns}, {"rows", rows}, {"seconds", seconds}};
  out << summary.dump() << "\n";
}

void PrintSummary(const Manifest& manifest, const std::vector<TargetColumn>& targets, uint64_t rows,
                  double seconds, std::ostream& out) {
  // The type column is as wide as its longest entry ("string dictionary[5] leveldb"), at
  // least 14 characters, so the columns stay aligned.
  int type_width = 14;
  for (const TargetColumn& t : targets)
    type_width = std::max(type_width, static_cast<int>(SummaryType(manifest, t).size()));
  char line[512];
  std::snprintf(line, sizeof line, "%-24s %-*s %-9s %12s %14s  %s\n", "column", type_width,
                "type", "action", "rows", "tail bytes", "flags");
  out << line;
  for (const TargetColumn& t : targets) {
    const ManifestColumn& c = manifest.columns[t.manifest_index];
    // A replacement takes its target's place at the commit: look the column up by name.
    const bat id = CVDbat_lookup(TargetName(manifest, c).c_str());
    const BAT* b = id != 0 ? BBPgetdesc(id) : nullptr;
    if (b == nullptr) continue;
    std::snprintf(line, sizeof line, "%-24s %-*s %-9s %12llu %14zu  %s\n",
                  TargetName(manifest, c).c_str(), type_width, SummaryType(manifest, t).c_str(),
                  Action(t),
                  static_cast<unsigned long long>(b->batCount), b->theap.free,
                  FlagWords(*b).c_str());
    out << line;
  }
  std::snprintf(line, sizeof line, "exported %llu rows into %zu columns in %.3f s\n",
                static_cast<unsigned long long>(rows), targets.size(), seconds);
  out << line;
}

}  // namespace

Status CopyResult(const Manifest& manifest, ResultData* data, const CopyOptions& options,
                  std::ostream& out) {
  // The tail paths handed to the export stay valid whatever directory its writers run in.
  std::error_code ec;
  std::filesystem::path farm = std::filesystem::absolute(options.farm, ec);
  if (ec) return Status::Error("farm " + options.farm + ": " + ec.message());
  Status s = CheckFarmDir(options.farm, FarmUse::kWrite, options.init);
  if (!s.ok()) return s;
  FarmSession session;
  s = session.Open(farm.lexically_normal().string(), CVD_FARM_CREATE);
  if (!s.ok()) return s;
  std::vector<TargetColumn> targets;
  s = PrepareTargets(manifest, &targets);
  if (!s.ok()) return s;
  for (const TargetColumn& t : targets) {
    const ManifestColumn& mc = manifest.columns[t.manifest_index];
    // A table's columns hold the same rows: a copy of another column is as long as the result.
    if (!mc.from.empty() && static_cast<uint64_t>(t.info.source.count) != data->rows)
      return Status::Error("column " + TargetName(manifest, mc) + " copies the " +
                           std::to_string(t.info.source.count) + " rows of " + mc.from +
                           ", but the result has " + std::to_string(data->rows) + " rows");
  }
  for (const TargetColumn& t : targets)
    for (ResultColumn& c : data->columns)
      if (c.manifest_index == t.manifest_index &&
          manifest.columns[c.manifest_index].encoding == Encoding::kSerial)
        NumberSerial(data->rows, t.info.existing_count + 1, &c);
  s = CheckCodeLimits(manifest, targets, *data);
  if (!s.ok()) return s;
  PrepareStores(farm.lexically_normal().string(), manifest, &targets, std::cerr);
  int result_id = 0;
  s = BuildResultTable(session.context(), manifest, *data, options.single_row, &result_id);
  if (s.ok()) s = RegisterColumns(manifest, targets, options.sync, data->rows);
  if (!s.ok()) return s;

  char* error = nullptr;
  auto start = std::chrono::steady_clock::now();
  int attempted = qopci_export_result(session.context(), result_id, CVDfarm_logger(), &error);
  double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  if (attempted == 0) return Status::Error("export: no column was registered");
  if (error != nullptr) return Status::Error(error);  // the library's buffer
  FinishStores(manifest, targets, std::cerr);

  if (options.json)
    PrintJsonSummary(manifest, targets, data->rows, seconds, out);
  else
    PrintSummary(manifest, targets, data->rows, seconds, out);
  return Status::OK();
}

Status RunCopy(const CopyOptions& options, std::ostream& out) {
  Manifest manifest;
  Status s = LoadManifest(options.manifest, &manifest);
  if (s.ok()) s = ResolveModes(&manifest, options.replace);
  if (s.ok()) s = ReportWarnings(manifest.warnings, options.strict, std::cerr);
  if (!s.ok()) return s;

  // The whole result is parsed before the farm is touched: a bad line changes nothing.
  ResultData data;
  s = options.csv.empty() ? GenerateRows(manifest, options.generate_rows, &data)
                          : LoadCsvFile(manifest, options.csv, &data, options.csv_options);
  if (s.ok()) s = ReportWarnings(data.warnings, options.strict, std::cerr);
  if (!s.ok()) return s;
  return CopyResult(manifest, &data, options, out);
}

}  // namespace qopci
