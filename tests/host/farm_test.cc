// The farm through its files: round trips of every atom type, string heaps, tails rewritten
// underneath the kernel and damaged catalogs. Interrupted commits are in commit_test.cc.
#include "corvid/farm.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "corvid/exception.h"
#include "corvid/gdk.h"
#include "corvid/sql.h"
#include "tests/support/kernel_text.h"
#include "tests/support/temp_dir.h"

namespace fs = std::filesystem;
using qopci_test::ReadFile;
using qopci_test::WriteFile;

namespace {

class FarmTest : public ::testing::Test {
 protected:
  void SetUp() override { Open(CVD_FARM_CREATE); }
  void TearDown() override { CVDfarm_close(); }
  void Open(int flags) {
    char* err = CVDfarm_open(dir_.c_str(), flags);
    ASSERT_EQ(err, nullptr) << err;
  }
  void Reopen() {
    CVDfarm_close();
    Open(0);
  }
  std::string OpenError() {  // reopens expecting a failure; returns its text
    CVDfarm_close();
    return qopci_test::Take(CVDfarm_open(dir_.c_str(), 0));
  }
  bat Make(int type, const char* name) {
    bat b = 0;
    char* err = CVDbat_create(type, name, 4, &b);
    EXPECT_EQ(err, nullptr) << err;
    return b;
  }
  std::string Path(bat b, const char* ext) {
    char buf[4096];
    return CVDbat_filename(b, ext, buf, sizeof buf);
  }
  qopci_test::TempDir tmp_{"corvid_farm_"};
  const fs::path dir_ = tmp_.path() + "/farm";
};

TEST_F(FarmTest, EveryAtomTypeRoundTripsThroughCommitAndReopen) {
  const char* types[] = {"bit", "chr", "bte", "sht", "bat",       "int",     "oid", "wrd",
                         "flt", "dbl", "lng", "str", "timestamp", "daytime", "date"};
  const std::vector<std::vector<const char*>> texts = {
      {"true", "nil", "false"},
      {"a", "nil", "z"},
      {"-127", "nil", "127"},
      {"-32767", "nil", "7"},
      {"1", "nil", "2"},
      {"-5", "nil", "2147483647"},
      {"0", "nil", "9"},
      {"-1", "nil", "9223372036854775807"},
      {"1.5", "nil", "-0.25"},
      {"0.1", "nil", "1e300"},
      {"-9223372036854775807", "nil", "3"},
      {"", "nil", "héllo"},
      {"2000-02-29 23:59:59.999", "nil", "-100-03-01 00:00:00.000"},
      {"00:00:00.001", "nil", "12:00:00.000"},
      {"1600-02-29", "nil", "9999-12-31"}};
  std::vector<bat> bats;
  for (size_t t = 0; t < std::size(types); t++) {
    int type = ATOMindex(types[t]);
    bat b = Make(type, types[t]);
    bats.push_back(b);
    for (const char* text : texts[t]) {
      void* v = type == TYPE_str && std::strcmp(text, "nil") == 0 ? GDKstrdup(str_nil)
                                                                  : ATOMstrConvert(types[t], text);
      ASSERT_NE(v, nullptr) << types[t] << " " << text;
      char* err = CVDbat_append(b, v);
      ASSERT_EQ(err, nullptr) << err;
      GDKfree(v);
    }
  }
  ASSERT_EQ(TMcommit(), 0);
  Reopen();
  for (size_t t = 0; t < std::size(types); t++) {
    SCOPED_TRACE(types[t]);
    bat b = CVDbat_lookup(types[t]);
    ASSERT_EQ(b, bats[t]);
    BAT* d = BBPdescriptor(b);
    ASSERT_NE(d, nullptr);
    ASSERT_EQ(d->batCount, 3u);
    EXPECT_FALSE(d->tnonil);
    int type = ATOMindex(types[t]);
    for (BUN i = 0; i < 3; i++) {
      void* want =
          type == TYPE_str && i == 1 ? GDKstrdup(str_nil) : ATOMstrConvert(types[t], texts[t][i]);
      EXPECT_EQ(ATOMcmp(type, BUNtail(d, i), want), 0) << "row " << i;
      GDKfree(want);
    }
    BBPreleaseref(b);
  }
}

TEST_F(FarmTest, StringHeapWidensAndKeepsEveryString) {
  bat b = Make(TYPE_str, "names");
  std::vector<std::string> values;
  std::vector<int> widths_seen;
  for (int i = 0; i < 7000; i++) {
    values.push_back(i % 7 == 3 ? values[i / 2]
                                : "value-" + std::to_string(i) + std::string(80, 'x'));
    ASSERT_EQ(CVDbat_append(b, values.back().c_str()), nullptr);
    BAT* d = BBPgetdesc(b);
    if (widths_seen.empty() || widths_seen.back() != d->twidth) widths_seen.push_back(d->twidth);
  }
  EXPECT_EQ(widths_seen, (std::vector<int>{1, 2, 4}));
  BAT* d = BBPgetdesc(b);
  EXPECT_EQ(BUNtail(d, 3), BUNtail(d, 1));  // duplicates share one heap record
  ASSERT_EQ(TMcommit(), 0);
  const size_t heap_free = d->tvheap->free;
  Reopen();
  d = BBPdescriptor(b);
  ASSERT_NE(d, nullptr);
  EXPECT_EQ(fs::file_size(Path(b, "theap")), heap_free);
  EXPECT_EQ(fs::file_size(Path(b, "tail")), values.size() * 4);
  EXPECT_TRUE(d->tvheap->flags & HEAP_STRPREFIX);
  for (size_t i = 0; i < values.size(); i++)
    ASSERT_STREQ(static_cast<const char*>(BUNtail(d, i)), values[i].c_str()) << i;
  BBPreleaseref(b);
}

TEST_F(FarmTest, NarrowTailWrittenUnderneathReadsBackSignExtended) {
  for (int width : {1, 2, 4}) {
    SCOPED_TRACE(width);
    std::string name = "dec" + std::to_string(width);
    bat b = Make(TYPE_lng, name.c_str());
    ASSERT_EQ(TMcommit(), 0);
    const int64_t values[] = {-1, 5, -100, 127};
    std::string raw;
    for (int64_t v : values) raw.append(reinterpret_cast<const char*>(&v), width);
    BAT* d = BBPgetdesc(b);
    BATfree(d);
    BBPuncacheit(b, 0);
    std::ofstream(Path(b, "tail"), std::ios::binary) << raw;
    d->batCount = d->batCapacity = d->tailRows = 4;
    d->theap.free = d->theap.size = raw.size();
    d->twidth = static_cast<uint16_t>(width);
    d->tshift = static_cast<uint16_t>(ATOMelmshift(width));
    d->tsorted = d->tkey = d->tnonil = 1;
    d->batDirty = d->batDirtydesc = 1;
    d->batStatus |= BATSTATUS_REWRITTEN;
    ASSERT_EQ(TMcommit(), 0);
    EXPECT_EQ(ReadFile(Path(b, "tail")), raw);  // the commit kept the file as written
    Reopen();
    d = BBPdescriptor(b);
    ASSERT_NE(d, nullptr);
    EXPECT_EQ(d->twidth, width);
    for (int i = 0; i < 4; i++) EXPECT_EQ(*static_cast<const lng*>(BUNtail(d, i)), values[i]);
    BATpropcheck(d);
    EXPECT_FALSE(d->tsorted);
    EXPECT_TRUE(d->tkey);
    EXPECT_TRUE(d->tnonil);
    BBPreleaseref(b);
  }
}

// A damaged catalog or heap: the open refuses it with a clear error and leaves the files as
// they are, or the damaged column does not load; with the load checks off, an append does not
// follow hash chains into a damaged heap but stores its string itself.
TEST_F(FarmTest, DamagedFilesAreRefusedOrReadAround) {
  bat b = Make(TYPE_str, "words");
  ASSERT_EQ(CVDbat_append(b, "alpha"), nullptr);
  ASSERT_EQ(TMcommit(), 0);
  const std::string heap_path = Path(b, "theap");
  CVDfarm_close();
  const std::string catalog = ReadFile(dir_ / "catalog"), heap = ReadFile(heap_path);
  auto edit = [](std::string bytes, size_t at, const std::string& with) {
    return bytes.replace(at, with.size(), with);
  };
  // "" hashes to bucket 0; each head points its chain somewhere no record starts.
  auto head = [&](uint16_t at) {
    return edit(heap, 0, std::string(reinterpret_cast<char*>(&at), 2));
  };
  enum Outcome { kOpenFails, kLoadFails, kAppends };
  const struct {
    const char* what;
    std::string catalog_text;  // written over the catalog; "-" removes it
    std::string heap_text;     // written over the string heap; "-" removes it
    Outcome outcome;
    std::string says;  // in the open's error
  } cases[] = {
      {"missing catalog", "-", heap, kOpenFails,
       "catalog " + (dir_ / "catalog").string() + " is missing"},
      {"truncated", catalog.substr(0, catalog.size() / 2), heap, kOpenFails,
       "catalog is truncated"},
      {"flipped byte", edit(catalog, catalog.find("words"), "W"), heap, kOpenFails,
       "catalog checksum mismatch"},
      {"missing heap", catalog, "-", kOpenFails, "theap is missing"},
      {"short heap", catalog, heap.substr(0, 2050), kOpenFails,
       "holds 2050 bytes, the catalog describes"},
      // The open reads no heap: a last string without its zero is found when loading.
      {"unterminated", catalog, edit(heap, heap.size() - 1, "x"), kLoadFails, ""},
      {"hash head in a record", catalog, head(2049), kAppends, ""},
      {"hash head in the hash area", catalog, head(2), kAppends, ""},
      {"hash head past the end", catalog, head(0xFFFF), kAppends, ""},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    fs::remove(dir_ / "catalog");
    fs::remove(heap_path);
    if (c.catalog_text != "-") WriteFile(dir_ / "catalog", c.catalog_text);
    if (c.heap_text != "-") WriteFile(heap_path, c.heap_text);
    CVDfarm_skip_load_checksums(c.outcome == kAppends);  // they would refuse the damaged heap
    if (c.outcome == kOpenFails) {
      std::string err = OpenError();
      EXPECT_EQ(err.rfind("IOException:CVDfarm_open:", 0), 0u) << err;
      EXPECT_NE(err.find(c.says), std::string::npos) << err;
      EXPECT_EQ(CVDfarm_dir(), nullptr);
      if (c.catalog_text != "-") {
        EXPECT_EQ(ReadFile(dir_ / "catalog"), c.catalog_text);
      }
      continue;
    }
    Open(0);
    if (c.outcome == kAppends) {
      ASSERT_EQ(CVDbat_append(b, ""), nullptr);
    }
    BAT* d = BBPdescriptor(b);
    EXPECT_EQ(d != nullptr, c.outcome == kAppends);
    if (d != nullptr) {
      EXPECT_STREQ(static_cast<const char*>(BUNtail(d, 0)), "alpha");
      EXPECT_STREQ(static_cast<const char*>(BUNtail(d, 1)), "");
      BBPreleaseref(b);
    }
    CVDfarm_close();
  }
  CVDfarm_skip_load_checksums(0);
  WriteFile(dir_ / "catalog", catalog);
  WriteFile(heap_path, heap);
  Open(0);
  ASSERT_NE(BBPdescriptor(b), nullptr);
  EXPECT_STREQ(static_cast<const char*>(BUNtail(BBPgetdesc(b), 0)), "alpha");
  BBPreleaseref(b);
}

TEST_F(FarmTest, PhysicalNamesResultsAndLogger) {
  bat b = Make(TYPE_int, "t");
  char phys[64];
  BBPphysical(b, phys);
  const std::string tail = Path(b, "tail");
  EXPECT_EQ(tail, std::string(BBPfarmdir()) + "/" + phys + ".tail");
  EXPECT_STREQ(BBPphysical(BBPsize(), phys), "");

  bat order = 0, col = 0;
  ASSERT_EQ(CVDbat_dense(10, 3, &order), nullptr);
  ASSERT_EQ(CVDbat_create(TYPE_int, nullptr, 0, &col), nullptr);
  BAT* o = BBPgetdesc(order);
  oid key = 11;
  EXPECT_EQ(*static_cast<const oid*>(BUNtail(o, 2)), 12u);
  EXPECT_EQ(BUNfnd(o, &key), BUN_NONE);  // the dense head starts at 0
  mvc* m = mvc_create();
  res_table* t = res_table_create(m, 1, order);
  ASSERT_EQ(res_col_set(t, 0, "sys", "c", "int", 32, 0, col), 0);
  EXPECT_EQ(res_col_set(t, 1, "sys", "d", "int", 32, 0, col), -1);
  EXPECT_EQ(res_tables_find(m->results, t->id), t);
  m->results = res_tables_remove(m->results, t);
  EXPECT_EQ(BBPgetdesc(order), nullptr);  // the result held the last references
  EXPECT_EQ(BBPgetdesc(col), nullptr);
  mvc_destroy(m);

  logger* lg = CVDfarm_logger();
  ASSERT_EQ(logger_restart(lg), 0);
  ASSERT_EQ(logger_restart(lg), 0);
  ASSERT_EQ(logger_cleanup(lg), 0);
  EXPECT_FALSE(fs::exists(dir_ / "log" / "log.1"));
  EXPECT_EQ(ReadFile(dir_ / "log" / "log.2"), "restart 2 generation 0\n");
  oid first = OIDnew(5);
  ASSERT_EQ(TMcommit(), 0);
  Reopen();
  EXPECT_EQ(OIDnew(1), first + 5);
}

}  // namespace
