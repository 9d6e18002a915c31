#include "tools/bench_command.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <limits>
#include <nlohmann/json.hpp>
#include <random>

#include "corvid/farm.h"
#include "corvid/mtime.h"
#include "corvid/sql.h"
#include "qopci/qopci.h"
#include "tools/attribute_table.h"
#include "tools/kernel_io.h"
#include "tools/level_target.h"
#include "tools/session.h"

namespace qopci {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

namespace {

constexpr size_t kBaselineBlock = 4u << 20;  // bytes per write() of the baselines
constexpr uint64_t kRandomSeed = 0x5eed2013;

double Since(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

// A value of a signed type drawn from 64 random bits, never the type's nil (its minimum).
template <typename T>
T RandomSigned(std::mt19937_64* gen) {
  for (;;) {
    T v = static_cast<T>((*gen)());
    if (v != std::numeric_limits<T>::min()) return v;
  }
}

void FillRandom(const ManifestColumn& mc, uint64_t seed, ResultColumn* c) {
  std::mt19937_64 gen(seed);
  const uint64_t rows = c->values.size() / c->width;
  int64_t bound = 1;  // decimals: |value| < 10^precision
  for (int k = 0; k < mc.precision; ++k) bound *= 10;
  const int32_t day0 = cvd_date_days(2000, 1, 1);
  unsigned char* at = c->values.data();
  for (uint64_t r = 0; r < rows; ++r, at += c->width) {
    int64_t v64 = 0;
    int32_t v32 = 0;
    switch (mc.encoding) {
      case Encoding::kTinyint:
        *at = static_cast<unsigned char>(RandomSigned<int8_t>(&gen));
        continue;
      case Encoding::kSmallint: {
        int16_t v = RandomSigned<int16_t>(&gen);
        std::memcpy(at, &v, sizeof v);
        continue;
      }
      case Encoding::kInt:
        v32 = RandomSigned<int32_t>(&gen);
        std::memcpy(at, &v32, sizeof v32);
        continue;
      case Encoding::kBigint:
        v64 = RandomSigned<int64_t>(&gen);
        break;
      case Encoding::kDouble: {
        double d = static_cast<double>(gen() >> 11) * 0x1.0p-53 * 2e9 - 1e9;
        std::memcpy(at, &d, sizeof d);
        continue;
      }
      case Encoding::kDecimal:
        v64 = static_cast<int64_t>(gen() % static_cast<uint64_t>(2 * bound - 1)) - (bound - 1);
        break;
      case Encoding::kTimestamp: {
        uint64_t x = gen();
        v64 = cvd_timestamp(day0 + static_cast<int32_t>((x & 0xffffffffu) % (30 * 365)),
                            static_cast<int32_t>((x >> 32) % 86400000u));
        break;
      }
      case Encoding::kRowid:
      case Encoding::kSerial:
      case Encoding::kString:
        continue;
    }
    std::memcpy(at, &v64, sizeof v64);
  }
}

// SQL's lpad: `text` left-padded with `fill` to `width` characters, or cut to its first
// `width` characters when longer.
std::string LeftPad(const std::string& text, size_t width, char fill) {
  return text.size() >= width ? text.substr(0, width)
                              : std::string(width - text.size(), fill) + text;
}

// Write `sizes[i]` bytes into a fresh file per column with write() of 4 MiB blocks, then
// fsync each when asked, and close. *seconds is the time of all of it. The files stay
// until the bench ends, so that no later phase runs behind their deletion.
Status WriteBaseline(const fs::path& dir, const std::vector<uint64_t>& sizes, bool sync,
                     double* seconds) {
  std::vector<unsigned char> block(kBaselineBlock);
  for (size_t i = 0; i < block.size(); ++i) block[i] = static_cast<unsigned char>(i * 131 + 7);
  std::vector<std::string> paths;
  Status status;
  auto start = Clock::now();
  for (size_t c = 0; c < sizes.size() && status.ok(); ++c) {
    paths.push_back(
        (dir / ((sync ? "baseline-fsync-" : "baseline-") + std::to_string(c + 1))).string());
    int fd = ::open(paths.back().c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (fd < 0) {
      status = Status::Error("baseline: cannot create " + paths.back() + ": " + strerror(errno));
      break;
    }
    for (uint64_t left = sizes[c]; left > 0 && status.ok();) {
      size_t n = static_cast<size_t>(std::min<uint64_t>(left, block.size()));
      ssize_t w = ::write(fd, block.data(), n);
      if (w <= 0)
        status = Status::Error("baseline: write to " + paths.back() + ": " +
                               (w < 0 ? strerror(errno) : "nothing written"));
      else
        left -= static_cast<uint64_t>(w);
    }
    if (status.ok() && sync && ::fsync(fd) != 0)
      status = Status::Error("baseline: fsync " + paths.back() + ": " + strerror(errno));
    ::close(fd);
  }
  *seconds = Since(start);
  return status;
}

std::string Rate(double per_s, const char* unit) {
  char buf[64];
  if (per_s >= 1e9)
    std::snprintf(buf, sizeof buf, "%.2f G%s/s", per_s / 1e9, unit);
  else
    std::snprintf(buf, sizeof buf, "%.1f M%s/s", per_s / 1e6, unit);
  return buf;
}

std::string Megabytes(uint64_t bytes) {
  char buf[32];
  std::snprintf(buf, sizeof buf, "%.0f MB", static_cast<double>(bytes) / 1e6);
  return buf;
}

uint64_t PeakRss() {
  struct rusage ru;
  if (getrusage(RUSAGE_SELF, &ru) != 0) return 0;
  return static_cast<uint64_t>(ru.ru_maxrss) * 1024;  // ru_maxrss is in KiB on Linux
}

// Bytes of the synthetic result: rows times the widths of its fixed-width columns, plus the
// text of its strings.
uint64_t ResultBytes(const ResultData& data) {
  uint64_t width = 0, text = 0;
  for (const ResultColumn& c : data.columns) {
    width += static_cast<uint64_t>(c.width);
    text += c.texts.size();
  }
  return width * data.rows + text;
}

// Every timed phase, the export and each baseline alike, starts from the same state:
// what earlier phases wrote is flushed, the page cache is dropped when the process may do
// so (root), and `warm` bytes of memory are touched and given back. The 2-core virtual
// machines this project is measured on back guest memory lazily and reclaim idle memory
// in the background: the first phase to fill pages that were idle pays several times the
// cost of the next (copying into the page cache at 0.4 against 4-5 GB/s), so without this
// each phase would be measured against what the one before it left behind.
void Settle(uint64_t warm) {
  ::sync();
  int fd = ::open("/proc/sys/vm/drop_caches", O_WRONLY | O_CLOEXEC);
  if (fd >= 0) {
    ssize_t ignored = ::write(fd, "1", 1);
    (void)ignored;
    ::close(fd);
  }
  // In a child, so that the warm-up does not count in this process's peak memory.
  pid_t child = ::fork();
  if (child == 0) {
    void* p = ::mmap(nullptr, warm, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (p != MAP_FAILED)
      for (uint64_t off = 0; off < warm; off += 4096) static_cast<volatile char*>(p)[off] = 1;
    ::_exit(0);
  }
  if (child > 0) ::waitpid(child, nullptr, 0);
}

// Tells a `perf record --control fifo:PATH -D -1` started around this process to record or
// to stop, so that a profile holds the timed export and nothing else. No path: nothing.
void PerfControl(const std::string& fifo, const char* command) {
  if (fifo.empty()) return;
  int fd = ::open(fifo.c_str(), O_WRONLY | O_CLOEXEC);
  if (fd < 0) return;
  ssize_t ignored = ::write(fd, command, std::strlen(command));
  (void)ignored;
  ::close(fd);
}

// One export into a fresh farm under run_dir, checked and then measured against the
// baselines.
Status RunOnce(const BenchColumns& cols, const ResultData& data, const fs::path& run_dir,
               const std::string& perf_ctl, BenchRun* run) {
  const Manifest& manifest = cols.manifest;
  const uint64_t warm = std::max<uint64_t>(uint64_t{1} << 30, 3 * ResultBytes(data));
  std::error_code ec;
  fs::remove_all(run_dir, ec);
  if (!ec) fs::create_directories(run_dir, ec);
  if (ec) return Status::Error("cannot make " + run_dir.string() + ": " + ec.message());
  std::vector<uint64_t> sizes;
  {
    FarmSession session;
    Status s = session.Open((run_dir / "farm").string());
    if (!s.ok()) return s;
    std::vector<TargetColumn> targets;
    s = PrepareTargets(manifest, &targets);
    int result_id = 0;
    if (s.ok()) s = BuildResultTable(session.context(), manifest, data, false, &result_id);
    if (s.ok()) s = RegisterColumns(manifest, targets, false, data.rows);
    if (!s.ok()) return s;

    Settle(warm);
    char* error = nullptr;
    PerfControl(perf_ctl, "enable\n");
    auto start = Clock::now();
    int attempted = qopci_export_result(session.context(), result_id, CVDfarm_logger(), &error);
    run->seconds = Since(start);
    PerfControl(perf_ctl, "disable\n");
    CVDcommit_times(&run->commit_seconds, &run->flush_seconds);
    if (attempted == 0) return Status::Error("export: no column was registered");
    if (error != nullptr) return Status::Error(std::string("export: ") + error);

    for (const TargetColumn& t : targets) {
      const std::string name = TargetName(manifest, manifest.columns[t.manifest_index]);
      const BAT* b = BBPgetdesc(t.id);
      if (b == nullptr || b->batCount != data.rows)
        return Status::Error("export: " + name + " holds " +
                             (b ? std::to_string(b->batCount) : std::string("no BAT")) +
                             " rows, expected " + std::to_string(data.rows));
      char path[4096];
      struct stat st;
      if (CVDbat_filename(t.id, "tail", path, sizeof path) == nullptr || ::stat(path, &st) != 0)
        return Status::Error("export: cannot find the tail file of " + name);
      uint64_t size = static_cast<uint64_t>(st.st_size);
      // A string column's heap is written as well: it counts with the tail.
      if (b->ttype == TYPE_str && CVDbat_filename(t.id, "theap", path, sizeof path) != nullptr &&
          ::stat(path, &st) == 0)
        size += static_cast<uint64_t>(st.st_size);
      sizes.push_back(size);
      run->bytes += size;
      // A time-level column writes its level files too: each row level holds every row.
      for (size_t k = 0; k < t.companions.size(); ++k) {
        const BAT* c = BBPgetdesc(t.companions[k]);
        const char* level = CVDbat_name(t.companions[k]);
        if (k < kLevelCount && (c == nullptr || c->batCount != data.rows))
          return Status::Error("export: " + std::string(level ? level : name + " levels") +
                               " holds " + (c ? std::to_string(c->batCount) : "no BAT") +
                               " rows, expected " + std::to_string(data.rows));
        if (CVDbat_filename(t.companions[k], "tail", path, sizeof path) == nullptr ||
            ::stat(path, &st) != 0)
          return Status::Error("export: cannot find the tail file of " +
                               std::string(level ? level : name + " levels"));
        sizes.push_back(static_cast<uint64_t>(st.st_size));
        run->bytes += static_cast<uint64_t>(st.st_size);
      }
    }
  }
  Settle(warm);
  Status s = WriteBaseline(run_dir, sizes, false, &run->baseline_seconds);
  Settle(warm);
  if (s.ok()) s = WriteBaseline(run_dir, sizes, true, &run->baseline_fsync_seconds);
  return s;
}

}  // namespace

CLI::App* AddBenchCommand(CLI::App* app, BenchOptions* o) {
  CLI::App* cmd = app->add_subcommand("bench", "time exports of a synthetic result");
  cmd->add_option("--rows", o->rows, "rows of the synthetic result (default 10000000)");
  cmd->add_option("--columns", o->columns,
                  "comma list of types, each may end in :random (default " +
                      std::string(kDefaultBenchColumns) + ")");
  cmd->add_flag("--random", o->random, "pseudo-random values in every column (fixed seed)");
  CLI::Option* queued =
      cmd->add_flag("--queued")->description("write columns on the work queue (default)");
  CLI::Option* sync = cmd->add_flag("--sync", o->sync, "write every column on the calling thread");
  queued->excludes(sync);
  sync->excludes(queued);
  cmd->add_option("--runs", o->runs, "exports to time, each into a fresh farm (default 5)");
  cmd->add_option("--dir", o->dir,
                  "runs are made in DIR/run-K (default " + std::string(kDefaultBenchDir) + ")");
  cmd->add_flag("--json", o->json, "print the medians as one JSON object");
  cmd->add_option("--chunk-size", o->chunk_size, "values per chunk (default 65536)");
  cmd->add_option("--perf-ctl", o->perf_ctl,
                  "perf control FIFO: profile only the exports "
                  "(perf record --control fifo:FIFO -D -1 -- qopci bench ...)");
  return cmd;
}

Status CheckBenchOptions(const BenchOptions& o) {
  if (o.rows < 1 || o.rows > kMaxResultRows)
    return Status::Error("--rows must be 1 to " + std::to_string(kMaxResultRows));
  if (o.runs < 1) return Status::Error("--runs must be at least 1");
  if (o.chunk_size < 1) return Status::Error("--chunk-size must be at least 1");
  if (o.chunk_size > kMaxChunkSize)
    return Status::Error("--chunk-size must be at most " + std::to_string(kMaxChunkSize));
  if (o.dir.empty()) return Status::Error("--dir must not be empty");
  return Status::OK();
}

Status ParseBenchColumns(const std::string& spec, bool all_random, int chunk_size, bool sync,
                         BenchColumns* out) {
  *out = BenchColumns();
  std::vector<std::string> items(1);
  int depth = 0;
  for (char ch : spec) {
    if (ch == ',' && depth == 0) {
      items.emplace_back();
      continue;
    }
    depth += ch == '(' ? 1 : ch == ')' ? -1 : 0;
    items.back() += ch;
  }
  out->manifest.table = "bench";
  out->manifest.chunk_size = chunk_size;
  out->manifest.queued = !sync;
  for (size_t k = 0; k < items.size(); ++k) {
    std::string type = items[k];
    const std::string where = "--columns item " + std::to_string(k + 1) + " \"" + type + "\": ";
    bool asked = false;  // ":random" written on this item
    const std::string random = ":random";
    if (type.size() > random.size() &&
        type.compare(type.size() - random.size(), random.size(), random) == 0) {
      asked = true;
      type.resize(type.size() - random.size());
    }
    // "levels" and "levels:dict": timestamps exported with their time levels.
    const bool levels = type == "levels" || type == "levels:dict";
    if (!levels && type.find(':') != std::string::npos)
      return Status::Error(where + "only \":random\" may follow a type");
    // The manifest parser knows the types and their rules; parse each as a one-column one.
    const std::string name = "c" + std::to_string(k + 1);
    const BenchStrings strings = type == "sym"    ? BenchStrings::kSym
                                 : type == "name" ? BenchStrings::kName
                                                  : BenchStrings::kNone;
    if (strings != BenchStrings::kNone) {
      if (asked) return Status::Error(where + "generated strings cannot be random");
      ManifestColumn column;
      column.name = name;
      column.encoding = Encoding::kString;
      out->manifest.columns.push_back(column);
      out->random.push_back(false);
      out->strings.push_back(strings);
      continue;
    }
    nlohmann::json j = {{"table", "bench"}, {"columns", {{{"name", name}, {"type", type}}}}};
    if (levels) {
      j["columns"][0]["type"] = "timestamp";
      j["columns"][0]["levels"] = true;
      if (type == "levels:dict") j["columns"][0]["encoding"] = "dictionary";
    }
    Manifest one;
    Status s = ParseManifest(j.dump(), &one);
    if (!s.ok()) {
      const std::string prefix = "manifest: column \"" + name + "\": ";
      std::string why = s.message();
      if (why.rfind(prefix, 0) == 0) why = why.substr(prefix.size());
      return Status::Error(where + why);
    }
    // Row ids and serials are numbered: --random leaves them be, ":random" on one is a mistake.
    const Encoding e = one.columns[0].encoding;
    const bool numbered = e == Encoding::kRowid || e == Encoding::kSerial;
    if (asked && numbered)
      return Status::Error(
          where +
          (e == Encoding::kRowid ? "row ids are made by the export" : "serials are numbered") +
          " and cannot be random");
    // Strings are generated text ("s" and i mod 1000, or sym and name): never random.
    if (asked && e == Encoding::kString)
      return Status::Error(where +
                           "strings cannot be random; sym and name are string columns "
                           "of many distinct values");
    out->manifest.columns.push_back(one.columns[0]);
    out->random.push_back(!numbered && e != Encoding::kString && (asked || all_random));
    out->strings.push_back(BenchStrings::kNone);
  }
  return Status::OK();
}

bool BenchString(BenchStrings kind, uint64_t i, uint64_t rows, std::string* out) {
  // 64-bit signed arithmetic as in SQL: i * 2654435761 fits for every row count a result
  // may have (below 2^31).
  const int64_t n = static_cast<int64_t>(i);
  if (kind == BenchStrings::kSym) {
    *out = "S" + LeftPad(std::to_string(n * 7919 % 1000), 1 + static_cast<size_t>(n % 7), '0');
    return true;
  }
  const int64_t distinct = static_cast<int64_t>(rows / 4);
  if (distinct == 0) return false;  // a remainder by zero is NULL in SQL
  *out = "customer-" + LeftPad(std::to_string(n * 2654435761 % distinct), 7, '0');
  return true;
}

Status GenerateBenchRows(const BenchColumns& columns, uint64_t rows, ResultData* out) {
  Status s = GenerateRows(columns.manifest, rows, out);
  if (!s.ok()) return s;
  std::string text;
  for (ResultColumn& c : out->columns) {
    if (columns.random[c.manifest_index])
      FillRandom(columns.manifest.columns[c.manifest_index], kRandomSeed + c.manifest_index, &c);
    const BenchStrings kind = columns.strings[c.manifest_index];
    if (kind == BenchStrings::kNone) continue;
    c.texts.clear();
    for (uint64_t r = 0; r < rows; ++r) {
      c.texts += BenchString(kind, r, rows, &text) ? text : kNilString;
      c.texts += '\0';
    }
  }
  return Status::OK();
}

double Median(std::vector<double> v) {
  if (v.empty()) return 0;
  std::sort(v.begin(), v.end());
  size_t n = v.size();
  return n % 2 == 1 ? v[n / 2] : (v[n / 2 - 1] + v[n / 2]) / 2;
}

BenchSummary Summarize(const std::vector<BenchRun>& runs, uint64_t rows) {
  BenchSummary s;
  s.rows = rows;
  std::vector<double> rps, bps, base, base_sync, ratio, commit, flush;
  for (const BenchRun& r : runs) {
    const double bytes = static_cast<double>(r.bytes);
    s.seconds.push_back(r.seconds);
    rps.push_back(static_cast<double>(rows) / r.seconds);
    bps.push_back(bytes / r.seconds);
    base.push_back(bytes / r.baseline_seconds);
    base_sync.push_back(bytes / r.baseline_fsync_seconds);
    ratio.push_back(r.baseline_seconds / r.seconds);  // (bytes/s) / (bytes/s)
    commit.push_back(r.commit_seconds);
    flush.push_back(r.flush_seconds);
  }
  s.rows_per_s = Median(rps);
  s.bytes_per_s = Median(bps);
  s.baseline_bytes_per_s = Median(base);
  s.baseline_fsync_bytes_per_s = Median(base_sync);
  s.ratio = Median(ratio);
  s.commit_s = Median(commit);
  s.commit_flush_s = Median(flush);
  return s;
}

std::string BenchJson(const BenchSummary& s) {
  nlohmann::ordered_json j;
  j["rows"] = s.rows;
  j["runs"] = s.seconds.size();
  j["columns"] = s.columns;
  j["mode"] = s.mode;
  j["seconds"] = s.seconds;
  j["rows_per_s"] = s.rows_per_s;
  j["bytes_per_s"] = s.bytes_per_s;
  j["baseline_bytes_per_s"] = s.baseline_bytes_per_s;
  j["baseline_fsync_bytes_per_s"] = s.baseline_fsync_bytes_per_s;
  j["ratio"] = s.ratio;
  j["peak_rss_bytes"] = s.peak_rss_bytes;
  j["commit_s"] = s.commit_s;
  j["commit_flush_s"] = s.commit_flush_s;
  j["result_bytes"] = s.result_bytes;
  return j.dump();
}

Status RunBench(const BenchOptions& o, std::ostream& out, std::ostream& log) {
  Status s = CheckBenchOptions(o);
  BenchColumns cols;
  if (s.ok()) s = ParseBenchColumns(o.columns, o.random, o.chunk_size, o.sync, &cols);
  ResultData data;
  if (s.ok()) s = GenerateBenchRows(cols, o.rows, &data);
  if (!s.ok()) return s;
  std::error_code ec;
  const fs::path dir = fs::absolute(o.dir, ec).lexically_normal();
  if (ec) return Status::Error("--dir " + o.dir + ": " + ec.message());
  const uint64_t rss_loaded = PeakRss();

  std::ostream& lines = o.json ? log : out;
  const char* mode = o.sync ? "sync" : "queued";
  lines << "bench: " << o.rows << " rows of " << o.columns << (o.random ? " (all random)" : "")
        << ", " << mode << ", " << o.runs << " runs in " << dir.string() << "/run-K\n";
  // Deleting large files keeps this kind of disk busy (discards, journal) for a while: old
  // runs go first, and this bench's own files are deleted only once every run is timed.
  fs::remove_all(dir, ec);
  std::vector<BenchRun> runs;
  char line[512];
  for (int k = 1; k <= o.runs; ++k) {
    BenchRun r;
    const fs::path run_dir = dir / ("run-" + std::to_string(k));
    s = RunOnce(cols, data, run_dir, o.perf_ctl, &r);
    if (!s.ok()) return Status::Error("run " + std::to_string(k) + ": " + s.message());
    std::snprintf(line, sizeof line,
                  "run %d: %.3f s (commit %.3f s, fsync %.3f s)  %s  export %s  "
                  "write() %s  write()+fsync %s  ratio %.3f\n",
                  k, r.seconds, r.commit_seconds, r.flush_seconds,
                  Rate(static_cast<double>(o.rows) / r.seconds, "rows").c_str(),
                  Rate(static_cast<double>(r.bytes) / r.seconds, "B").c_str(),
                  Rate(static_cast<double>(r.bytes) / r.baseline_seconds, "B").c_str(),
                  Rate(static_cast<double>(r.bytes) / r.baseline_fsync_seconds, "B").c_str(),
                  r.baseline_seconds / r.seconds);
    lines << line;
    runs.push_back(r);
  }
  for (int k = 1; k < o.runs; ++k) fs::remove_all(dir / ("run-" + std::to_string(k)), ec);
  for (const auto& f : fs::directory_iterator(dir / ("run-" + std::to_string(o.runs)), ec))
    if (f.path().filename() != "farm") fs::remove(f.path(), ec);  // the farm stays to inspect

  BenchSummary sum = Summarize(runs, o.rows);
  sum.columns = o.columns;
  sum.mode = mode;
  sum.peak_rss_bytes = PeakRss();
  sum.result_bytes = ResultBytes(data);
  std::snprintf(line, sizeof line,
                "median of %d: %s  export %s  baseline write() %s  write()+fsync %s  ratio %.3f  "
                "commit %.3f s of which fsync %.3f s\n",
                o.runs, Rate(sum.rows_per_s, "rows").c_str(), Rate(sum.bytes_per_s, "B").c_str(),
                Rate(sum.baseline_bytes_per_s, "B").c_str(),
                Rate(sum.baseline_fsync_bytes_per_s, "B").c_str(), sum.ratio, sum.commit_s,
                sum.commit_flush_s);
  lines << line;
  // The synthetic result is resident twice: the generator's copy and the kernel's result BATs.
  const uint64_t twice = 2 * sum.result_bytes;
  lines << "peak RSS " << Megabytes(sum.peak_rss_bytes) << " (" << Megabytes(rss_loaded)
        << " after generating): synthetic result " << Megabytes(sum.result_bytes)
        << " held twice (generator copy + result BATs) = " << Megabytes(twice) << ", the rest "
        << Megabytes(sum.peak_rss_bytes > twice ? sum.peak_rss_bytes - twice : 0) << "\n";
  if (o.json) out << BenchJson(sum) << "\n";
  return Status::OK();
}

}  // namespace qopci
