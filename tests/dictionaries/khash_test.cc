// KHash in memory: coding against std::unordered_map as a reference model, the bucket
// placement and growth rules, and key ownership.
#include "dictionaries/khash.h"

#include <gtest/gtest.h>
#include <sys/mman.h>

#include <cstring>
#include <random>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

namespace qopci {
namespace {

char kNil[] = "\x80";

// X31 with sign-extended bytes, written out independently of the table.
uint32_t X31(const std::string& s) {
  uint32_t h = 0;
  for (size_t i = 0; i < s.size(); ++i) h = h * 31u + static_cast<int32_t>(s[i]);
  return h;
}

// Distinct strings of 0 to 19 bytes (no zero byte; bytes above 0x7F; some starting with the
// nil string's first byte), around the sixteen bytes where hashing changes method.
std::vector<std::string> Distinct(size_t n, std::mt19937* rng) {
  std::unordered_set<std::string> seen;
  std::vector<std::string> out;
  while (out.size() < n) {
    std::string s((*rng)() % 20, 'x');
    for (char& c : s) c = static_cast<char>(1 + (*rng)() % 255);
    if ((*rng)() % 50 == 0) s = "\x80" + s;
    if (seen.insert(s).second) out.push_back(s);
  }
  return out;
}

TEST(KHashTest, CodesLikeAReferenceMap) {
  struct Case {
    bool hashes_nulls;
    uint32_t initial_capacity;
    size_t distinct, rows, chunk;
  };
  const Case cases[] = {{true, 0, 3000, 20000, 997},
                        {false, 0, 3000, 20000, 997},
                        {false, 5000, 4000, 12000, 12000},
                        {true, 3, 5, 300, 7}};
  const unsigned kNullCode = 0x80000000u;
  for (const Case& c : cases) {
    SCOPED_TRACE(c.distinct);
    std::mt19937 rng(42);
    std::vector<std::string> pool = Distinct(c.distinct, &rng);
    for (const char* tail : {"", "h", "hi", "xyz", "hijklmnop"})
      pool.push_back("abcdefg" + std::string(tail));
    std::vector<std::string> rows;
    for (size_t i = 0; i < c.rows; ++i) rows.push_back(i % 13 ? pool[rng() % pool.size()] : kNil);
    KHash table(c.initial_capacity, c.hashes_nulls);
    std::unordered_map<std::string, unsigned> model;
    unsigned next = 1;
    for (size_t start = 0; start < rows.size(); start += c.chunk) {
      const size_t n = std::min(c.chunk, rows.size() - start);
      std::vector<char*> values, new_values(n);
      for (size_t i = 0; i < n; ++i) values.push_back(rows[start + i].data());
      std::vector<unsigned> codes(n), new_codes(n);
      uint64_t new_count = 0, expected_new = 0;
      table.EncodeChunk(values.data(), next, codes.data(), n, new_values.data(), new_codes.data(),
                        &new_count, kNullCode, kNil);
      for (size_t i = 0; i < n; ++i) {
        if (!c.hashes_nulls && rows[start + i] == kNil) {
          ASSERT_EQ(codes[i], kNullCode);
          continue;
        }
        auto [it, fresh] = model.emplace(rows[start + i], next);
        if (fresh) {
          ASSERT_EQ(new_values[expected_new], values[i]);
          ASSERT_EQ(new_codes[expected_new++], next++);
        }
        ASSERT_EQ(codes[i], it->second) << "row " << start + i;
      }
      ASSERT_EQ(new_count, expected_new);
    }
    EXPECT_EQ(table.Size(), model.size());
    EXPECT_EQ(model.count(kNil), c.hashes_nulls ? 1u : 0u);
    for (const auto& [key, code] : model) {
      unsigned found = 0;
      std::string copy = key, longer = key + "\x01";
      ASSERT_TRUE(table.Find(copy.data(), &found));
      EXPECT_EQ(found, code);
      EXPECT_EQ(table.Find(longer.data(), &found), model.count(longer) == 1);
    }
  }
}

TEST(KHashTest, SizingPlacementAndGrowth) {
  // Strings ending at a page end, in front of a page that cannot be read: hashing must not
  // read past the zero byte's page.
  char* pages = static_cast<char*>(
      mmap(nullptr, 8192, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
  ASSERT_NE(pages, MAP_FAILED);
  ASSERT_EQ(mprotect(pages + 4096, 4096, PROT_NONE), 0);
  std::memset(pages, 'q', 4095);
  pages[4095] = 0;
  std::vector<std::string> keys = {"",
                                   "a",
                                   "hello world",
                                   "\xff\xfe\xfd",
                                   "fifteen bytes!!",
                                   "sixteen bytes!!!",
                                   "a much longer key \xe9\xe8 than that"};
  struct Case {
    uint32_t initial_capacity, buckets, upper_bound;  // the smallest prime above, its 0.77
  };
  for (const Case& c : {Case{0, 3, 2}, Case{2, 3, 2}, Case{3, 11, 8}, Case{100, 193, 149},
                        Case{1543, 3079, 2371}}) {
    SCOPED_TRACE(c.initial_capacity);
    KHash sized(c.initial_capacity, true);
    EXPECT_EQ(sized.BucketCount(), c.buckets);
    EXPECT_EQ(sized.UpperBound(), c.upper_bound);
    // The first key of a table sits at its X31 hash modulo the bucket count.
    for (size_t length = 0; length <= 20; ++length) {
      char* at_page_end = pages + 4095 - length;
      KHash fresh(c.initial_capacity, true);
      ASSERT_TRUE(fresh.Insert(at_page_end, 5));
      EXPECT_EQ(fresh.BucketOf(at_page_end), X31(at_page_end) % c.buckets) << length;
      std::string elsewhere = at_page_end;  // hashed the other way, found all the same
      EXPECT_EQ(fresh.BucketOf(elsewhere.c_str()), fresh.BucketOf(at_page_end));
    }
    for (std::string key : keys) {
      KHash fresh(c.initial_capacity, true);
      ASSERT_TRUE(fresh.Insert(key.data(), 5));
      EXPECT_EQ(fresh.BucketOf(key.c_str()), X31(key) % c.buckets) << key;
    }
  }
  munmap(pages, 8192);
  // A full table (keys at the upper bound) steps to the next prime on the next insertion,
  // and only then; every key stays findable across the in-place rehashes.
  KHash table(0, true);
  std::vector<uint32_t> counts = {table.BucketCount()};
  std::mt19937 rng(7);
  keys = Distinct(3000, &rng);
  for (size_t i = 0; i < keys.size(); ++i) {
    const bool full = table.Size() == table.UpperBound();
    ASSERT_TRUE(table.Insert(keys[i].data(), static_cast<unsigned>(i)));
    ASSERT_EQ(table.BucketCount() != counts.back(), full) << i;
    if (full) counts.push_back(table.BucketCount());
  }
  EXPECT_EQ(counts, (std::vector<uint32_t>{3, 11, 23, 53, 97, 193, 389, 769, 1543, 3079, 6151}));
  for (size_t i = 0; i < keys.size(); ++i) {
    unsigned code = 0;
    ASSERT_TRUE(table.Find(keys[i].data(), &code));
    ASSERT_EQ(code, i);
  }
}

TEST(KHashTest, KeysAreCopiesAndDuplicatesAreRefused) {
  KHash table(0, true);
  char buffer[] = "mutable";
  ASSERT_TRUE(table.Insert(buffer, 3));
  EXPECT_FALSE(table.Insert(buffer, 4));  // present: the code stays 3
  std::strcpy(buffer, "changed");
  unsigned code = 0;
  EXPECT_FALSE(table.Find(buffer, &code));
  char original[] = "mutable";
  ASSERT_TRUE(table.Find(original, &code));
  EXPECT_EQ(code, 3u);
  // Keys sharing their first eight bytes stay apart.
  for (std::string base = "base0000"; base[7] <= '9'; ++base[7]) {
    for (std::string tail : {"a", "b", "cd", "efghijk"}) {
      ASSERT_TRUE(table.Insert((base + tail).data(), 1));
    }
  }
  for (std::string base = "base0000"; base[7] <= '9'; ++base[7]) {
    EXPECT_FALSE(table.Find(base.data(), &code)) << base;
  }
}

}  // namespace
}  // namespace qopci
