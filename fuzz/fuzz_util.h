// Helpers shared by the fuzz targets: the catalog's checksum, so that a target can hand the
// kernel catalogs that get past their last line, and a scratch directory per process.
//
// Threading: the fuzz targets run inputs one at a time on one thread.
#ifndef QOPCI_FUZZ_FUZZ_UTIL_H_
#define QOPCI_FUZZ_FUZZ_UTIL_H_

#include <cinttypes>
#include <cstdint>
#include <cstdio>
#include <string>

namespace qopci_fuzz {

// FNV-1a 64 over the text, as the catalog's checksum line carries it.
inline uint64_t Fnv1a(const std::string& text) {
  uint64_t h = 0xcbf29ce484222325ull;
  for (unsigned char ch : text) {
    h ^= ch;
    h *= 0x100000001b3ull;
  }
  return h;
}

// `text` with its checksum line (the last line starting "checksum ", and what follows it)
// replaced by the correct one; a text without one gets one appended.
inline std::string WithChecksum(const std::string& text) {
  std::string body = text;
  size_t at = body.rfind("checksum ");
  while (at != std::string::npos && at > 0 && body[at - 1] != '\n')
    at = at == 0 ? std::string::npos : body.rfind("checksum ", at - 1);
  if (at != std::string::npos) body.resize(at);
  if (!body.empty() && body.back() != '\n') body += '\n';
  char line[40];
  std::snprintf(line, sizeof line, "checksum %016" PRIx64 "\n", Fnv1a(body));
  return body + line;
}

}  // namespace qopci_fuzz

#endif  // QOPCI_FUZZ_FUZZ_UTIL_H_
