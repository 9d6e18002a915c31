// qopci: the command-line tool around the copy-into library and the embedded kernel.
//   qopci [--verbose] [--version]
//   qopci copy --farm DIR --manifest FILE (--csv FILE | --generate ROWS) [--single-row] [--sync]
//              [--replace] [--init] [--json] [--delimiter C] [--null TEXT] [--strict]
//   qopci inspect --farm DIR [--column NAME]... [--limit N]
//   qopci inspect --farm DIR --rows [--table T] [--column NAME]... [--limit N | --all]
//                 [--format table|csv|json]
//   qopci verify --farm DIR
//   qopci bench [--rows N] [--columns SPEC] [--random] [--queued|--sync] [--runs K] [--dir DIR]
//               [--json] [--chunk-size C]
// Errors go to stderr in plain words with exit status 1; --verbose adds the kernel's and the
// library's own texts, and copy --json also prints {"error", "detail"} on stdout.
#include <CLI/CLI.hpp>
#include <csignal>
#include <cstdio>
#include <iostream>

#include "corvid/farm.h"
#include "tools/bench_command.h"
#include "tools/copy_command.h"
#include "tools/error_text.h"
#include "tools/inspect.h"
#include "tools/kernel_io.h"
#include "tools/row_view.h"
#include "tools/verify.h"

namespace {

struct InspectOptions {
  std::string farm;
  std::vector<std::string> columns;
  uint64_t limit = 10;
  bool rows = false;  // the row view instead of the catalog and values
  bool all = false;
  std::string table, format = "table";
};

qopci::Status RunInspect(const InspectOptions& o) {
  qopci::RowViewOptions view{o.table, o.columns, o.all ? qopci::kAllRows : o.limit};
  if (!qopci::ParseRowFormat(o.format, &view.format))
    return qopci::Status::Error("unknown --format \"" + o.format + "\": table, csv or json");
  // A reader: it must never create, rename or remove anything in the farm.
  qopci::Status s = qopci::CheckFarmDir(o.farm, qopci::FarmUse::kRead, false);
  if (s.ok()) s = qopci::FromKernel(CVDfarm_open(o.farm.c_str(), CVD_FARM_READONLY));
  if (!s.ok()) return s;
  s = o.rows ? qopci::PrintRows(std::cout, view) : qopci::PrintFarm(std::cout, o.columns, o.limit);
  CVDfarm_close();
  return s;
}

// A usage error in plain words: the first unknown command or option with the closest known
// one, else CLI11's own text.
std::string UsageError(CLI::App& app, int argc, char** argv, const CLI::ParseError& e) {
  auto spellings = [](const CLI::App* a) {
    std::vector<std::string> words;
    for (const CLI::Option* o : a->get_options()) {
      for (const std::string& n : o->get_lnames()) words.push_back("--" + n);
      for (const std::string& n : o->get_snames()) words.push_back("-" + n);
    }
    return words;
  };
  std::vector<qopci::CommandWords> commands;
  for (const CLI::App* sub : app.get_subcommands([](CLI::App*) { return true; }))
    commands.push_back({sub->get_name(), spellings(sub)});
  std::string unknown = qopci::UnknownWord(std::vector<std::string>(argv + 1, argv + argc),
                                           commands, spellings(&app));
  return unknown.empty() ? e.what() : unknown;
}

// Prints a failure: plain on stderr (with the raw text under --verbose), and as JSON on
// stdout for a command whose output is JSON.
void Report(const qopci::Status& s, bool verbose, bool json) {
  const std::string plain = qopci::PlainMessage(s.message());
  if (json) std::cout << qopci::ErrorJson(s.message()) << std::endl;
  std::cerr << "qopci: " << plain << "\n";
  if (verbose && plain != s.message()) std::cerr << "qopci: detail: " << s.message() << "\n";
}

}  // namespace

int main(int argc, char** argv) {
  // A write past the file size limit (ulimit -f) then fails with EFBIG and is reported like
  // any other failed write, instead of killing the process half-way through an export.
  std::signal(SIGXFSZ, SIG_IGN);
  CLI::App app{"qopci: export query results into column files and read them back"};
  app.require_subcommand(1);
  app.set_version_flag("--version", "qopci " QOPCI_VERSION);
  bool verbose = false;
  app.add_flag("--verbose", verbose, "also print the kernel's and the library's own error texts");
  app.fallthrough();  // --verbose may follow the subcommand

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
  copy_cmd
      ->add_option_function<std::string>(
          "--delimiter",
          [&copy](const std::string& d) { copy.csv_options.delimiter = d == "\\t" ? '\t' : d[0]; },
          "CSV field delimiter, one character (\\t for tab); found from the header when not given: "
          "the one of , ; tab | that splits it into the most fields, comma on a tie")
      ->check([](const std::string& d) -> std::string {
        if (d == "\\t" || (d.size() == 1 && d != "\"" && d != " " && d != "\n" && d != "\r"))
          return "";
        return "the delimiter must be one character other than a quote, blank or line break";
      });
  copy_cmd->add_option("--null", copy.csv_options.null_text,
                       "the field text read as nil, such as NULL (default: the empty field)");
  copy_cmd->add_flag("--strict", copy.strict,
                     "stop with an error, before the farm is touched, where a warning would be "
                     "printed");
  copy_cmd->footer(
      "Manifest types and what they hold (the smallest value of each integer type is its nil):\n"
      "  tinyint (int1)                -127 to 127\n"
      "  smallint (int2)               -32767 to 32767\n"
      "  int (integer, int4)           -2147483647 to 2147483647\n"
      "  bigint (int8)                 -9223372036854775807 to 9223372036854775807\n"
      "  double (double precision, float, float8)\n"
      "                                any double but -DBL_MAX (its nil); nan, inf, -inf\n"
      "  decimal(p,s) (numeric, dec)   1 <= p <= 18, 0 <= s <= p: p digits, s behind the point;\n"
      "                                decimal(p) is decimal(p,0); more digits are an error\n"
      "  timestamp (datetime)          YYYY-MM-DD[ HH:MM[:SS[.mmm]]], years -5867411 to 5867411\n"
      "                                (no year 0), to the millisecond\n"
      "  string (text, varchar)        any bytes but a zero byte; the empty field is nil, \"\"\n"
      "                                the empty string\n"
      "  rowid, serial                 generated, not read from the CSV\n"
      "Type names are read in any case, with blanks allowed: \"Decimal( 9 , 2 )\".\n"
      "rowid numbers the rows of each export from 1, so an append starts again at 1; serial "
      "continues from the rows the column holds (count+1, count+2, ...).\n"
      "A column's \"mode\" is \"append\" (the default) or \"replace\". CSV columns that the "
      "manifest lists in \"ignore\" are left out without a warning. A column with \"from\": "
      "\"table.column\" copies that column of the farm and is not read from the CSV.\n"
      "CSV: a header line naming the columns; quoted fields may hold delimiters, line breaks "
      "and doubled quotes; a UTF-8 byte-order mark and empty lines are skipped. See "
      "docs/csv.md.");

  copy_cmd->add_flag("--init", copy.init,
                     "make the farm in a directory that holds other files but no farm");
  copy_cmd->add_flag("--json", copy.json, "print the summary (or the error) as one JSON object");

  InspectOptions inspect;
  CLI::App* inspect_cmd =
      app.add_subcommand("inspect", "print a farm's catalog and values, or its rows");
  inspect_cmd->add_option("--farm", inspect.farm, "farm directory")->required();
  inspect_cmd->add_option("--column", inspect.columns,
                          "only this column (table.column or column); repeat for more");
  auto* limit =
      inspect_cmd->add_option("--limit", inspect.limit, "values or rows printed (default 10)");
  inspect_cmd->add_flag("--rows", inspect.rows, "print a table's columns side by side as rows");
  inspect_cmd->add_flag("--all", inspect.all, "print every row (implies --rows)")->excludes(limit);
  inspect_cmd->add_option("--table", inspect.table, "the table whose rows are printed (--rows)");
  inspect_cmd->add_option("--format", inspect.format, "table (default), csv or json (--rows)");

  std::string verify_farm;
  CLI::App* verify_cmd =
      app.add_subcommand("verify", "check every column and checksum of a farm without changing it");
  verify_cmd->add_option("--farm", verify_farm, "farm directory")->required();

  qopci::BenchOptions bench;
  CLI::App* bench_cmd = qopci::AddBenchCommand(&app, &bench);

  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    if (e.get_exit_code() == 0) return app.exit(e);  // --help, --version
    // Usage errors, like every other failure, exit with 1.
    std::cerr << "qopci: " << UsageError(app, argc, argv, e) << "\n";
    return 1;
  }

  qopci::Status s;
  if (copy_cmd->parsed()) {
    if (csv->count() == 0 && gen->count() == 0)
      s = qopci::Status::Error("copy: one of --csv FILE or --generate ROWS is required");
    else
      s = qopci::RunCopy(copy, std::cout);
  } else if (verify_cmd->parsed()) {
    s = qopci::RunVerify(verify_farm, std::cout);
  } else if (bench_cmd->parsed()) {
    s = qopci::RunBench(bench, std::cout, std::cerr);
  } else {
    // Any option of the row view asks for it.
    inspect.rows =
        inspect.rows || inspect.all || !inspect.table.empty() || inspect_cmd->count("--format") > 0;
    s = RunInspect(inspect);
  }
  if (!s.ok()) {
    Report(s, verbose, copy_cmd->parsed() && copy.json);
    return 1;
  }
  return 0;
}
