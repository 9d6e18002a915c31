// Heaps and property checks: the typed property scans must clear exactly the flags the
// generic comparison would, and a closed farm gives its large heaps back.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <limits>
#include <optional>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

#include "corvid/farm.h"
#include "corvid/gdk.h"
#include "tests/support/temp_dir.h"

namespace fs = std::filesystem;

namespace {

template <typename T>
bat Transient(int type, const std::vector<T>& v) {
  bat b = 0;
  EXPECT_EQ(CVDbat_create(type, nullptr, v.size(), &b), nullptr);
  if (!v.empty()) {
    EXPECT_EQ(CVDbat_append_n(b, v.data(), v.size()), nullptr);
  }
  return b;
}

struct Flags {
  bool sorted, revsorted, key, nonil;
  bool operator==(const Flags&) const = default;
};
void PrintTo(const Flags& f, std::ostream* os) {
  *os << "sorted " << f.sorted << " revsorted " << f.revsorted << " key " << f.key << " nonil "
      << f.nonil;
}
Flags FlagsOf(const BAT* d) {
  return Flags{d->tsorted != 0, d->trevsorted != 0, d->tkey != 0, d->tnonil != 0};
}

// The flags BATpropcheck leaves on transient BAT b when sorted, revsorted and no-nil are set
// and key is set as asked (an unordered key check sorts the whole column). Releases b.
// Nothing when b cannot be loaded.
std::optional<Flags> CheckedFlags(bat b, bool ask_key = true) {
  std::optional<Flags> flags;
  if (BAT* d = BBPdescriptor(b)) {
    d->tsorted = d->trevsorted = d->tnonil = 1;
    d->tkey = ask_key ? 1 : 0;
    BATpropcheck(d);
    flags = FlagsOf(d);
    BBPreleaseref(b);
  }
  CVDbat_release(b);
  return flags;
}

TEST(HeapTest, PropcheckClearsExactlyTheFalseFlags) {
  const double inf = std::numeric_limits<double>::infinity();
  const double nan = std::numeric_limits<double>::quiet_NaN();
  struct Case {
    std::string name;
    bat b;
    Flags want;
  };
  const std::vector<Case> cases = {
      {"int ascending, nil first", Transient<int>(TYPE_int, {int_nil, 1, 2}), {1, 0, 1, 0}},
      {"int descending", Transient<int>(TYPE_int, {3, 2, 2}), {0, 1, 0, 1}},
      {"int unordered distinct", Transient<int>(TYPE_int, {2, 9, 1}), {0, 0, 1, 1}},
      {"bte", Transient<bte>(TYPE_bte, {-3, -3, 4}), {1, 0, 0, 1}},
      {"sht", Transient<sht>(TYPE_sht, {5, sht_nil}), {0, 1, 1, 0}},
      {"lng", Transient<lng>(TYPE_lng, {1, 2, 1}), {0, 0, 0, 1}},
      {"dbl", Transient<dbl>(TYPE_dbl, {dbl_nil, -1.5, 2.0}), {1, 0, 1, 0}},
      {"dbl with -inf", Transient<dbl>(TYPE_dbl, {-inf, 1.0}), {1, 0, 1, 1}},
      // The host compares NaN equal to everything, so neither order is broken.
      {"dbl with nan", Transient<dbl>(TYPE_dbl, {1.0, nan, 0.5}), {1, 1, 0, 1}},
      {"oid", Transient<oid>(TYPE_oid, {oid_nil, 1, 7}), {1, 0, 1, 0}},
  };
  for (const Case& c : cases) EXPECT_EQ(CheckedFlags(c.b), c.want) << c.name;
}

// Appending many values at once leaves the same property flags as appending them one by
// one, also when the first call of a BAT is followed by more.
TEST(HeapTest, BulkAppendKeepsTheFlagsOfSingleAppends) {
  const double nan = std::numeric_limits<double>::quiet_NaN();
  struct Case {
    std::string name;
    int type;
    std::vector<unsigned char> bytes;
    size_t width;
  };
  auto of = [](auto values) {
    std::vector<unsigned char> b(values.size() * sizeof(values[0]));
    std::memcpy(b.data(), values.data(), b.size());
    return b;
  };
  const std::vector<Case> cases = {
      {"ascending", TYPE_int, of(std::vector<int>{1, 2, 3, 4}), 4},
      {"descending with equal", TYPE_int, of(std::vector<int>{4, 3, 3, 1}), 4},
      {"nil first", TYPE_lng, of(std::vector<lng>{lng_nil, 5, 6}), 8},
      {"unordered", TYPE_sht, of(std::vector<sht>{2, 9, 1, 7}), 2},
      {"doubles with nan", TYPE_dbl, of(std::vector<dbl>{1.0, nan, 0.5}), 8},
      {"oids", TYPE_oid, of(std::vector<oid>{3, oid_nil, 4}), 4},
      {"single row", TYPE_int, of(std::vector<int>{int_nil}), 4},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const size_t n = c.bytes.size() / c.width, half = n / 2;
    bat one = 0, bulk = 0, split = 0;
    ASSERT_EQ(CVDbat_create(c.type, nullptr, 0, &one), nullptr);
    ASSERT_EQ(CVDbat_create(c.type, nullptr, 0, &bulk), nullptr);
    ASSERT_EQ(CVDbat_create(c.type, nullptr, 0, &split), nullptr);
    for (size_t i = 0; i < n; i++) ASSERT_EQ(CVDbat_append(one, &c.bytes[i * c.width]), nullptr);
    ASSERT_EQ(CVDbat_append_n(bulk, c.bytes.data(), n), nullptr);
    ASSERT_EQ(CVDbat_append_n(split, c.bytes.data(), half), nullptr);
    ASSERT_EQ(CVDbat_append_n(split, &c.bytes[half * c.width], n - half), nullptr);
    const BAT* a = BBPgetdesc(one);
    for (bat other : {bulk, split}) {
      const BAT* b = BBPgetdesc(other);
      EXPECT_EQ(b->batCount, a->batCount);
      EXPECT_EQ(std::memcmp(b->theap.base, a->theap.base, n * c.width), 0);
      EXPECT_EQ(FlagsOf(b), FlagsOf(a));
    }
    for (bat b : {one, bulk, split}) CVDbat_release(b);
  }
}

// Long columns are scanned in two halves at once: an order broken exactly at the seam, or
// a nil only in the upper half, must still be seen.
TEST(HeapTest, PropcheckOfLongColumnsSeesTheSeam) {
  const size_t n = (size_t{1} << 20) + 3, mid = n / 2;
  std::vector<int> broken(n);
  for (size_t i = 0; i < n; i++) broken[i] = static_cast<int>(i);
  std::swap(broken[mid - 1], broken[mid]);
  std::vector<dbl> falling(n);
  for (size_t i = 0; i < n; i++) falling[i] = static_cast<dbl>(n - i);
  falling[n - 1] = dbl_nil;  // the smallest value, last: still descending
  // Key is not asked: its check would sort the column.
  EXPECT_EQ(CheckedFlags(Transient<int>(TYPE_int, broken), false), (Flags{0, 0, 0, 1}));
  EXPECT_EQ(CheckedFlags(Transient<dbl>(TYPE_dbl, falling), false), (Flags{0, 1, 0, 0}));
}

// The scan works block by block and stops once every flag has failed: a single break of
// an order, a repeat or a nil must be seen wherever it falls, at a block's first or last
// row, in a block of its own or in the short block at the end.
TEST(HeapTest, PropcheckSeesOneBreakAnywhere) {
  struct Break {
    std::string name;
    Flags want;
  };
  const std::vector<Break> breaks = {
      {"none", {1, 0, 1, 1}},
      {"descent", {0, 0, 1, 1}},
      {"repeat", {1, 0, 0, 1}},
      {"nil", {0, 0, 1, 0}},
  };
  const size_t n = 3 * 4096 + 17;
  for (const Break& k : breaks) {
    for (size_t at : {size_t{1}, size_t{4095}, size_t{4096}, size_t{4097}, size_t{8193}, n - 1}) {
      SCOPED_TRACE(k.name + " at row " + std::to_string(at));
      std::vector<lng> longs(n);
      std::vector<dbl> doubles(n);
      for (size_t i = 0; i < n; i++) longs[i] = static_cast<lng>(2 * i);
      if (k.name == "descent") longs[at] = longs[at - 1] - 1;
      if (k.name == "repeat") longs[at] = longs[at - 1];
      if (k.name == "nil") longs[at] = lng_nil;
      for (size_t i = 0; i < n; i++)
        doubles[i] = longs[i] == lng_nil ? dbl_nil : static_cast<dbl>(longs[i]);
      const std::pair<const char*, bat> columns[] = {{"lng", Transient<lng>(TYPE_lng, longs)},
                                                     {"dbl", Transient<dbl>(TYPE_dbl, doubles)}};
      for (const auto& [type, b] : columns) EXPECT_EQ(CheckedFlags(b), k.want) << type;
    }
  }
}

// Large heaps are given back on a background thread; a closed farm must hold none of them.
TEST(HeapTest, ClosedFarmHasGivenLargeHeapsBack) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  const bool counts = false;  // the sanitizer's allocator keeps freed memory in quarantine
#else
  const bool counts = true;
#endif
  auto resident = [] {
    long pages = 0, rss = 0;
    FILE* f = std::fopen("/proc/self/statm", "r");
    if (f == nullptr) return 0L;
    if (std::fscanf(f, "%ld %ld", &pages, &rss) != 2) rss = 0;
    std::fclose(f);
    return rss * ::sysconf(_SC_PAGESIZE);
  };
  const qopci_test::TempDir tmp("corvid_reclaim_");
  const fs::path dir = tmp.path() + "/farm";
  ASSERT_EQ(CVDfarm_open(dir.c_str(), 1), nullptr);
  const long before = resident();
  const long bytes = 64L << 20;
  bat b = Transient<lng>(TYPE_lng, std::vector<lng>(bytes / sizeof(lng), 7));
  BBPreleaseref(b);
  if (counts) {
    ASSERT_GE(resident() - before, bytes);  // the values, at least once
  }
  CVDbat_release(b);
  CVDfarm_close();
  if (counts) {
    EXPECT_LT(resident() - before, bytes / 4);
  }
}

}  // namespace
