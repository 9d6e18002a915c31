// The bench command: an end-to-end timing harness for the export. It loads a synthetic
// result into the embedded kernel (not timed), exports it through the library's five
// functions into a fresh farm per run (timed, the kernel's commit included), checks that
// every target holds all rows, and compares the export's output rate with plain write()
// of the same bytes into fresh files, without and with fsync.
//
// Threading: runs on the calling thread; the export writes columns on its own workers.
#ifndef QOPCI_TOOLS_BENCH_COMMAND_H_
#define QOPCI_TOOLS_BENCH_COMMAND_H_

#include <cstdint>
#include <ostream>
#include <string>
#include <vector>

#include "tools/manifest.h"
#include "tools/result_data.h"
#include "tools/status.h"

namespace CLI {
class App;
}

namespace qopci {

// The five columns of the default synthetic result.
inline constexpr const char* kDefaultBenchColumns = "int,bigint,double,decimal(9,2),timestamp";
// Where runs go when --dir is not given.
inline constexpr const char* kDefaultBenchDir = "/tmp/qopci-bench";

struct BenchOptions {
  uint64_t rows = 10000000;
  std::string columns = kDefaultBenchColumns;  // the column spec, see ParseBenchColumns
  bool random = false;                         // every column random
  bool sync = false;                           // write every column on the calling thread
  int runs = 5;
  std::string dir = kDefaultBenchDir;  // runs are made in <dir>/run-<k>
  bool json = false;                   // one JSON object on stdout, run lines on stderr
  int chunk_size = 65536;              // values per chunk
  std::string perf_ctl;  // a perf control FIFO: "enable" before each export, "disable" after
};

// Generated string columns, named by what they hold rather than by a type:
//   sym   "S" then (i * 7919) mod 1000 left-padded with zeros to 1 + i mod 7 characters,
//         or cut to that many when longer: 5110 distinct 2 to 8 byte strings in 10,000 rows
//   name  "customer-" then (i * 2654435761) mod (rows / 4) left-padded with zeros to 7
//         characters (or cut to 7): rows / 4 distinct 16-byte strings; nil below 4 rows
// (i counts rows from 0), the values a peer database's benchmark computes in SQL.
enum class BenchStrings { kNone, kSym, kName };

// The text of row i of a generated string column of `rows` rows; false for nil.
bool BenchString(BenchStrings kind, uint64_t i, uint64_t rows, std::string* out);

// The synthetic result's columns: a manifest (table "bench", columns "c1", "c2", ...) and
// for each column whether its values are pseudo-random rather than sequential, or which
// generated strings it holds.
struct BenchColumns {
  Manifest manifest;
  std::vector<bool> random;           // parallel to manifest.columns
  std::vector<BenchStrings> strings;  // parallel to manifest.columns
};

// Add the "bench" subcommand and its options to `app`, filling *options when parsed.
// Both must outlive the parse. Returns the subcommand.
CLI::App* AddBenchCommand(CLI::App* app, BenchOptions* options);

// Refuse option values no run can use (no rows, no runs, a chunk size below 1, too many
// rows for a result); the text names the option.
Status CheckBenchOptions(const BenchOptions& options);

// Parse a comma list of manifest types, each optionally followed by ":random"
// ("int,decimal(9,2):random,timestamp"), the generated string columns "sym" and "name", or
// "levels" and "levels:dict" (timestamps with time levels, the second with their dictionary
// of hours); commas inside parentheses belong to the type.
// With all_random every column but row ids is random. Queued unless sync.
Status ParseBenchColumns(const std::string& spec, bool all_random, int chunk_size, bool sync,
                         BenchColumns* out);

// Sequential rows as GenerateRows makes them, with the random columns filled from a fixed
// seed (the same for every call): values span the type's range without its nil, decimals
// stay within their precision, timestamps fall in 2000 to 2029.
Status GenerateBenchRows(const BenchColumns& columns, uint64_t rows, ResultData* out);

// What one run measured.
struct BenchRun {
  double seconds = 0;                 // the export call, commit included
  double commit_seconds = 0;          // the kernel's commit within it
  double flush_seconds = 0;           // fsync within the commit
  uint64_t bytes = 0;                 // sum of the tail (and heap) files' sizes after the export
  double baseline_seconds = 0;        // write() of the same bytes, no fsync
  double baseline_fsync_seconds = 0;  // write() of the same bytes, then fsync
};

// Medians over the runs, and the process's peak memory.
struct BenchSummary {
  uint64_t rows = 0;
  std::string columns;  // the column list as given
  std::string mode;     // "queued" or "sync"
  std::vector<double> seconds;
  double rows_per_s = 0;
  double bytes_per_s = 0;
  double baseline_bytes_per_s = 0;
  double baseline_fsync_bytes_per_s = 0;
  double ratio = 0;  // export bytes/s over baseline (no fsync) bytes/s
  double commit_s = 0;
  double commit_flush_s = 0;
  uint64_t peak_rss_bytes = 0;
  uint64_t result_bytes = 0;  // rows x result widths: one copy of the synthetic result
};

// Median of the values (mean of the middle two for an even count); 0 when empty.
double Median(std::vector<double> values);

// Medians over `runs`. REQUIRES: runs is not empty.
BenchSummary Summarize(const std::vector<BenchRun>& runs, uint64_t rows);

// The summary as one line of JSON.
std::string BenchJson(const BenchSummary& summary);

// Run the whole benchmark and print per-run lines, the medians and the peak memory on
// `out` (or only the JSON object with options.json, the rest going to `log`). A failed
// run, or a target that does not hold every row afterwards, is an error.
Status RunBench(const BenchOptions& options, std::ostream& out, std::ostream& log);

}  // namespace qopci

#endif  // QOPCI_TOOLS_BENCH_COMMAND_H_
