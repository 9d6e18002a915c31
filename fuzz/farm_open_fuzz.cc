// Fuzzes opening a damaged farm. A small farm holding a column of every atom type the
// kernel stores (bte, sht, int, lng, dbl, oid, timestamp, str, and an lng tail stored two
// bytes wide as decimals are) is made once per process; every input damages a fresh copy of
// it as it says, then the copy is opened read-only, every BAT loaded, its claims checked and
// every value formatted (strings through the heap). Refusing the farm or a BAT is fine;
// crashing, reading outside a heap or allocating what the files do not hold is not.
//
// Input: a list of edits, each "op file offset_lo offset_hi" followed by its bytes:
//   op 0 overwrite `n` (next byte) bytes of the file at the offset with the bytes after n
//   op 1 truncate the file to the offset
//   op 2 extend it with zero bytes: the catalog by the offset, a column file by offset * 17
//        (up to past the 1 MiB from which the kernel maps a heap instead of reading it)
//   op 3 remove the file
//   op 4 overwrite catalog bytes at the offset like op 0, then make its checksum correct
//   op 5 the rest of the input replaces the catalog, with a correct checksum
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "corvid/farm.h"
#include "corvid/gdk.h"
#include "fuzz/fuzz_util.h"

namespace fs = std::filesystem;

namespace {

struct Setup {
  fs::path root, farm, work;
  std::vector<std::string> files;  // relative to the farm, sorted; "catalog" among them
};

std::string ReadAll(const fs::path& p) {
  std::ifstream in(p, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

void WriteAll(const fs::path& p, const std::string& text) {
  std::ofstream(p, std::ios::binary | std::ios::trunc) << text;
}

void Must(char* err) {
  if (err) {
    std::fprintf(stderr, "farm_open_fuzz: setting up the farm failed: %s\n", err);
    std::abort();
  }
}

void Append(bat b, const char* type, const std::vector<const char*>& texts) {
  for (const char* text : texts) {
    void* v = std::strcmp(type, "str") == 0 && std::strcmp(text, "nil") == 0
                  ? GDKstrdup(str_nil)
                  : ATOMstrConvert(type, text);
    if (!v) Must(GDKstrdup("a value of the template does not parse"));
    Must(CVDbat_append(b, v));
    GDKfree(v);
  }
}

void MakeTemplate(const fs::path& farm) {
  Must(CVDfarm_open(farm.c_str(), CVD_FARM_CREATE));
  const struct {
    const char* type;
    std::vector<const char*> texts;
  } columns[] = {
      {"bte", {"-127", "nil", "5", "5"}},
      {"sht", {"-32767", "nil", "300"}},
      {"int", {"1", "2", "nil", "2147483647"}},
      {"lng", {"-9223372036854775807", "nil", "42"}},
      {"dbl", {"0.5", "nil", "-1e300"}},
      {"oid", {"0", "7", "nil"}},
      {"timestamp", {"2013-01-02 09:30:00.093", "nil", "1600-02-29 00:00:00.000"}},
      {"str", {"ACME", "", "nil", "ACME", "a longer string that needs more room"}},
      {"sht", {"1234", "-5", "nil"}},  // becomes the narrow lng column "dec" below
  };
  int n = 0;
  for (const auto& c : columns) {
    bat b = 0;
    const std::string name = n++ == 8 ? "dec" : std::string("c_") + c.type;
    Must(CVDbat_create(ATOMindex(c.type), name.c_str(), 4, &b));
    Append(b, c.type, c.texts);
    Must(CVDbat_set_sqltype(b, c.type));
  }
  if (TMcommit() != 0) Must(GDKstrdup("TMcommit failed"));
  CVDfarm_close();
  // The "dec" column: two-byte values of an lng column, as a decimal(4,x) is stored.
  std::string catalog = ReadAll(farm / "catalog");
  const size_t line = catalog.find(" dec sht ");
  if (line == std::string::npos) Must(GDKstrdup("no dec column in the catalog"));
  catalog.replace(line, 9, " dec lng ");
  WriteAll(farm / "catalog", qopci_fuzz::WithChecksum(catalog));
  Must(CVDfarm_open(farm.c_str(), CVD_FARM_READONLY));
  CVDfarm_close();
}

const Setup& Get() {
  static Setup* setup = [] {
    auto* s = new Setup;
    const char* tmp = std::getenv("TMPDIR");
    s->root =
        fs::path(tmp && *tmp ? tmp : "/tmp") / ("qopci_farm_fuzz_" + std::to_string(::getpid()));
    s->farm = s->root / "template";
    s->work = s->root / "work";
    fs::remove_all(s->root);
    fs::create_directories(s->root);
    MakeTemplate(s->farm);
    fs::remove(s->farm / "lock");
    for (const auto& e : fs::recursive_directory_iterator(s->farm))
      if (e.is_regular_file()) s->files.push_back(fs::relative(e.path(), s->farm).string());
    std::sort(s->files.begin(), s->files.end());
    std::atexit([] { fs::remove_all(Get().root); });
    return s;
  }();
  return *setup;
}

void Overwrite(const fs::path& p, size_t at, const uint8_t* bytes, size_t n, bool fix) {
  std::string text = ReadAll(p);
  if (at > text.size()) at = text.size();
  text.replace(at, std::min(n, text.size() - at), reinterpret_cast<const char*>(bytes), n);
  WriteAll(p, fix ? qopci_fuzz::WithChecksum(text) : text);
}

void Damage(const Setup& s, const uint8_t* data, size_t size) {
  std::error_code ec;
  while (size >= 4) {
    const int op = data[0] % 6;
    const fs::path file = s.work / s.files[data[1] % s.files.size()];
    const size_t offset = data[2] | size_t{data[3]} << 8;
    data += 4, size -= 4;
    if (op == 0 || op == 4) {
      size_t n = size > 0 ? std::min<size_t>(data[0], size - 1) : 0;
      if (size > 0) data++, size--;
      Overwrite(op == 4 ? s.work / "catalog" : file, offset, data, n, op == 4);
      data += n, size -= n;
    } else if (op == 1) {
      fs::resize_file(file, std::min<uintmax_t>(offset, fs::file_size(file, ec)), ec);
    } else if (op == 2) {
      const uintmax_t now = fs::file_size(file, ec);
      const bool catalog = file.filename() == "catalog";
      if (!ec) fs::resize_file(file, now + offset * (catalog ? 1 : 17), ec);
    } else if (op == 3) {
      fs::remove(file, ec);
    } else {
      WriteAll(s.work / "catalog",
               qopci_fuzz::WithChecksum(std::string(reinterpret_cast<const char*>(data), size)));
      return;
    }
  }
}

// Loads every BAT of the open farm and formats each of its values: first as a reader does,
// checking the blocks against their checksums, then, for what that refused, without the
// check, as for a farm no checksum covers: the reading code must be safe either way.
void ReadEverything() {
  char* buf = nullptr;
  size_t len = 0;
  for (int skip : {0, 1}) {
    CVDfarm_skip_load_checksums(skip);
    for (bat i = 1; i < BBPsize(); i++) {
      if (!BBPgetdesc(i)) continue;
      BAT* b = BBPdescriptor(i);
      if (!b) continue;
      BATpropcheck(b);
      for (BUN row = 0; row < b->batCount; row++)
        if (const void* v = BUNtail(b, row)) ATOMformat(b->ttype, v, &buf, &len);
      BBPreleaseref(i);
    }
  }
  CVDfarm_skip_load_checksums(0);
  GDKfree(buf);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const Setup& s = Get();
  // libFuzzer's timer signal can interrupt the copy's system calls: try again rather than
  // report the harness's own EINTR as a finding.
  std::error_code ec;
  for (int attempt = 0; attempt < 100; attempt++) {
    fs::remove_all(s.work, ec);
    fs::copy(s.farm, s.work, fs::copy_options::recursive, ec);
    if (!ec) break;
  }
  if (ec) throw fs::filesystem_error("cannot copy the template farm", s.farm, s.work, ec);
  Damage(s, data, size);
  if (char* err = CVDfarm_open(s.work.c_str(), CVD_FARM_READONLY)) {
    GDKfree(err);
    return 0;
  }
  ReadEverything();
  CVDfarm_close();
  return 0;
}
