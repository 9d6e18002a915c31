// Log files "log/log.<n>": logger_restart starts file n + 1 with a restart record,
// logger_cleanup removes every older file, commits append a line to the current one.
#include "logger.h"

#include <dirent.h>

#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "fileio.h"
#include "internal.h"

struct logger {
  std::string dir;
  uint64_t current = 0;  // number of the current log file; 0 before the first restart
  bool read_only = false;
};

namespace corvid {
namespace {

std::vector<uint64_t> LogNumbers(const std::string& dir) {
  std::vector<uint64_t> out;
  DIR* d = ::opendir(dir.c_str());
  if (!d) return out;
  while (struct dirent* e = ::readdir(d)) {
    char* end;
    if (std::strncmp(e->d_name, "log.", 4) != 0) continue;
    uint64_t n = std::strtoull(e->d_name + 4, &end, 10);
    if (*end == 0 && n > 0) out.push_back(n);
  }
  ::closedir(d);
  return out;
}

std::string LogPath(const logger* lg, uint64_t n) { return lg->dir + "/log." + std::to_string(n); }

}  // namespace

logger* LoggerOpen(const std::string& dir, bool read_only) {
  auto* lg = new logger;
  lg->dir = dir;
  lg->read_only = read_only;
  for (uint64_t n : LogNumbers(dir))
    if (n > lg->current) lg->current = n;
  return lg;
}

void LoggerClose(logger* lg) { delete lg; }

bool LoggerNote(logger* lg, const std::string& line) {
  if (!lg || lg->current == 0 || lg->read_only) return true;
  std::string text, why;
  ReadWhole(LogPath(lg, lg->current), &text, &why);  // a missing file starts empty
  text += line + "\n";
  return WriteDurable(LogPath(lg, lg->current), text.data(), text.size(), &why);
}

}  // namespace corvid

extern "C" {

int logger_restart(logger* lg) {
  if (!lg || lg->read_only) return -1;
  std::string why;
  const uint64_t next = lg->current + 1;
  char line[128];
  std::snprintf(line, sizeof line, "restart %" PRIu64 " generation %" PRIu64 "\n", next,
                corvid::K().generation);
  if (!corvid::WriteDurable(corvid::LogPath(lg, next), line, std::strlen(line), &why) ||
      !corvid::SyncPath(lg->dir, &why))
    return -1;
  lg->current = next;
  return 0;
}

int logger_cleanup(logger* lg) {
  if (!lg || lg->read_only) return -1;
  int rc = 0;
  for (uint64_t n : corvid::LogNumbers(lg->dir))
    if (n < lg->current && std::remove(corvid::LogPath(lg, n).c_str()) != 0) rc = -1;
  return rc;
}

}  // extern "C"
