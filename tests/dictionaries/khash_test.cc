// KHash in memory: coding against std::unordered_map as a reference model, the bucket
// placement and growth rules, and key ownership.
#include "dictionaries/khash.h"

#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <string>
#include <unordered_map>
#include <vector>

namespace qopci {
namespace {

const char kNil[] = "\x80";

// X31 with sign-extended bytes, written out independently of the table.
uint32_t X31(const std::string& s) {
  uint32_t h = 0;
  for (size_t i = 0; i < s.size(); ++i) {
    const uint32_t c = static_cast<uint32_t>(static_cast<int32_t>(static_cast<signed char>(s[i])));
    h = i == 0 ? c : h * 31u + c;
  }
  return h;
}

// Random strings of 0 to 19 bytes (no zero byte) including bytes above 0x7F and strings that
// start like the nil string, so the two-byte null test is exercised.
std::vector<std::string> Distinct(size_t n, std::mt19937* rng) {
  std::unordered_map<std::string, int> seen;
  std::vector<std::string> out;
  while (out.size() < n) {
    std::string s(std::uniform_int_distribution<int>(0, 19)(*rng), 'x');
    for (char& c : s) c = static_cast<char>(std::uniform_int_distribution<int>(1, 255)(*rng));
    if ((*rng)() % 50 == 0) s = "\x80" + s;
    if (seen.emplace(s, 0).second) out.push_back(s);
  }
  return out;
}

TEST(KHashTest, CodesLikeAReferenceMap) {
  struct Case {
    const char* name;
    bool hashes_nulls;
    uint32_t initial_capacity;
    size_t distinct, rows, chunk;
  };
  const Case cases[] = {
      {"nulls coded as a value", true, 0, 3000, 20000, 997},
      {"nulls get the null code", false, 0, 3000, 20000, 997},
      {"presized, one big chunk", false, 5000, 4000, 12000, 12000},
      {"few keys, tiny chunks", true, 3, 5, 300, 7},
  };
  const unsigned kNullCode = 0x80000000u;
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    std::mt19937 rng(42);
    std::vector<std::string> pool = Distinct(c.distinct, &rng);
    pool.push_back(kNil);
    for (const char* tail : {"", "h", "hi", "x", "xyz", "hijklmnop"}) {  // one 7-byte prefix
      pool.push_back(std::string("abcdefg") + tail);
    }
    std::vector<std::string> rows;
    for (size_t i = 0; i < c.rows; ++i) {
      rows.push_back(i % 13 == 0 ? std::string(kNil) : pool[rng() % pool.size()]);
    }
    KHash table(c.initial_capacity, c.hashes_nulls);
    std::unordered_map<std::string, unsigned> model;
    unsigned next = 1;
    for (size_t start = 0; start < rows.size(); start += c.chunk) {
      const size_t n = std::min(c.chunk, rows.size() - start);
      std::vector<char*> values;
      for (size_t i = 0; i < n; ++i) values.push_back(rows[start + i].data());
      std::vector<unsigned> codes(n), new_codes(n);
      std::vector<char*> new_values(n);
      uint64_t new_count = 0;
      table.EncodeChunk(values.data(), next, codes.data(), n, new_values.data(), new_codes.data(),
                        &new_count, kNullCode, const_cast<char*>(kNil));
      size_t expected_new = 0;
      for (size_t i = 0; i < n; ++i) {
        const std::string& s = rows[start + i];
        if (!c.hashes_nulls && s == kNil) {
          ASSERT_EQ(codes[i], kNullCode) << i;
          continue;
        }
        auto [it, fresh] = model.emplace(s, next);
        if (fresh) {
          ASSERT_EQ(new_values[expected_new], values[i]);
          ASSERT_EQ(new_codes[expected_new], next);
          ++expected_new;
          ++next;
        }
        ASSERT_EQ(codes[i], it->second) << "row " << start + i;
      }
      ASSERT_EQ(new_count, expected_new);
    }
    EXPECT_EQ(table.Size(), model.size());
    EXPECT_EQ(model.count(kNil) == 1, c.hashes_nulls);
    for (const auto& [key, code] : model) {
      unsigned found = 0;
      std::string copy = key;
      ASSERT_TRUE(table.Find(copy.data(), &found));
      EXPECT_EQ(found, code);
    }
    for (const std::string& s : Distinct(200, &rng)) {
      unsigned found = 7;
      std::string copy = s + "\x01unseen";
      EXPECT_FALSE(table.Find(copy.data(), &found));
    }
  }
}

TEST(KHashTest, SizingAndPlacement) {
  struct Case {
    uint32_t initial_capacity;
    uint32_t buckets, upper_bound;  // after construction
  };
  // The smallest prime above the capacity, with room for 0.77 of it (rounded).
  const Case cases[] = {{0, 3, 2}, {2, 3, 2}, {3, 11, 8}, {100, 193, 149}, {1543, 3079, 2371}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.initial_capacity);
    KHash table(c.initial_capacity, true);
    EXPECT_EQ(table.BucketCount(), c.buckets);
    EXPECT_EQ(table.UpperBound(), c.upper_bound);
    // The first key of a table sits at its hash modulo the bucket count; bytes above 0x7F
    // count as negative.
    for (std::string key : {"", "a", "hello world", "\xff\xfe\xfd", "Caf\xc3\xa9"}) {
      KHash fresh(c.initial_capacity, true);
      ASSERT_TRUE(fresh.Insert(key.data(), 5));
      EXPECT_EQ(fresh.BucketOf(key.c_str()), X31(key) % c.buckets) << key;
    }
  }
  // A full table (keys at the upper bound) steps to the next prime on the next insertion,
  // and only then; placement stays findable across every rehash.
  KHash table(0, true);
  std::vector<uint32_t> counts = {table.BucketCount()};
  std::mt19937 rng(7);
  const std::vector<std::string> keys = Distinct(3000, &rng);
  for (size_t i = 0; i < keys.size(); ++i) {
    const bool full = table.Size() == table.UpperBound();
    std::string key = keys[i];
    ASSERT_TRUE(table.Insert(key.data(), static_cast<unsigned>(i)));
    ASSERT_EQ(table.BucketCount() != counts.back(), full) << i;
    if (full) counts.push_back(table.BucketCount());
  }
  EXPECT_EQ(counts, (std::vector<uint32_t>{3, 11, 23, 53, 97, 193, 389, 769, 1543, 3079, 6151}));
  for (size_t i = 0; i < keys.size(); ++i) {
    unsigned code = 0;
    std::string key = keys[i];
    ASSERT_TRUE(table.Find(key.data(), &code));
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
  // The same holds for strings met by EncodeChunk: the new list points at the caller's
  // string, the table keeps its own copy.
  char row[] = "row value";
  char* values[] = {row};
  unsigned codes[1], new_codes[1];
  char* new_values[1];
  uint64_t new_count = 0;
  table.EncodeChunk(values, 10, codes, 1, new_values, new_codes, &new_count, 0,
                    const_cast<char*>(kNil));
  EXPECT_EQ(new_values[0], row);
  std::memset(row, 'z', sizeof(row) - 1);
  char again[] = "row value";
  ASSERT_TRUE(table.Find(again, &code));
  EXPECT_EQ(code, 10u);
  EXPECT_EQ(table.Size(), 2u);
  // Keys that share their first eight bytes stay apart.
  KHash shared(0, true);
  for (std::string base = "base0000"; base[7] <= '9'; ++base[7]) {
    for (std::string tail : {"a", "b", "cd", "efghijk"}) {
      std::string key = base + tail;
      ASSERT_TRUE(shared.Insert(key.data(), 1));
    }
  }
  for (std::string base = "base0000"; base[7] <= '9'; ++base[7]) {
    EXPECT_FALSE(shared.Find(base.data(), &code)) << base;
  }
}

}  // namespace
}  // namespace qopci
