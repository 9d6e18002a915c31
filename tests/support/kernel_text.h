// Kernel errors taken as text, and a farm's catalog rewritten as an older kernel wrote it,
// for the tests of the embedded host. Not thread-safe: the farm they touch is the process's.
#ifndef QOPCI_TESTS_SUPPORT_KERNEL_TEXT_H_
#define QOPCI_TESTS_SUPPORT_KERNEL_TEXT_H_

#include <cinttypes>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include "corvid/gdk.h"
#include "tests/support/temp_dir.h"

namespace qopci_test {

// The text of a kernel error, which it frees; "" for none.
inline std::string Take(char* err) {
  std::string text = err ? err : "";
  GDKfree(err);
  return text;
}

// Rewrites the catalog of the closed farm in dir as catalog version `version`, each "bat"
// line passed through bat_line when given, with its checksum (FNV-1a 64) made anew.
inline void WriteOldCatalog(const std::filesystem::path& dir, int version,
                            std::string (*bat_line)(const std::string&) = nullptr) {
  std::istringstream lines(ReadFile(dir / "catalog"));
  std::string text;
  for (std::string line; std::getline(lines, line) && line.rfind("checksum ", 0) != 0;) {
    if (line.rfind("corvid-catalog ", 0) == 0)
      line = "corvid-catalog " + std::to_string(version);
    else if (bat_line != nullptr && line.rfind("bat ", 0) == 0)
      line = bat_line(line);
    text += line + "\n";
  }
  uint64_t h = 0xcbf29ce484222325ull;
  for (unsigned char ch : text) h = (h ^ ch) * 0x100000001b3ull;
  char sum[64];
  std::snprintf(sum, sizeof sum, "checksum %016" PRIx64 "\n", h);
  std::ofstream(dir / "catalog", std::ios::binary) << text << sum;
}

}  // namespace qopci_test

#endif  // QOPCI_TESTS_SUPPORT_KERNEL_TEXT_H_
