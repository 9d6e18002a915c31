#include "dictionaries/khash_hash.h"

#include <cfloat>
#include <cmath>
#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <unordered_map>
#include <vector>

#include "gtest/gtest.h"
#include "readers/simple_type_bat_reader.h"
#include "tests/support/temp_dir.h"

namespace qopci {
namespace {

// The bits a table compares keys by.
template <typename K>
int64_t Bits(K key) {
  if constexpr (std::is_same_v<K, double>) {
    int64_t bits;
    std::memcpy(&bits, &key, sizeof bits);
    return bits;
  } else {
    return key;
  }
}

template <typename K>
K RandomKey(std::mt19937_64& rng) {
  if constexpr (std::is_same_v<K, double>) {
    const uint64_t pick = rng() % 8;
    if (pick == 0) return -0.0;
    if (pick == 1) return std::nan("");
    return static_cast<double>(static_cast<int64_t>(rng())) / 1e6;
  } else {
    return static_cast<K>(rng());  // negatives included
  }
}

template <typename K>
class KhashHashModelTest : public ::testing::Test {};
using KeyTypes = ::testing::Types<char, short, int, int64_t, double>;
TYPED_TEST_SUITE(KhashHashModelTest, KeyTypes);

// Chunks of random keys with repeats, nulls among them, through EncodeChunk, against an
// unordered_map of the same codes; the bucket count must follow the growth rule at every
// put (4 buckets at first, doubling when the occupied count has reached 77%).
TYPED_TEST(KhashHashModelTest, EncodesAsTheReferenceMap) {
  using K = TypeParam;
  using V = std::conditional_t<sizeof(K) <= 4 && !std::is_same_v<K, double>, K, unsigned>;
  const K null =
      std::is_same_v<K, double> ? static_cast<K>(-DBL_MAX) : std::numeric_limits<K>::min();
  for (const bool hashes_nulls : {false, true}) {
    SCOPED_TRACE(hashes_nulls);
    std::mt19937_64 rng(7);
    // Enough keys for the large-table path (tens of thousands of buckets).
    std::vector<K> pool(sizeof(K) == 1 ? 200 : 40000);
    for (K& k : pool) k = RandomKey<K>(rng);
    KhashHash<K, V> table(hashes_nulls);
    std::unordered_map<int64_t, V> model;
    uint64_t buckets = 0, bound = 0;
    V next = 1;
    for (int chunk = 0; chunk < 6; ++chunk) {
      const size_t n = 1 + rng() % 40000;
      std::vector<K> values(n), new_values(n);
      std::vector<V> codes(n), new_codes(n), want_new_codes;
      for (K& v : values) v = rng() % 10 == 0 ? null : pool[rng() % pool.size()];
      std::vector<V> want(n);
      for (size_t i = 0; i < n; ++i) {
        if (!hashes_nulls && values[i] == null) {
          want[i] = 99;
          continue;
        }
        if (model.size() >= bound) {
          buckets = buckets == 0 ? 4 : buckets * 2;
          bound = static_cast<uint32_t>(static_cast<double>(buckets) * 0.77 + 0.5);
        }
        auto [it, added] = model.try_emplace(Bits(values[i]), next);
        if (added) want_new_codes.push_back(next++);
        want[i] = it->second;
      }
      uint64_t new_count = 0;
      const V first = want_new_codes.empty() ? next : want_new_codes.front();
      table.EncodeChunk(values.data(), first, codes.data(), n, new_values.data(), new_codes.data(),
                        &new_count, 99, null);
      ASSERT_EQ(codes, want);
      ASSERT_EQ(new_count, want_new_codes.size());
      new_codes.resize(new_count);
      ASSERT_EQ(new_codes, want_new_codes);
      for (uint64_t j = 0; j < new_count; ++j) {
        ASSERT_EQ(model.at(Bits(new_values[j])), new_codes[j]);
      }
      ASSERT_EQ(table.Size(), model.size());
      ASSERT_EQ(table.BucketCount(), buckets);
      ASSERT_EQ(table.UpperBound(), bound);
    }
    for (const K k : pool) {
      V code = 42;
      auto it = model.find(Bits(k));
      ASSERT_EQ(table.Find(k, &code), it != model.end());
      ASSERT_EQ(code, it != model.end() ? it->second : 42);  // untouched when absent
    }
  }
}

// The hash of a key and where keys land: a key alone sits at its hash's low bits; the probe
// steps by the hash's bits 3 and up, and growth rehashes in place, moving a pair that still
// waits in the old table out of the way of the one being placed. Growth at the bound on
// every put, present key or new, is checked by the reference-model test above.
TEST(KhashHashTest, HashesAndBucketsAfterProbesAndGrowth) {
  const struct {
    int key;
    uint32_t hash;
  } hashes[] = {{-1, 0xFFFFF800u}, {0, 0}, {1, 0x801}, {2, 0x1002}};
  for (const auto& h : hashes) {
    EXPECT_EQ((KhashHash<int, int>::Hash(h.key)), h.hash) << h.key;
    KhashHash<int, int> alone(false);
    ASSERT_TRUE(alone.Insert(h.key, 5));
    EXPECT_EQ(alone.BucketOf(h.key), static_cast<int64_t>(h.hash & 3)) << h.key;
  }
  EXPECT_EQ((KhashHash<int64_t, unsigned>::Hash(-1)), 0xFFFFF800u);
  EXPECT_EQ((KhashHash<char, char>::Hash(-1)), 0xFFFFF800u);
  EXPECT_EQ((KhashHash<int64_t, unsigned>::Hash(int64_t{1} << 40)), 0x80u);  // high bits fold in

  struct Case {
    std::vector<int> keys;  // inserted in this order
    uint32_t buckets;
    std::vector<int64_t> where;
  };
  const Case cases[] = {
      {{-1, 0, 1}, 4, {0, 1, 2}},
      {{0, 16, 32}, 4, {0, 3, 1}},
      {{0, 16, 32, 48}, 8, {0, 3, 5, 7}},
      {{0, 16, 32, 48, -1, 5, 100}, 16, {0, 3, 5, 7, 1, 14, 4}},
      {{160, 171, 18, 71, 102, 134, 185}, 16, {0, 11, 2, 7, 3, 6, 9}},  // two swaps
  };
  for (const Case& c : cases) {
    KhashHash<int, int> table(false);
    for (int k : c.keys) ASSERT_TRUE(table.Insert(k, k + 10));
    EXPECT_EQ(table.BucketCount(), c.buckets);
    for (size_t i = 0; i < c.keys.size(); ++i) {
      int code = 0;
      EXPECT_EQ(table.BucketOf(c.keys[i]), c.where[i]) << c.keys[i];
      EXPECT_TRUE(table.Find(c.keys[i], &code) && code == c.keys[i] + 10) << c.keys[i];
    }
    int code = 0;
    EXPECT_FALSE(table.Insert(c.keys[0], 77));  // present: its code is kept
    EXPECT_TRUE(table.Find(c.keys[0], &code) && code == c.keys[0] + 10);
  }
}

TEST(KhashHashTest, NullsAndSignedZeros) {
  const double nan = std::nan("");
  struct Case {
    const char* name;
    std::vector<double> values;
    bool hashes_nulls;
    double null;
    std::vector<unsigned> codes;  // first new code 10, null code 0
    size_t new_count;
  };
  const Case cases[] = {
      {"only nulls", {-DBL_MAX, -DBL_MAX, -DBL_MAX}, false, -DBL_MAX, {0, 0, 0}, 0},
      {"nulls coded", {-DBL_MAX, 1.5, -DBL_MAX}, true, -DBL_MAX, {10, 11, 10}, 2},
      {"signed zeros", {0.0, -0.0, 0.0, -0.0}, false, -DBL_MAX, {10, 11, 10, 11}, 2},
      {"NaN null never matches", {nan, 2.0, nan}, false, nan, {10, 11, 10}, 2},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    KhashHash<double, unsigned> table(c.hashes_nulls);
    const size_t n = c.values.size();
    std::vector<unsigned> codes(n), new_codes(n);
    std::vector<double> new_values(n);
    uint64_t new_count = 0;
    table.EncodeChunk(c.values.data(), 10, codes.data(), n, new_values.data(), new_codes.data(),
                      &new_count, 0, c.null);
    EXPECT_EQ(codes, c.codes);
    EXPECT_EQ(new_count, c.new_count);
    EXPECT_EQ(table.Size(), c.new_count);
  }
}

class LoadFromReadersTest : public ::testing::Test {
 protected:
  template <typename T>
  SimpleTypeBATReader<T>* Reader(const std::string& name, const std::vector<T>& values) {
    const std::string path = dir_.path() + "/" + name;
    qopci_test::WriteFile(
        path, std::string(reinterpret_cast<const char*>(values.data()), values.size() * sizeof(T)));
    return new SimpleTypeBATReader<T>(path.c_str(), values.size() * sizeof(T));
  }
  qopci_test::TempDir dir_{"khash_load_"};
};

TEST_F(LoadFromReadersTest, LogsAndOwnership) {
  const std::string start = "HashBase<int, int>::LoadFromReader() started. Initialized ok.";
  struct Case {
    std::vector<int> keys, codes;
    bool ok;
    bool owned;  // the load closed and deleted the readers
    std::string log;
    uint64_t size;
  };
  const Case cases[] = {
      {{}, {}, true, true, start + " Both empties.", 0},
      {{}, {1}, false, false, start + " key is empty, val is not.", 0},
      {{5}, {}, false, false, start + " val is empty, key is not.", 0},
      {{5, 6},
       {1},
       false,
       true,
       start + "SimpleTypeBATReader<int>::Read() failed to forward cursor."
               " Failed to read from val (while expecting more data).",
       1},
      {{5}, {1, 2}, false, true, start + " Read from val (while expecting to fail).", 1},
      {{5, -6, 5}, {1, 2, 3}, false, true, start + " Failed to insert pair to hash.", 2},
      {{5, -6, 7}, {1, 2, 3}, true, true, start + " Finished LoadFromReaders successfully.", 3},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.log);
    KhashHash<int, int> table(false);
    std::unique_ptr<BATReader<int>> keys(Reader("k", c.keys)), codes(Reader("c", c.codes));
    char buffer[512] = {};
    TextLog log{buffer, sizeof buffer, 0};
    EXPECT_EQ(table.LoadFromReaders(keys.get(), codes.get(), &log), c.ok);
    if (c.owned) keys.release(), codes.release();
    EXPECT_EQ(std::string(buffer), c.log);
    EXPECT_EQ(table.Size(), c.size);
    int code = 0;
    if (c.ok && c.size == 3) {
      EXPECT_TRUE(table.Find(-6, &code) && code == 2);
    }
  }
  // A missing key file: the readers stay the caller's, each instance logs its own prefix.
  KhashHash<double, unsigned> doubles(false);
  std::unique_ptr<BATReader<double>> missing(
      new SimpleTypeBATReader<double>((dir_.path() + "/none").c_str(), 8));
  std::unique_ptr<BATReader<unsigned>> codes(Reader<unsigned>("c", {1}));
  char buffer[512] = {};
  TextLog log{buffer, sizeof buffer, 0};
  EXPECT_FALSE(doubles.LoadFromReaders(missing.get(), codes.get(), &log));
  EXPECT_EQ(std::string(buffer),
            "HashBase<double, var_t>::LoadFromReader() started."
            "SimpleTypeBATReader<double>::Initialize failed to initialize reader."
            " Failed to init keyReader.");
  KhashHash<int64_t, unsigned> longs(true);
  log = TextLog{buffer, sizeof buffer, 0};
  EXPECT_TRUE(longs.LoadFromReaders(Reader<int64_t>("k", {-3}), Reader<unsigned>("c", {4}), &log));
  EXPECT_EQ(std::string(buffer),
            "HashBase<__int64, var_t>::LoadFromReader() started. Initialized ok."
            " Finished LoadFromReaders successfully.");
}

}  // namespace
}  // namespace qopci
