#include "tools/copy_command.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <iostream>
#include <vector>

#include "corvid/farm.h"
#include "corvid/sql.h"
#include "qopci/qopci.h"
#include "tools/column_attributes.h"
#include "tools/inspect.h"
#include "tools/kernel_io.h"
#include "tools/session.h"

namespace qopci {

namespace {

const char* Action(const TargetColumn& t) {
  return t.created ? "created" : t.replaced != 0 ? "replaced" : "appended";
}

void PrintSummary(const Manifest& manifest, const std::vector<TargetColumn>& targets, uint64_t rows,
                  double seconds, std::ostream& out) {
  char line[512];
  std::snprintf(line, sizeof line, "%-24s %-14s %-9s %12s %14s  %s\n", "column", "type", "action",
                "rows", "tail bytes", "flags");
  out << line;
  for (const TargetColumn& t : targets) {
    const ManifestColumn& c = manifest.columns[t.manifest_index];
    // A replacement takes its target's place at the commit: look the column up by name.
    const bat id = CVDbat_lookup(TargetName(manifest, c).c_str());
    const BAT* b = id != 0 ? BBPgetdesc(id) : nullptr;
    if (b == nullptr) continue;
    std::snprintf(line, sizeof line, "%-24s %-14s %-9s %12llu %14zu  %s\n",
                  TargetName(manifest, c).c_str(), EncodingName(c).c_str(), Action(t),
                  static_cast<unsigned long long>(b->batCount), b->theap.free,
                  FlagWords(*b).c_str());
    out << line;
  }
  std::snprintf(line, sizeof line, "exported %llu rows into %zu columns in %.3f s\n",
                static_cast<unsigned long long>(rows), targets.size(), seconds);
  out << line;
}

// The library reports a failed write with the errno as a number ("(Error code 27)"); the
// user is told what the number means.
std::string WithSystemText(const std::string& text) {
  static const char kCode[] = "(Error code ";
  size_t at = text.rfind(kCode);
  if (at == std::string::npos) return text;
  char* end = nullptr;
  long code = std::strtol(text.c_str() + at + sizeof kCode - 1, &end, 10);
  if (end == nullptr || *end != ')' || code <= 0) return text;
  return text.substr(0, end - text.c_str()) + ": " + std::strerror(static_cast<int>(code)) + end;
}

}  // namespace

Status CopyResult(const Manifest& manifest, ResultData* data, const CopyOptions& options,
                  std::ostream& out) {
  // The tail paths handed to the export stay valid whatever directory its writers run in.
  std::error_code ec;
  std::filesystem::path farm = std::filesystem::absolute(options.farm, ec);
  if (ec) return Status::Error("farm " + options.farm + ": " + ec.message());
  FarmSession session;
  Status s = session.Open(farm.lexically_normal().string(), CVD_FARM_CREATE);
  if (!s.ok()) return s;
  std::vector<TargetColumn> targets;
  s = PrepareTargets(manifest, &targets);
  if (!s.ok()) return s;
  for (const TargetColumn& t : targets)
    for (ResultColumn& c : data->columns)
      if (c.manifest_index == t.manifest_index &&
          manifest.columns[c.manifest_index].encoding == Encoding::kSerial)
        NumberSerial(data->rows, t.info.existing_count + 1, &c);
  int result_id = 0;
  s = BuildResultTable(session.context(), manifest, *data, options.single_row, &result_id);
  if (s.ok()) s = RegisterColumns(manifest, targets, options.sync);
  if (!s.ok()) return s;

  char* error = nullptr;
  auto start = std::chrono::steady_clock::now();
  int attempted = qopci_export_result(session.context(), result_id, CVDfarm_logger(), &error);
  double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  if (attempted == 0) return Status::Error("export: no column was registered");
  if (error != nullptr) return Status::Error(WithSystemText(error));  // the library's buffer

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
