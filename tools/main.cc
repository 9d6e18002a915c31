// qopci: the command-line tool around the copy-into library and the embedded kernel.
//   qopci copy --farm DIR --manifest FILE (--csv FILE | --generate ROWS) [--single-row] [--sync]
//              [--replace]
//   qopci inspect --farm DIR [--column NAME] [--limit N]
//   qopci verify --farm DIR
//   qopci bench [--rows N] [--columns SPEC] [--random] [--queued|--sync] [--runs K] [--dir DIR]
//               [--json] [--chunk-size C]
// Errors go to stderr with exit status 1.
#include <CLI/CLI.hpp>
#include <csignal>
#include <cstdio>
#include <iostream>

#include "corvid/farm.h"
#include "tools/bench_command.h"
#include "tools/copy_command.h"
#include "tools/inspect.h"
#include "tools/kernel_io.h"
#include "tools/verify.h"

namespace {

qopci::Status RunInspect(const std::string& farm, const std::string& column, uint64_t limit) {
  // A reader: it must never create, rename or remove anything in the farm.
  qopci::Status s = qopci::FromKernel(CVDfarm_open(farm.c_str(), CVD_FARM_READONLY));
  if (!s.ok()) return s;
  s = qopci::PrintFarm(std::cout, column, limit);
  CVDfarm_close();
  return s;
}

}  // namespace

int main(int argc, char** argv) {
  // A write past the file size limit (ulimit -f) then fails with EFBIG and is reported like
  // any other failed write, instead of killing the process half-way through an export.
  std::signal(SIGXFSZ, SIG_IGN);
  CLI::App app{"qopci: export query results into column files and read them back"};
  app.require_subcommand(1);

  qopci::CopyOptions copy;
  CLI::App* copy_cmd = app.add_subcommand("copy", "export a CSV or generated result into a farm");
  copy_cmd->add_option("--farm", copy.farm, "farm directory (made when missing)")->required();
  copy_cmd->add_option("--manifest", copy.manifest, "JSON manifest of the target table")
      ->required()
      ->check(CLI::ExistingFile);
  auto* csv = copy_cmd->add_option("--csv", copy.csv, "CSV file whose first line names columns")
                  ->check(CLI::ExistingFile);
  auto* gen = copy_cmd->add_option("--generate", copy.generate_rows, "generate ROWS rows");
  csv->excludes(gen);
  gen->excludes(csv);
  copy_cmd->add_flag("--single-row", copy.single_row, "result without an order BAT (one row)");
  copy_cmd->add_flag("--sync", copy.sync, "write every column on the calling thread");
  copy_cmd->add_flag("--replace", copy.replace,
                     "replace every column's rows instead of appending to them (a column's "
                     "\"mode\": \"replace\" does so for one); the type may change");
  copy_cmd->footer(
      "Manifest types: tinyint, smallint, int, bigint, double, decimal(p,s) (1 <= p <= 18, "
      "0 <= s <= p), timestamp, rowid, serial.\n"
      "rowid numbers the rows of each export from 1, so an append starts again at 1; serial "
      "continues from the rows the column holds (count+1, count+2, ...).\n"
      "A column's \"mode\" is \"append\" (the default) or \"replace\".");

  std::string farm, column;
  uint64_t limit = 10;
  CLI::App* inspect_cmd = app.add_subcommand("inspect", "print a farm's catalog and values");
  inspect_cmd->add_option("--farm", farm, "farm directory")->required();
  inspect_cmd->add_option("--column", column, "only this column (table.column or column)");
  inspect_cmd->add_option("--limit", limit, "values printed per column (default 10)");

  std::string verify_farm;
  CLI::App* verify_cmd =
      app.add_subcommand("verify", "check every column and checksum of a farm without changing it");
  verify_cmd->add_option("--farm", verify_farm, "farm directory")->required();

  qopci::BenchOptions bench;
  CLI::App* bench_cmd = qopci::AddBenchCommand(&app, &bench);

  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    // Usage errors print CLI11's text and, like every other failure, exit with 1.
    return app.exit(e) == 0 ? 0 : 1;
  }

  qopci::Status s;
  if (copy_cmd->parsed()) {
    if (csv->count() == 0 && gen->count() == 0) {
      std::cerr << "qopci copy: one of --csv FILE or --generate ROWS is required\n";
      return 1;
    }
    s = qopci::RunCopy(copy, std::cout);
  } else if (verify_cmd->parsed()) {
    s = qopci::RunVerify(verify_farm, std::cout);
  } else if (bench_cmd->parsed()) {
    s = qopci::RunBench(bench, std::cout, std::cerr);
  } else {
    s = RunInspect(farm, column, limit);
  }
  if (!s.ok()) {
    std::cerr << "qopci: " << s.message() << "\n";
    return 1;
  }
  return 0;
}
