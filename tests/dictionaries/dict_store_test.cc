// DictStore: opening and closing, the key order of a real store, the tool's helpers, and
// KHash coding through a store (what is read, what is written).
#include "dictionaries/dict_store.h"

#include <gtest/gtest.h>
#include <leveldb/c.h>

#include <filesystem>
#include <string>
#include <utility>
#include <vector>

#include "dictionaries/khash.h"
#include "tests/support/temp_dir.h"

namespace qopci {
namespace {

using qopci_test::TempDir;
using Entries = std::vector<std::pair<std::string, uint32_t>>;

Entries ReadAll(DictStore* store) {
  Entries out;
  std::string error;
  auto add = [&out](std::string_view key, uint32_t code) {
    out.emplace_back(std::string(key), code);
    return true;
  };
  EXPECT_TRUE(DictStoreForEach(store, add, &error)) << error;
  return out;
}

// A store at dir/store holding entries, opened.
void MakeStore(const TempDir& dir, const Entries& entries, DictStore* store) {
  const std::string path = dir.path() + "/store";
  std::string error;
  ASSERT_TRUE(CreateDictStore(path.c_str(), &error)) << error;
  ASSERT_TRUE(store->Open(path.c_str()));
  for (const auto& [key, code] : entries) ASSERT_TRUE(DictStorePut(store, key, code, &error));
}

// Bytes of the store's write-ahead logs: every write batch, even an empty one, adds to them.
uintmax_t LogBytes(const TempDir& dir) {
  uintmax_t total = 0;
  for (const auto& e : std::filesystem::directory_iterator(dir.path() + "/store")) {
    if (e.path().extension() == ".log") total += e.file_size();
  }
  return total;
}

TEST(DictStoreTest, OrdersKeysCaseFoldedThenByBytes) {
  TempDir dir;
  DictStore store;
  Entries entries;
  for (const char* key : {"zebra", "apple", "\xc3\xa9t\xc3\xa9", "Banana", "_x", "APPLE", "b",
                          "Zulu", "apples", "a", "\x80", "Apple", "banana"}) {
    entries.emplace_back(key, 1);
  }
  MakeStore(dir, entries, &store);
  // Case pairs next to each other, capitals first; a string before its extensions; '_' lies
  // between the capitals and the small letters, and letters fold to small ones, so it comes
  // before every letter; bytes above 0x7F after all ASCII.
  std::vector<std::string> order;
  for (const auto& [key, code] : ReadAll(&store)) order.push_back(key);
  EXPECT_EQ(order,
            (std::vector<std::string>{"_x", "a", "APPLE", "Apple", "apple", "apples", "b", "Banana",
                                      "banana", "zebra", "Zulu", "\x80", "\xc3\xa9t\xc3\xa9"}));
  // The sign of a comparison is that of the first differing (folded) byte.
  EXPECT_EQ(DictStoreCompare("Apple", 6, "apple", 6), 'A' - 'a');
  EXPECT_EQ(DictStoreCompare("ab", 3, "abc", 4), -'c');
  EXPECT_EQ(DictStoreCompare("\x80", 2, "z", 2), 0x80 - 'z');
}

TEST(DictStoreTest, OpenFailsWithoutAStoreOfItsOwnKind) {
  TempDir dir;
  const std::string empty = dir.path() + "/empty", other = dir.path() + "/other";
  std::filesystem::create_directory(empty);
  {  // a store ordered by another comparator
    leveldb_options_t* options = leveldb_options_create();
    leveldb_options_set_create_if_missing(options, 1);
    char* error = nullptr;
    leveldb_t* db = leveldb_open(options, other.c_str(), &error);
    ASSERT_EQ(error, nullptr) << error;
    leveldb_close(db);
    leveldb_options_destroy(options);
  }
  for (const std::string& path : {dir.path() + "/missing", empty, other}) {
    SCOPED_TRACE(path);
    DictStore store;
    EXPECT_FALSE(store.Open(path.c_str()));
    EXPECT_FALSE(store.IsOpen());
    store.Close();
  }
  EXPECT_FALSE(std::filesystem::exists(dir.path() + "/missing"));  // never created
  std::string error;
  EXPECT_FALSE(CreateDictStore(other.c_str(), &error));  // a store is already there
  EXPECT_NE(error.find("cannot create the dictionary store"), std::string::npos) << error;
}

TEST(DictStoreTest, ToolHelpersPutCountVisitAndDelete) {
  TempDir dir;
  DictStore store;
  MakeStore(dir, {{"one", 1}, {"two", 2}, {"three", 0xA1B2C3D4u}}, &store);
  std::string error;
  ASSERT_TRUE(DictStorePut(&store, "two", 22, &error));  // replaces
  ASSERT_TRUE(DictStoreDelete(&store, "one", &error));
  ASSERT_TRUE(DictStoreDelete(&store, "absent", &error));
  EXPECT_EQ(ReadAll(&store), (Entries{{"three", 0xA1B2C3D4u}, {"two", 22}}));
  // The entry's bytes: the key with its zero, the code little-endian.
  size_t length = 0;
  char* text = nullptr;
  char* raw = leveldb_get(store.db, store.read_options, "three", 6, &length, &text);
  ASSERT_NE(raw, nullptr);
  EXPECT_EQ(std::string(raw, length), std::string("\xD4\xC3\xB2\xA1", 4));
  leveldb_free(raw);
  uint64_t count = 0;
  ASSERT_TRUE(DictStoreCount(&store, &count, &error) && count == 2) << error << count;
  EXPECT_FALSE(DictStorePut(&store, std::string_view("a\0b", 3), 1, &error));
  EXPECT_EQ(error, "key holds a zero byte");
  leveldb_put(store.db, store.write_options, "short\0", 6, "abc", 3, &text);
  ASSERT_EQ(text, nullptr);
  EXPECT_FALSE(DictStoreCount(&store, &count, &error));
  EXPECT_EQ(error, "the dictionary store holds an entry that is not a string with a 4-byte code");
}

TEST(DictStoreTest, KHashReadsPendingEntriesAndWritesNewOnes) {
  constexpr unsigned kNull = 0x80000000u;
  struct Case {
    const char* name;
    bool open, hashes_nulls;
    Entries stored;
    uint64_t pending;
    std::vector<std::vector<std::string>> chunks;  // coded from code 10 on
    std::vector<std::vector<unsigned>> codes;
    std::vector<bool> batches;  // whether each chunk wrote to the store
    uint64_t pending_after;
    Entries stored_after;  // in key order
  };
  // clang-format off
  const Case cases[] = {
      // Met in the store first, then in memory: one read, one decrement.
      {"store hits keep their codes", true, true, {{"alpha", 7}, {"beta", 9}}, 5,
       {{"alpha", "gamma", "alpha", "beta"}}, {{7, 10, 7, 9}}, {true}, 3,
       {{"alpha", 7}, {"beta", 9}, {"gamma", 10}}},
      // The stored 99 would show a read; the batch then overwrites it.
      {"nothing pending reads nothing", true, true, {{"alpha", 99}}, 0,
       {{"alpha", "beta"}}, {{10, 11}}, {true}, 0, {{"alpha", 10}, {"beta", 11}}},
      {"no new strings, no batch", true, true, {}, 0, {{"a", "b"}, {"b", "a", "a"}},
       {{10, 11}, {11, 10, 10}}, {true, false}, 0, {{"a", 10}, {"b", 11}}},
      {"unopened store", false, true, {}, 5, {{"alpha", "alpha", "beta"}}, {{10, 10, 11}},
       {false}, 5, {}},
      {"nulls never reach the store", true, false, {{"\x80", 3}}, 1, {{"\x80", "x", "\x80"}},
       {{kNull, 10, kNull}}, {true}, 1, {{"x", 10}, {"\x80", 3}}},
  };
  // clang-format on
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    TempDir dir;
    DictStore store;
    if (c.open) MakeStore(dir, c.stored, &store);
    KHash table(0, c.hashes_nulls);
    table.SetPendingCount(c.pending);
    unsigned next = 10;
    for (size_t k = 0; k < c.chunks.size(); ++k) {
      std::vector<std::string> rows = c.chunks[k];
      std::vector<char*> values;
      for (std::string& r : rows) values.push_back(r.data());
      std::vector<unsigned> codes(rows.size()), new_codes(rows.size());
      std::vector<char*> new_values(rows.size());
      uint64_t new_count = 0;
      const uintmax_t log_before = c.open ? LogBytes(dir) : 0;
      table.EncodeChunk(values.data(), next, codes.data(), rows.size(), new_values.data(),
                        new_codes.data(), &new_count, kNull, const_cast<char*>("\x80"), &store);
      EXPECT_EQ(codes, c.codes[k]) << "chunk " << k;
      if (c.open) {
        EXPECT_EQ(LogBytes(dir) != log_before, c.batches[k]) << "chunk " << k;
      }
      for (uint64_t j = 0; j < new_count; ++j) EXPECT_EQ(new_codes[j], next + j);
      next += new_count;
    }
    EXPECT_EQ(table.PendingCount(), c.pending_after);
    if (c.open) {
      EXPECT_EQ(ReadAll(&store), c.stored_after);
    }
  }
}

}  // namespace
}  // namespace qopci
