// Fuzzes the manifest: JSON text through ParseManifest, then what the tool does with a
// parsed manifest before any farm is opened (modes with and without --replace, the type
// names and attribute lists of every column).
#include <cstddef>
#include <cstdint>
#include <string>

#include "tools/column_attributes.h"
#include "tools/manifest.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  qopci::Manifest parsed;
  if (!qopci::ParseManifest(std::string(reinterpret_cast<const char*>(data), size), &parsed).ok())
    return 0;
  for (bool replace_all : {false, true}) {
    qopci::Manifest m = parsed;
    if (!qopci::ResolveModes(&m, replace_all).ok()) continue;
    for (const qopci::ManifestColumn& c : m.columns) {
      if (replace_all && c.mode != qopci::Mode::kReplace) __builtin_trap();
      if (qopci::EncodingName(c).empty()) __builtin_trap();
      qopci::TargetInfo target;
      target.tail_file = "/farm/bat/01/0001.tail";
      target.new_file = c.mode == qopci::Mode::kReplace;
      target.replace = target.new_file;
      (void)qopci::CheckTargetOverrides(m.table + "." + c.name, c, target);
      (void)qopci::ColumnAttributes(m, c, target, /*force_sync=*/replace_all);
    }
  }
  return 0;
}
