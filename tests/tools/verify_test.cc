// Damaged farms: each damage of a committed farm is reported by `qopci verify` (and the
// kernel's CVDfarm_verify behind it), naming the column and block, and loading the damaged
// column fails instead of reading its values.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>

#include "corvid/farm.h"
#include "tests/support/run_tool.h"

namespace fs = std::filesystem;
using qopci_test::RunQopci;
using qopci_test::ToolRun;

namespace {

constexpr int kInts = 50000;  // 200,000 bytes: blocks 0-2 whole, block 3 partial
constexpr int kWords = 3000;  // about 150 KB of string heap

std::string Take(char* err) {
  std::string text = err ? err : "";
  GDKfree(err);
  return text;
}

std::string Word(int i) { return "word number " + std::to_string(i) + std::string(30, 'x'); }

// The committed farm every damage is applied to: t.ints 0..kInts-1 (sorted, key, no nil) and
// t.words. "" or what went wrong.
std::string MakeFarm(const fs::path& dir) {
  std::string err = Take(CVDfarm_open(dir.c_str(), CVD_FARM_CREATE));
  bat ints = 0, words = 0;
  err += Take(CVDbat_create(TYPE_int, "t.ints", 0, &ints));
  err += Take(CVDbat_create(TYPE_str, "t.words", 0, &words));
  for (int i = 0; i < kInts && err.empty(); i++) err += Take(CVDbat_append(ints, &i));
  for (int i = 0; i < kWords && err.empty(); i++)
    err += Take(CVDbat_append(words, Word(i).c_str()));
  if (err.empty() && TMcommit() != 0) err = "commit failed";
  CVDfarm_close();
  return err;
}

void Flip(const fs::path& file, long at) {
  std::fstream f(file, std::ios::in | std::ios::out | std::ios::binary);
  f.seekg(at);
  const char c = static_cast<char>(f.get() ^ 0x20);
  f.seekp(at);
  f.put(c);
}

void Zero(const fs::path& file, long at, long n) {
  std::fstream f(file, std::ios::in | std::ios::out | std::ios::binary);
  f.seekp(at);
  f << std::string(n, '\0');
}

void Garbage(const fs::path& file, long n) {
  std::ofstream(file, std::ios::app | std::ios::binary) << std::string(n, '\x5a');
}

TEST(VerifyTest, EveryDamageIsReportedAndNoneReadsBackAsValues) {
  const qopci_test::TempDir tmp("qopci_verify");
  const fs::path dir = tmp.path() + "/farm", pristine = tmp.path() + "/pristine";
  ASSERT_EQ(MakeFarm(pristine), "");
  const fs::path ints = pristine / "bat/00/0001.tail", words = pristine / "bat/00/0002.tail";
  ASSERT_EQ(fs::file_size(ints), 4u * kInts);
  auto in = [&](const fs::path& p) { return dir / fs::relative(p, pristine); };
  const fs::path heap = in(pristine / "bat/00/0002.theap");
  const struct {
    const char* damage;
    std::function<void()> apply;  // applied to the copy in dir
    const char* column;           // whose load must fail; "" when the open itself refuses
    std::string says;             // in the report
  } cases[] = {
      {"byte flipped in the first block", [&] { Flip(in(ints), 10); }, "t.ints",
       "t.ints: tail block 0 (bytes 0-65535) of "},
      {"byte flipped in a middle block", [&] { Flip(in(ints), 100000); }, "t.ints",
       "t.ints: tail block 1 (bytes 65536-131071)"},
      {"byte flipped in the last block", [&] { Flip(in(ints), 4 * kInts - 1); }, "t.ints",
       "t.ints: tail block 3 (bytes 196608-199999)"},
      {"a block of zeros", [&] { Zero(in(ints), 131072, 65536); }, "t.ints",
       "t.ints: tail block 2 (bytes 131072-196607)"},
      {"file cut", [&] { fs::resize_file(in(ints), 150000); }, "",
       "t.ints: tail file " + in(ints).string() +
           " holds 150000 bytes, the catalog describes 200000"},
      {"file cut, then extended with garbage",
       [&] {
         fs::resize_file(in(ints), 150000);
         Garbage(in(ints), 60000);
       },
       "t.ints", "t.ints: tail block 2 (bytes 131072-196607)"},
      {"file removed", [&] { fs::remove(in(ints)); }, "",
       "t.ints: tail file " + in(ints).string() + " is missing"},
      {"string tail byte flipped", [&] { Flip(in(words), 7); }, "t.words", "t.words: tail block 0"},
      {"heap byte flipped", [&] { Flip(heap, 100000); }, "t.words",
       "t.words: heap block 1 (bytes 65536-131071)"},
      {"heap block 0 byte flipped", [&] { Flip(heap, 4000); }, "t.words", "t.words: heap block 0"},
      {"sums file damaged", [&] { Flip(in(ints).string() + ".sums", 30); }, "t.ints",
       "t.ints: checksum file " + in(ints).string() + ".sums is damaged"},
      {"sums file removed", [&] { fs::remove(in(ints).string() + ".sums"); }, "t.ints",
       "t.ints: checksum file " + in(ints).string() + ".sums is missing"},
      {"catalog byte flipped", [&] { Flip(dir / "catalog", 60); }, "", "catalog checksum mismatch"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.damage);
    fs::remove_all(dir);
    fs::copy(pristine, dir, fs::copy_options::recursive);
    c.apply();
    const ToolRun run = RunQopci("verify --farm " + dir.string());
    const std::string said = run.out + run.err;
    EXPECT_EQ(run.status, 1) << said;
    EXPECT_NE(said.find(c.says), std::string::npos) << said;
    char* report = nullptr;
    int faults = 0;
    const std::string err = Take(CVDfarm_verify(dir.c_str(), &report, &faults));
    const std::string kernel_said = err + (report ? report : "");
    GDKfree(report);
    EXPECT_TRUE(faults > 0 || !err.empty()) << kernel_said;
    EXPECT_NE(kernel_said.find(c.says), std::string::npos) << kernel_said;
    // Loading: the open refuses the farm, or the damaged column refuses to load.
    std::string load = Take(CVDfarm_open(dir.c_str(), CVD_FARM_READONLY));
    if (load.empty()) {
      EXPECT_NE(*c.column, '\0') << "the open accepted the farm";
      load = Take(CVDbat_load(CVDbat_lookup(c.column)));
    }
    CVDfarm_close();
    EXPECT_EQ(load.rfind("IOException:", 0), 0u) << load;
  }

  // Garbage past the bytes in use is room a writer may leave: neither a fault nor read.
  fs::remove_all(dir);
  fs::copy(pristine, dir, fs::copy_options::recursive);
  Garbage(in(ints), 1000);
  const ToolRun run = RunQopci("verify --farm " + dir.string());
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_NE(run.out.find("2 columns, 3 files, 8 blocks checked: no faults"), std::string::npos)
      << run.out;
  ASSERT_EQ(Take(CVDfarm_open(dir.c_str(), CVD_FARM_READONLY)), "");
  BAT* b = BBPdescriptor(CVDbat_lookup("t.ints"));
  ASSERT_NE(b, nullptr);
  EXPECT_EQ(b->batCount, static_cast<BUN>(kInts));
  EXPECT_EQ(*static_cast<const int*>(BUNtail(b, kInts - 1)), kInts - 1);
  BBPreleaseref(CVDbat_lookup("t.ints"));
  CVDfarm_close();
}

}  // namespace
