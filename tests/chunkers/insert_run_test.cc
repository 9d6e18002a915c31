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

// Feeds n source values (stride bytes each, of host type `type`) either one by one or in
// runs of `run`, taking the chunk whenever it is full and at the end.
Outcome Feed(ChunkerBase& c, const char* type, const char* src, size_t n, size_t stride,
             size_t run, bool clear_sorted = false) {
  c.InitCastTable(ATOMindex, ATOMformat, ATOMstrConvert, GDKfree);
  if (clear_sorted) c.ClearSorted();  // the key flag alone goes on counting
  const void* nil = ATOMnil(ATOMindex(type));
  Outcome out;
  auto take = [&] {
    std::unique_ptr<BATChunk> chunk(c.TakeChunk());
    out.chunks.push_back(Bytes(chunk.get()));
  };
  size_t i = 0;
  while (i < n) {
    if (run == 0) {
      const char* p = src + i * stride;
      c.InsertValue(p, type, std::memcmp(p, nil, stride) == 0);
      i++;
    } else {
      size_t want = std::min(run, n - i);
      i += c.InsertRun(src + i * stride, type, want, stride, nil);
    }
    if (c.IsChunkFull() || i == n) take();
  }
  out.sorted = c.IsSorted();
  out.key = c.IsKey();
  out.no_nil = c.HasNoNils();
  out.count = c.GetValueCount();
  return out;
}

TEST(InsertRunTest, SameAsValueByValue) {
  const std::vector<int> ints = {1, 2, int_nil, 3, 3, 7, -5, 0, 9, 10, 11};
  const std::vector<lng> lngs = {0, 5, lng_nil, 1LL << 40, 2, 0, 3};
  const std::vector<dbl> dbls = {0.5, dbl_nil, 2.5, -1.0, 3.0};
  // Long runs go through the vectorised loops: ascending, then a repeat, then a nil.
  std::vector<int> long_ints(1000);
  std::vector<lng> long_lngs(1000);
  std::vector<dbl> long_dbls(1000);
  for (size_t i = 0; i < 1000; i++) {
    long_ints[i] = static_cast<int>(3 * i);
    long_lngs[i] = static_cast<lng>(3 * i) << 33;
    long_dbls[i] = 0.25 * static_cast<dbl>(i);
  }
  long_ints[517] = long_ints[516];
  long_lngs[517] = long_lngs[516];
  long_dbls[517] = long_dbls[516];
  long_ints[800] = int_nil;
  long_lngs[800] = lng_nil;
  long_dbls[800] = dbl_nil;
  struct Case {
    std::string name;
    std::function<ChunkerBase*()> make;
    const char* type;
    const char* src;
    size_t n, stride;
  };
  const std::vector<Case> cases = {
      {"int", [] { return new SimpleTypeChunker<int>(4); }, "int",
       reinterpret_cast<const char*>(ints.data()), ints.size(), 4},
      {"int from int into lng", [] { return new SimpleTypeChunker<int64_t>(3); }, "int",
       reinterpret_cast<const char*>(ints.data()), ints.size(), 4},
      {"lng", [] { return new SimpleTypeChunker<int64_t>(3); }, "lng",
       reinterpret_cast<const char*>(lngs.data()), lngs.size(), 8},
      {"timestamp (0 is nil)", [] { return new TimestampChunker(2); }, "timestamp",
       reinterpret_cast<const char*>(lngs.data()), lngs.size(), 8},
      {"double", [] { return new DoubleChunker(2); }, "dbl",
       reinterpret_cast<const char*>(dbls.data()), dbls.size(), 8},
      {"generic double nil", [] { return new SimpleTypeChunker<double>(2); }, "dbl",
       reinterpret_cast<const char*>(dbls.data()), dbls.size(), 8},
      {"decimal", [] { return new DecimalChunker(4, 9); }, "lng",
       reinterpret_cast<const char*>(lngs.data()), lngs.size(), 8},
      {"long int", [] { return new SimpleTypeChunker<int>(333); }, "int",
       reinterpret_cast<const char*>(long_ints.data()), long_ints.size(), 4},
      {"long lng", [] { return new SimpleTypeChunker<int64_t>(333); }, "lng",
       reinterpret_cast<const char*>(long_lngs.data()), long_lngs.size(), 8},
      {"long double", [] { return new DoubleChunker(333); }, "dbl",
       reinterpret_cast<const char*>(long_dbls.data()), long_dbls.size(), 8},
  };
  for (const Case& c : cases) {
    for (size_t run : {1, 2, 5, 100, 1000}) {
      SCOPED_TRACE(c.name + ", runs of " + std::to_string(run));
      for (bool clear_sorted : {false, true}) {
        std::unique_ptr<ChunkerBase> one(c.make()), many(c.make());
        Outcome a = Feed(*one, c.type, c.src, c.n, c.stride, 0, clear_sorted);
        Outcome b = Feed(*many, c.type, c.src, c.n, c.stride, run, clear_sorted);
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
