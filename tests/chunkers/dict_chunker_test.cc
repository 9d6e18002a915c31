// Dictionary chunkers: codes in first-seen order across chunks, the reload from existing
// files, nils both ways, char codes wrapping, runs coded as value by value, and the string
// dictionary with its key heap and its persistent store.
#include "chunkers/dict_chunker.h"

#include <corvid/gdk.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cfloat>
#include <cstring>
#include <list>
#include <memory>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "chunkers/string_dict_chunker.h"
#include "dictionaries/dict_store.h"
#include "tests/support/temp_dir.h"
#include "writers/string_writer.h"

namespace qopci {
namespace {

using qopci_test::TempDir;
using qopci_test::WriteFile;

template <typename T>
std::vector<T> Values(BATChunk* member) {
  auto* c = dynamic_cast<SimpleTypeChunk<T>*>(member);
  EXPECT_TRUE(c != nullptr && c->GetSize() == c->count_ * sizeof(T));
  return c ? std::vector<T>(c->buffer_, c->buffer_ + c->count_) : std::vector<T>{};
}

template <typename T>
std::string Bytes(const std::vector<T>& v) {
  return std::string(reinterpret_cast<const char*>(v.data()), v.size() * sizeof(T));
}

// One handed-out chunk: new keys, their codes, row codes (keys_chunk keeps a string key
// chunk for writing; for strings `keys` are its full tail values).
template <typename K, typename C>
struct Streams {
  std::vector<K> keys;
  std::vector<C> key_codes, rows;
  std::unique_ptr<BATChunk> keys_chunk;
  bool operator==(const Streams& o) const {
    return keys == o.keys && key_codes == o.key_codes && rows == o.rows;
  }
};

template <typename K, typename C, typename KV>
Streams<K, C> Take(ChunkerBase& chunker) {
  std::unique_ptr<BATChunk> chunk(chunker.TakeChunk());
  auto* kv = dynamic_cast<KV*>(chunk.get());
  if (kv == nullptr) return ADD_FAILURE() << "not a KeyValueChunk", Streams<K, C>{};
  EXPECT_EQ(kv->GetPartCount(), 3);
  std::unique_ptr<BATChunk> a(kv->keys_), b(kv->key_codes_), c(kv->codes_);
  auto* s = dynamic_cast<StringChunk*>(a.get());
  return {Values<K>(s ? s->offsets_[3] : a.get()), Values<C>(b.get()), Values<C>(c.get()),
          std::move(a)};
}

template <typename D>
auto TakeFixed(D& c) {
  return Take<typename D::KeyType, typename D::CodeType, KeyValueChunk<int>>(c);
}
auto TakeStrings(StringDictChunker& c) {
  return Take<uint32_t, unsigned, KeyValueChunk<unsigned>>(c);
}

template <typename D>
class DictChunkerTest : public ::testing::Test {};
using Instances =
    ::testing::Types<SimpleTypeDictChunker<char, char, char>,
                     SimpleTypeDictChunker<short, short, short>,
                     SimpleTypeDictChunker<int, int, int>,
                     SimpleTypeDictChunker<int64_t, unsigned, unsigned>, DoubleDictChunker>;
TYPED_TEST_SUITE(DictChunkerTest, Instances);

TYPED_TEST(DictChunkerTest, CodesInFirstSeenOrderAcrossChunksAndAfterAReload) {
  using K = typename TypeParam::KeyType;
  using C = typename TypeParam::CodeType;
  TypeParam c(10, false);
  std::list<ChunkerBase*> members;
  c.AddToList(members);
  EXPECT_EQ(members,
            (std::list<ChunkerBase*>{&c.KeyChunker(), &c.NewCodeChunker(), &c.RowCodeChunker()}));
  EXPECT_TRUE(c.NewCodeChunker().IsDictCodes());
  EXPECT_EQ(c.GetCodeSize(), static_cast<int32_t>(sizeof(C)));
  K first[] = {7, 7, 9};
  ASSERT_TRUE(c.InsertVals(first, 3));
  EXPECT_EQ(TakeFixed(c), (Streams<K, C>{{7, 9}, {1, 2}, {1, 1, 2}}));
  ASSERT_TRUE(c.InsertVal(9) && c.InsertVal(11));
  C code = 0;
  EXPECT_TRUE(c.LookupCode(11, &code) && code == 3);
  EXPECT_EQ(TakeFixed(c), (Streams<K, C>{{11}, {3}, {2, 3}}));
  EXPECT_TRUE(c.AddEntry(20, 4));
  EXPECT_FALSE(c.AddEntry(20, 5));  // already in the dictionary: nothing stored
  EXPECT_EQ(TakeFixed(c), (Streams<K, C>{{20}, {4}, {4}}));
  EXPECT_EQ(c.GetValueCount(), 6u);
  EXPECT_TRUE(c.IsSorted() && !c.IsKey());  // the code stream 1 1 2 2 3 4

  TempDir dir;
  const std::string keys = WriteFile(dir.path() + "/k", Bytes(std::vector<K>{10, 20, 30, 40, 50}));
  const std::string codes = WriteFile(dir.path() + "/c", Bytes(std::vector<C>{1, 2, 3, 4, 5}));
  TypeParam d(10, false);
  ASSERT_TRUE(d.LoadDictionary(keys.c_str(), nullptr, codes.c_str(), 5)) << d.LastLoadReport();
  EXPECT_EQ(d.GetDictionarySize(), 5u);
  K batch[] = {30, 60, 10};
  ASSERT_TRUE(d.InsertVals(batch, 3));
  EXPECT_EQ(TakeFixed(d), (Streams<K, C>{{60}, {6}, {3, 6, 1}}));
}

TYPED_TEST(DictChunkerTest, NilGetsTheNilCodeOrTheNextCode) {
  using K = typename TypeParam::KeyType;
  using C = typename TypeParam::CodeType;
  const int source = 0;
  for (bool nil_as_key : {false, true}) {
    SCOPED_TRACE(nil_as_key);
    TypeParam c(10, nil_as_key);
    c.InitCastTable(ATOMindex, ATOMformat, ATOMstrConvert, GDKfree);
    const K nil = *c.GetNilValue();
    ASSERT_TRUE(c.InsertVal(7) && c.InsertNil() && c.InsertValue(&source, "int", true));
    const C nil_code = nil_as_key ? C{2} : static_cast<C>(uint64_t{1} << (8 * sizeof(C) - 1));
    const std::vector<K> keys = nil_as_key ? std::vector<K>{7, nil} : std::vector<K>{7};
    Streams<K, C> got = TakeFixed(c);
    EXPECT_EQ(Bytes(got.keys), Bytes(keys));
    EXPECT_EQ(got.rows, (std::vector<C>{1, nil_code, nil_code}));
    EXPECT_EQ(c.HasNoNils(), !nil_as_key);
  }
  if constexpr (std::is_same_v<K, double>) {
    EXPECT_EQ(*TypeParam(1, false).GetNilValue(), -DBL_MAX);
  }
}

// 40 rows of host type `type` cycling through 0..12 (plus a half for "dbl"), nils at rows
// 3, 10 and 11.
std::string SourceColumn(const char* type, size_t* stride) {
  const int t = ATOMindex(type);
  *stride = static_cast<size_t>(ATOMsize(t));
  std::string bytes;
  for (int i = 0; i < 40; i++) {
    char slot[8];
    const int64_t v = i * 7 % 13;  // little-endian: its first bytes are the narrower value
    const double d = v + 0.5;
    std::memcpy(slot,
                i == 3 || i == 10 || i == 11 ? ATOMnil(t)
                : t == TYPE_dbl              ? (void*)&d
                                             : &v,
                *stride);
    bytes.append(slot, *stride);
  }
  return bytes;
}

TYPED_TEST(DictChunkerTest, RunsAreCodedAsValueByValue) {
  using S = Streams<typename TypeParam::KeyType, typename TypeParam::CodeType>;
  for (const char* type : {"bte", "int", "lng", "dbl"}) {
    for (bool nil_as_key : {false, true}) {
      SCOPED_TRACE(std::string(type) + (nil_as_key ? ", nil as key" : ""));
      size_t stride;
      const std::string src = SourceColumn(type, &stride);
      const void* nil = ATOMnil(ATOMindex(type));
      const size_t n = src.size() / stride;
      auto feed = [&](size_t run) {
        TypeParam c(7, nil_as_key);
        c.InitCastTable(ATOMindex, ATOMformat, ATOMstrConvert, GDKfree);
        std::vector<S> chunks;
        for (size_t i = 0; i < n;) {
          const char* p = src.data() + i * stride;
          if (run == 0) {
            c.InsertValue(p, type, std::memcmp(p, nil, stride) == 0);
            i++;
          } else {
            i += c.InsertRun(p, type, std::min(run, n - i), stride, nil);
          }
          if (c.IsChunkFull() || i == n) chunks.push_back(TakeFixed(c));
        }
        return std::make_tuple(std::move(chunks), c.HasNoNils(), c.IsSorted(), c.IsKey(),
                               c.GetValueCount(), c.GetDictionarySize());
      };
      const auto one = feed(0);
      EXPECT_EQ(std::get<0>(one).size(), 6u);
      EXPECT_EQ(std::get<1>(one), !nil_as_key);
      for (size_t run : {1, 5, 40}) EXPECT_EQ(feed(run), one) << "runs of " << run;
    }
  }
}

TEST(DictChunkerTest, CharCodesWrapAtThe128thKeyAndFailedLoadsSayWhy) {
  SimpleTypeDictChunker<char, char, char> c(200, false);
  for (int v = -127; v <= 1; v++) ASSERT_TRUE(c.InsertVal(static_cast<char>(v)));  // no nil
  const std::vector<char> rows = TakeFixed(c).rows;
  ASSERT_EQ(rows.size(), 129u);
  EXPECT_EQ(std::vector<char>(rows.begin() + 126, rows.end()),
            (std::vector<char>{127, -128, -127}));

  TempDir dir;
  const std::string dup = WriteFile(dir.path() + "/k", Bytes(std::vector<int>{4, 5, 4}));
  const std::string codes = WriteFile(dir.path() + "/c", Bytes(std::vector<int>{1, 2, 3}));
  const std::string none = dir.path() + "/none";
  struct {
    const std::string &keys, &codes;
    uint64_t count;
    const char* says;  // part of the report; null: the load succeeds
  } cases[] = {{none, none, 0, nullptr},
               {dup, codes, 3, "Failed to insert pair to hash."},
               {dup, none, 2, "Failed to init valReader."},
               {none, codes, 2, "Failed to init keyReader."}};
  for (const auto& k : cases) {
    SimpleTypeDictChunker<int, int, int> d(4, false);
    EXPECT_EQ(d.LoadDictionary(k.keys.c_str(), nullptr, k.codes.c_str(), k.count), !k.says);
    EXPECT_NE(std::string(d.LastLoadReport()).find(k.says ? k.says : ""), std::string::npos)
        << d.LastLoadReport();
  }
}

TEST(StringDictChunkerTest, CodesStringsAndNilsWritingEachNewKeyOnce) {
  const char* rows[] = {"b", "a", "b", "", nullptr, "a"};  // null: a nil row
  for (bool nil_as_key : {false, true}) {
    SCOPED_TRACE(nil_as_key);
    StringDictChunker c(10, 20, nullptr, 0, 16, "", nil_as_key);
    c.InitCastTable(ATOMindex, ATOMformat, ATOMstrConvert, GDKfree);
    for (const char* s : rows) ASSERT_TRUE(c.InsertValue(s ? s : "", "str", !s));
    ASSERT_TRUE(c.InsertNil());
    const unsigned nil = nil_as_key ? 4 : 0x80000000u;
    // "b", "a", "" and the nil string, each stored once after the heap's hash area.
    std::vector<uint32_t> keys = {258, 260, 262, 264};
    std::vector<unsigned> codes = {1, 2, 3, 4};
    keys.resize(nil_as_key ? 4 : 3);
    codes.resize(keys.size());
    EXPECT_EQ(TakeStrings(c),
              (Streams<uint32_t, unsigned>{keys, codes, {1, 2, 1, 3, nil, 2, nil}, {}}));
    EXPECT_EQ(c.HasNoNils(), !nil_as_key);
    EXPECT_EQ(c.GetCodeSize(), 1);
  }
}

TEST(StringDictChunkerTest, ReloadFromTheKeyFilesAndCodeThroughTheStore) {
  TempDir dir;
  const std::string heap = dir.path() + "/heap", tail = dir.path() + "/tail",
                    codes = dir.path() + "/codes", store_dir = dir.path() + "/store";
  char* fruit[] = {const_cast<char*>("pear"), const_cast<char*>("fig"), const_cast<char*>("apple"),
                   const_cast<char*>("fig")};
  {
    StringDictChunker first(10, 20, nullptr, 0, 16, "", false);
    ASSERT_TRUE(first.InsertVals(fruit, 3));
    auto got = TakeStrings(first);
    WriteFile(codes, Bytes(got.key_codes));
    StringWriter writer(heap.c_str(), tail.c_str(), false, 0, 0);
    ASSERT_TRUE(writer.Open() && writer.WriteChunk(got.keys_chunk.release()));
    ASSERT_TRUE(writer.Close());
    StringDictChunker c(10, 20, heap.c_str(), writer.GetHeapSize(), 16, "", false);
    ASSERT_TRUE(c.LoadDictionary(tail.c_str(), heap.c_str(), codes.c_str(), 3))
        << c.LastLoadReport();
    char* more[] = {fruit[2], const_cast<char*>("kiwi"), fruit[0]};
    ASSERT_TRUE(c.InsertVals(more, 3));
    EXPECT_EQ(TakeStrings(c).key_codes, (std::vector<unsigned>{4}));
  }
  std::string error;
  DictStore store;
  ASSERT_TRUE(CreateDictStore(store_dir.c_str(), &error)) << error;
  ASSERT_TRUE(store.Open(store_dir.c_str()) && DictStorePut(&store, "apple", 1, &error) &&
              DictStorePut(&store, "pear", 2, &error))
      << error;
  store.Close();
  {
    StringDictChunker c(10, 20, nullptr, 0, 16, store_dir.c_str(), false);
    EXPECT_FALSE(c.OpenStore((dir.path() + "/none").c_str(), 2) || c.IsStoreOpen());
    ASSERT_TRUE(c.OpenStore(store_dir.c_str(), 2));
    EXPECT_EQ(c.GetDictionarySize(), 2u);
    ASSERT_TRUE(c.InsertVals(fruit, 4));
    auto got = TakeStrings(c);
    EXPECT_EQ(got.key_codes, (std::vector<unsigned>{3}));  // fig
    EXPECT_EQ(got.rows, (std::vector<unsigned>{2, 3, 1, 3}));
  }  // closes the store
  std::vector<std::pair<std::string, uint32_t>> entries;
  ASSERT_TRUE(store.Open(store_dir.c_str()) && DictStoreForEach(
                                                   &store,
                                                   [&](std::string_view key, uint32_t code) {
                                                     entries.emplace_back(key, code);
                                                     return true;
                                                   },
                                                   &error))
      << error;
  EXPECT_EQ(entries, (decltype(entries){{"apple", 1}, {"fig", 3}, {"pear", 2}}));
}

}  // namespace
}  // namespace qopci
