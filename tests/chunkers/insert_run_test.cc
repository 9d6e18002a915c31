// InsertRun must leave every chunker exactly as the same values inserted one by one with
// InsertValue would: chunk bytes, chunk boundaries, nils and statistics.
#include <corvid/gdk.h>
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "chunkers/decimal_chunker.h"
#include "chunkers/double_chunker.h"
#include "chunkers/simple_type_chunker.h"
#include "chunkers/timestamp_chunker.h"

namespace qopci {
namespace {

struct Outcome {
  std::vector<std::string> chunks;  // bytes of every chunk handed out
  bool sorted, key, no_nil;
  uint64_t count;
};

template <typename T>
bool BytesOf(BATChunk* c, std::string* out) {
  auto* s = dynamic_cast<SimpleTypeChunk<T>*>(c);
  if (s != nullptr) out->assign(reinterpret_cast<const char*>(s->buffer_), c->GetSize());
  return s != nullptr;
}

std::string Bytes(BATChunk* c) {
  std::string out;
  BytesOf<char>(c, &out) || BytesOf<int>(c, &out) || BytesOf<int64_t>(c, &out) ||
      BytesOf<double>(c, &out) || (ADD_FAILURE() << "unexpected chunk type", true);
  return out;
}

// A column of n values of T, as the chunkers read it.
struct Source {
  const char* bytes;
  size_t n, stride;
};
template <typename T>
Source Of(const std::vector<T>& v) {
  return {reinterpret_cast<const char*>(v.data()), v.size(), sizeof(T)};
}

// Feeds the source values (of host type `type`) either one by one or in runs of `run`,
// taking the chunk whenever it is full and at the end.
Outcome Feed(ChunkerBase& c, const char* type, const Source& s, size_t run, bool clear_sorted) {
  c.InitCastTable(ATOMindex, ATOMformat, ATOMstrConvert, GDKfree);
  if (clear_sorted) c.ClearSorted();  // the key flag alone goes on counting
  const void* nil = ATOMnil(ATOMindex(type));
  Outcome out;
  auto take = [&] {
    std::unique_ptr<BATChunk> chunk(c.TakeChunk());
    out.chunks.push_back(Bytes(chunk.get()));
  };
  for (size_t i = 0; i < s.n;) {
    const char* p = s.bytes + i * s.stride;
    if (run == 0) {
      c.InsertValue(p, type, std::memcmp(p, nil, s.stride) == 0);
      i++;
    } else {
      i += c.InsertRun(p, type, std::min(run, s.n - i), s.stride, nil);
    }
    if (c.IsChunkFull() || i == s.n) take();
  }
  out.sorted = c.IsSorted();
  out.key = c.IsKey();
  out.no_nil = c.HasNoNils();
  out.count = c.GetValueCount();
  return out;
}

// 1000 ascending values, then a repeat at 517 and a nil at 800: long runs go through the
// vectorised loops.
template <typename T>
std::vector<T> LongRun(T step, T nil) {
  std::vector<T> v(1000);
  for (size_t i = 0; i < v.size(); i++) v[i] = static_cast<T>(i) * step;
  v[517] = v[516];
  v[800] = nil;
  return v;
}

TEST(InsertRunTest, SameAsValueByValue) {
  const std::vector<int> ints = {1, 2, int_nil, 3, 3, 7, -5, 0, 9, 10, 11};
  const std::vector<lng> lngs = {0, 5, lng_nil, 1LL << 40, 2, 0, 3};
  const std::vector<dbl> dbls = {0.5, dbl_nil, 2.5, -1.0, 3.0};
  const auto long_ints = LongRun(3, int_nil);
  const auto long_lngs = LongRun(lng{3} << 33, lng_nil);
  const auto long_dbls = LongRun(0.25, dbl_nil);
  const auto long_small_lngs = LongRun(lng{3}, lng_nil);
  const std::vector<oid> oids = {1, oid_nil, 0xFFFFFFFFu, 5, 5, 6};
  struct Case {
    std::string name;
    std::function<ChunkerBase*()> make;
    const char* type;
    Source src;
  };
  const std::vector<Case> cases = {
      {"int", [] { return new SimpleTypeChunker<int>(4); }, "int", Of(ints)},
      {"int from int into lng", [] { return new SimpleTypeChunker<int64_t>(3); }, "int", Of(ints)},
      {"lng", [] { return new SimpleTypeChunker<int64_t>(3); }, "lng", Of(lngs)},
      {"timestamp (0 is nil)", [] { return new TimestampChunker(2); }, "timestamp", Of(lngs)},
      {"double", [] { return new DoubleChunker(2); }, "dbl", Of(dbls)},
      {"generic double nil", [] { return new SimpleTypeChunker<double>(2); }, "dbl", Of(dbls)},
      {"decimal", [] { return new DecimalChunker(4, 9); }, "lng", Of(lngs)},
      {"long int", [] { return new SimpleTypeChunker<int>(333); }, "int", Of(long_ints)},
      {"long lng", [] { return new SimpleTypeChunker<int64_t>(333); }, "lng", Of(long_lngs)},
      {"long double", [] { return new DoubleChunker(333); }, "dbl", Of(long_dbls)},
      // Integers of another width: converted in runs, cut or extended as one by one.
      {"lng cut to int", [] { return new SimpleTypeChunker<int>(3); }, "lng", Of(lngs)},
      {"lng cut to char", [] { return new SimpleTypeChunker<char>(4); }, "lng", Of(lngs)},
      {"long lng into int", [] { return new SimpleTypeChunker<int>(333); }, "lng",
       Of(long_small_lngs)},
      {"oid into lng", [] { return new SimpleTypeChunker<int64_t>(4); }, "oid", Of(oids)},
  };
  for (const Case& c : cases) {
    for (size_t run : {1, 2, 5, 100, 1000}) {
      SCOPED_TRACE(c.name + ", runs of " + std::to_string(run));
      for (bool clear_sorted : {false, true}) {
        std::unique_ptr<ChunkerBase> one(c.make()), many(c.make());
        Outcome a = Feed(*one, c.type, c.src, 0, clear_sorted);
        Outcome b = Feed(*many, c.type, c.src, run, clear_sorted);
        EXPECT_EQ(a.chunks, b.chunks);
        EXPECT_EQ(a.sorted, b.sorted);
        EXPECT_EQ(a.key, b.key);
        EXPECT_EQ(a.no_nil, b.no_nil);
        EXPECT_EQ(a.count, b.count);
        auto steps = [](ChunkerBase& x) {
          auto* ints = dynamic_cast<Chunker<int>*>(&x);
          return ints != nullptr ? ints->AscendingSteps() : 0u;
        };
        EXPECT_EQ(steps(*one), steps(*many));
      }
    }
  }
}

}  // namespace
}  // namespace qopci
