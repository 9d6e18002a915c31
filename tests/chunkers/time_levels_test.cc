// Time-level chunkers: the day-number inverse and the levels of every day from 5000 BC to
// 5000 AD against std::chrono's calendar, the listed timestamps, the statistics, the
// dictionary form, runs against value-by-value inserts, and the reload of a dictionary.
#include <corvid/gdk.h>
#include <corvid/mtime.h>
#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <list>
#include <memory>
#include <random>
#include <string>
#include <type_traits>
#include <vector>

#include "chunkers/calendar.h"
#include "chunkers/time_levels_chunker.h"
#include "chunkers/timestamp_dict_chunker.h"
#include "tests/support/temp_dir.h"

namespace qopci {
namespace {

namespace chr = std::chrono;
using qopci_test::TempDir;
using qopci_test::WriteFile;

constexpr int64_t kNil = INT64_MIN;
constexpr int32_t kIntNil = INT32_MIN;

// The day number of an astronomical date (0 is 1 BC), counted by chrono: one a day without
// a gap, except that 1 BC is shifted up by one.
int32_t ChronoDays(const chr::year_month_day& ymd) {
  const int64_t z = chr::sys_days(ymd).time_since_epoch().count();
  return static_cast<int32_t>(z + 719528 + (int(ymd.year()) == 0 ? 1 : 0));
}
int OurYear(int astronomical) { return astronomical <= 0 ? astronomical - 1 : astronomical; }
chr::year_month_day Ymd(int astronomical, unsigned m, unsigned d) {
  return chr::year{astronomical} / chr::month{m} / chr::day{d};
}
// The timestamp whose day field is that of the date and whose low word is ms.
int64_t At(int year, int month, int day, int64_t ms) {
  return static_cast<int64_t>(static_cast<uint64_t>(Midnight(cvd_date_days(year, month, day))) |
                              static_cast<uint32_t>(ms));
}

// Every elementary chunk of a handed-out chunk, in member order, as bytes; deletes it all.
void Flatten(BATChunk* c, std::vector<std::string>* out) {
  if (c == nullptr) return;
  if (auto* t = dynamic_cast<TesselTimestampChunk*>(c)) {
    for (BATChunk* m : t->members_) Flatten(m, out);
  } else if (auto* l = dynamic_cast<TesselTimeLevelsChunk*>(c)) {
    for (BATChunk* m : l->members_) Flatten(m, out);
  } else if (auto* i = dynamic_cast<SimpleTypeChunk<int>*>(c)) {
    out->emplace_back(reinterpret_cast<char*>(i->buffer_), i->GetSize());
  } else if (auto* w = dynamic_cast<SimpleTypeChunk<int64_t>*>(c)) {
    out->emplace_back(reinterpret_cast<char*>(w->buffer_), w->GetSize());
  } else {
    ADD_FAILURE() << "unexpected chunk";
  }
  delete c;
}
std::vector<std::string> Take(ChunkerBase& c) {
  std::vector<std::string> out;
  Flatten(c.TakeChunk(), &out);
  return out;
}
template <typename T>
std::string Bytes(const std::vector<T>& v) {
  return std::string(reinterpret_cast<const char*>(v.data()), v.size() * sizeof(T));
}

// The five level streams expected of a levels chunker.
struct Levels {
  std::vector<int32_t> level;
  std::vector<int64_t> starts[4];
  void Add(int32_t l, int64_t y, int64_t q, int64_t m, int64_t d) {
    level.push_back(l);
    for (int i = 0; i < 4; i++) starts[i].push_back(i == 0 ? y : i == 1 ? q : i == 2 ? m : d);
  }
  std::vector<std::string> Files() const {
    std::vector<std::string> f{Bytes(level)};
    for (const auto& s : starts) f.push_back(Bytes(s));
    return f;
  }
};

TEST(CalendarTest, EveryDayFrom5000BCTo5000ADAgainstChrono) {
  const chr::sys_days first(Ymd(-4999, 1, 1)), last(Ymd(5000, 12, 31));
  constexpr int32_t kChunk = 4096;
  TesselTimeLevelsChunker chunker(kChunk);
  Levels want;
  auto check = [&] {
    ASSERT_EQ(Take(chunker), want.Files());
    want = Levels();
  };
  for (chr::sys_days day = first; day <= last; day += chr::days{1}) {
    const chr::year_month_day ymd(day);
    const int a = int(ymd.year()), m = int(unsigned(ymd.month())), d = int(unsigned(ymd.day()));
    const int year = OurYear(a);
    const int32_t days = ChronoDays(ymd);
    ASSERT_EQ(cvd_date_days(year, m, d), days) << year << "-" << m << "-" << d;
    const CivilDate split = SplitDayNumber(days);
    // 31 December 1 BC shares its day number with 1 January 1 AD, which is what it splits to.
    const bool shared = a == 0 && m == 12 && d == 31;
    ASSERT_EQ(split.year, shared ? 1 : year) << days;
    ASSERT_EQ(split.month, shared ? 1 : m) << days;
    ASSERT_EQ(split.day, shared ? 1 : d) << days;
    if (shared) continue;
    const uint32_t level = ((uint32_t(year) * 100 + m) * 100 + d) * 100 + 14;
    const int qm = (m - 1) / 3 * 3 + 1;
    want.Add(int32_t(level), Midnight(ChronoDays(Ymd(a, 1, 1))),
             Midnight(ChronoDays(Ymd(a, qm, 1))), Midnight(ChronoDays(Ymd(a, m, 1))),
             Midnight(days));
    ASSERT_TRUE(chunker.InsertTimestamp(cvd_timestamp(days, 14 * 3600000 + 1800000)));
    if (chunker.IsChunkFull()) check();
  }
  check();
}

TEST(CalendarTest, DayNumbersWithoutADateAndTheHostsSplit) {
  const int32_t top = cvd_date_days(CVD_YEAR_MAX, 12, 31);
  const int32_t bottom = cvd_date_days(CVD_YEAR_MIN, 1, 1);
  struct Case {
    int32_t days;
    CivilDate want;
  } cases[] = {{top, {CVD_YEAR_MAX, 12, 31}},
               {top + 1, {}},
               {INT32_MAX, {}},
               {bottom, {CVD_YEAR_MIN, 1, 1}},
               {bottom - 1, {}},
               {CVD_DAY_NIL, {}},
               {0, {}},
               {1, {-1, 1, 1}},
               {365, {-1, 12, 30}},
               {366, {1, 1, 1}}};
  for (const Case& c : cases) {
    const CivilDate got = SplitDayNumber(c.days);
    EXPECT_EQ(got.year, c.want.year) << c.days;
    EXPECT_EQ(got.month, c.want.month) << c.days;
    EXPECT_EQ(got.day, c.want.day) << c.days;
  }
  // The host's slow split agrees wherever a date has the day number.
  std::mt19937 rng(7);
  std::uniform_int_distribution<int32_t> any(bottom, top);
  for (int i = 0; i < 20000; i++) {
    const int32_t days = any(rng);
    if (days == 0) continue;
    int y = 0, m = 0, d = 0;
    ASSERT_EQ(cvd_date_from_days(days, &y, &m, &d), 0);
    const CivilDate got = SplitDayNumber(days);
    ASSERT_TRUE(got.year == y && got.month == m && got.day == d) << days;
  }
}

TEST(TimeLevelsChunkerTest, LevelsOfListedTimestamps) {
  const int64_t h = 3600000;
  struct Case {
    const char* what;
    int64_t t;
    int32_t level;      // kIntNil with nil starts for a nil row
    int ymd[3], q, qm;  // the date of the starts and its quarter's first month
  } cases[] = {
      {"2013-05-17 14:30", At(2013, 5, 17, 14 * h + 30 * 60000), 2013051714, {2013, 5, 17}, 2, 4},
      {"nil milliseconds",
       Midnight(cvd_date_days(2013, 5, 17)) | 0x80000000u,
       int32_t(uint32_t(2013051700) + 0x80000000u),
       {2013, 5, 17},
       2,
       4},
      {"leap day 2000", At(2000, 2, 29, 24 * h - 1), 2000022923, {2000, 2, 29}, 1, 1},
      {"1900 is no leap year", At(1900, 3, 1, 0), 1900030100, {1900, 3, 1}, 1, 1},
      {"leap day 2012 14h", At(2012, 2, 29, 14 * h), 2012022914, {2012, 2, 29}, 1, 1},
      {"year 2148 wraps", At(2148, 1, 1, 0), int32_t(2148010100u), {2148, 1, 1}, 1, 1},
      {"44 BC", At(-44, 3, 15, 12 * h), -43968488, {-44, 3, 15}, 1, 1},
      {"negative time truncates",
       At(2013, 12, 31, -2 * h - 1),
       2013123100 - 2,
       {2013, 12, 31},
       4,
       10},
      {"timestamp 0", 0, kIntNil, {}, 0, 0},
      {"the timestamp nil", kNil, kIntNil, {}, 0, 0},
      {"day number 0", 5, kIntNil, {}, 0, 0},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    TesselTimeLevelsChunker chunker(4);
    ASSERT_EQ(chunker.LevelNumberOf(c.t), c.level);
    ASSERT_TRUE(chunker.InsertTimestamp(c.t));
    Levels want;
    if (c.level == kIntNil && c.ymd[0] == 0) {
      want.Add(kIntNil, kNil, kNil, kNil, kNil);
    } else {
      const int y = c.ymd[0];
      EXPECT_EQ((c.ymd[1] - 1) / 3 + 1, c.q);
      want.Add(c.level, Midnight(cvd_date_days(y, 1, 1)), Midnight(cvd_date_days(y, c.qm, 1)),
               Midnight(cvd_date_days(y, c.ymd[1], 1)),
               Midnight(cvd_date_days(y, c.ymd[1], c.ymd[2])));
    }
    std::list<ChunkerBase*> files;
    chunker.AddToList(files);
    ASSERT_EQ(files.size(), 5u);
    for (ChunkerBase* f : files) EXPECT_EQ(f->HasNoNils(), c.ymd[0] != 0);
    EXPECT_EQ(Take(chunker), want.Files());
  }
}

TEST(TimeLevelsChunkerTest, StatisticsOfTheLevelStreamAndTheTimestamps) {
  const int64_t h = 3600000;
  const int64_t d1 = At(2013, 5, 17, 0), d2 = At(2013, 5, 18, 0);
  struct Case {
    std::vector<int64_t> t;
    bool sorted, key;
    uint32_t level_steps;
    int64_t min, max;  // of the timestamp chunker; 0, 0 when it saw none
  } cases[] = {
      {{d1 + 14 * h, d1 + 14 * h + 1, d1 + 15 * h}, true, false, 0, d1 + 14 * h, d1 + 15 * h},
      {{d1, d2, d1 + 23 * h}, false, false, 1, d1, d2},
      {{0, d1, kNil, d2}, false, false, 1, d1, d2},
      {{d1 + h, d2, d2 + 23 * h}, true, true, 2, d1 + h, d2 + 23 * h},
      {{0, kNil}, true, false, 0, 0, 0},
  };
  for (const Case& c : cases) {
    TesselTimestampChunker chunker(8);
    for (int64_t t : c.t) ASSERT_TRUE(chunker.InsertVal(t));
    TesselTimeLevelsChunker& levels = chunker.Levels();
    EXPECT_EQ(levels.IsSorted(), c.sorted) << c.t.size();
    EXPECT_EQ(levels.IsKey(), c.key);
    EXPECT_EQ(levels.AscendingSteps(), c.level_steps);
    EXPECT_EQ(chunker.HasExtremes(), c.min != 0);
    if (chunker.HasExtremes()) {
      EXPECT_EQ(chunker.Minimum(), c.min);
      EXPECT_EQ(chunker.Maximum(), c.max);
    }
    EXPECT_EQ(chunker.GetValueCount(), c.t.size());
  }
  // A date-time insert meets itself: the key flag is gone after the first.
  TesselTimestampChunker chunker(4);
  ASSERT_TRUE(chunker.InsertDateTime(2013, 5, 17, 14, 30, 0, 0));
  EXPECT_TRUE(chunker.IsSorted());
  EXPECT_FALSE(chunker.IsKey());
  EXPECT_TRUE(chunker.Timestamps().IsKey());
  ASSERT_TRUE(chunker.InsertDateTime(2013, 5, 17, 24, 0, 0, 0));  // nil time: day field - 1
  EXPECT_EQ(chunker.Minimum(), Midnight(cvd_date_days(2013, 5, 16)) | 0x80000000u);
}

TEST(TimestampChunkerTest, ChunkAndDescriptionsPairWithTheSixFiles) {
  TesselTimestampChunker chunker(2);
  std::list<ChunkerBase*> files;
  chunker.AddToList(files);
  std::vector<int> widths;
  for (ChunkerBase* f : files) widths.push_back(f->ElementSize());
  EXPECT_EQ(widths, (std::vector<int>{8, 4, 8, 8, 8, 8}));
  EXPECT_EQ(files.front(), &chunker.Timestamps());
  const int64_t t = At(2013, 5, 17, 3600000);
  ASSERT_TRUE(chunker.InsertVal(t) && chunker.InsertVal(0));
  EXPECT_TRUE(chunker.IsChunkFull());
  EXPECT_FALSE(chunker.InsertVal(t)) << "a full chunk stores nothing";
  BATChunk* c = chunker.TakeChunk();
  auto* chunk = dynamic_cast<TesselTimestampChunk*>(c);
  ASSERT_NE(chunk, nullptr);
  EXPECT_EQ(chunk->members_[1], nullptr);
  EXPECT_EQ(chunk->GetPartCount(), 6);
  std::vector<std::string> got;
  Flatten(c, &got);
  ASSERT_EQ(got.size(), 6u);
  EXPECT_EQ(got[0], Bytes(std::vector<int64_t>{t, kNil}));
  EXPECT_EQ(got[1], Bytes(std::vector<int32_t>{2013051701, kIntNil}));
}

TEST(TimestampDictChunkerTest, EachHourIsCodedOnce) {
  const int64_t h = 3600000, d = At(2013, 5, 17, 0);
  TesselTimestampDictChunker chunker(16, false);
  EXPECT_EQ(chunker.GetCodeSize(), 4);
  const std::vector<int64_t> rows = {d + 14 * h, d + 14 * h + 30 * 60000, d + 15 * h + 1,
                                     d + 14 * h + 59 * 60000, d + 16 * h};
  for (int64_t t : rows) ASSERT_TRUE(chunker.InsertVal(t));
  EXPECT_EQ(chunker.GetDictionarySize(), 3u);
  std::list<ChunkerBase*> files;
  chunker.AddToList(files);
  std::vector<int> widths;
  for (ChunkerBase* f : files) widths.push_back(f->ElementSize());
  EXPECT_EQ(widths, (std::vector<int>{4, 8, 8, 8, 8, 4, 8, 4, 8, 8, 8, 8}));

  BATChunk* c = chunker.TakeChunk();
  EXPECT_EQ(c->GetPartCount(), 12);
  std::vector<std::string> got;
  Flatten(c, &got);
  const int64_t midnight = Midnight(cvd_date_days(2013, 5, 17));
  Levels dict, row;
  for (int32_t hour : {14, 15, 16})
    dict.Add(2013051700 + hour, Midnight(cvd_date_days(2013, 1, 1)),
             Midnight(cvd_date_days(2013, 4, 1)), Midnight(cvd_date_days(2013, 5, 1)), midnight);
  for (int32_t hour : {14, 14, 15, 14, 16})
    row.Add(2013051700 + hour, dict.starts[0][0], dict.starts[1][0], dict.starts[2][0], midnight);
  std::vector<std::string> want = row.Files();
  want.insert(want.begin(), Bytes(rows));
  want.insert(want.begin(), Bytes(std::vector<int32_t>{1, 2, 3}));  // ordinals
  const std::vector<std::string> levels = dict.Files();
  want.insert(want.end(), levels.begin(), levels.end());
  // Member order: row timestamps and their levels, ordinals, dictionary levels.
  ASSERT_EQ(got.size(), 12u);
  EXPECT_EQ(std::vector<std::string>(got.begin(), got.begin() + 6),
            std::vector<std::string>(want.begin() + 1, want.begin() + 7));
  EXPECT_EQ(got[6], want[0]);
  EXPECT_EQ(std::vector<std::string>(got.begin() + 7, got.end()),
            std::vector<std::string>(want.begin() + 7, want.end()));
  // The all-ones timestamp is a row but is not stored.
  ASSERT_TRUE(chunker.InsertPair(0, -1));
  EXPECT_EQ(chunker.GetValueCount(), 6u);
  EXPECT_EQ(chunker.Timestamps().GetValueCount(), 5u);
}

// A dictionary is keyed by the level numbers its entries store, so that a dictionary
// reloaded from them finds every key again: a nil row is not an entry unless nil is a key,
// and a row whose given level number differs from what its levels store (a nil time part)
// is keyed by the stored one.
TEST(TimestampDictChunkerTest, KeysAreTheStoredLevelNumbers) {
  const int64_t d = At(2013, 5, 17, 0);
  for (bool nil_as_key : {false, true}) {
    SCOPED_TRACE(nil_as_key);
    TesselTimestampDictChunker chunker(16, nil_as_key);
    ASSERT_TRUE(chunker.InsertVal(kNil) && chunker.InsertVal(0) && chunker.InsertVal(kNil));
    EXPECT_EQ(chunker.GetDictionarySize(), nil_as_key ? 1u : 0u);
    const int64_t stamp = d + 3600000;
    ASSERT_TRUE(chunker.InsertPair(12345, stamp) && chunker.InsertVal(stamp));
    EXPECT_EQ(chunker.GetDictionarySize(), nil_as_key ? 2u : 1u);
    int code;
    EXPECT_TRUE(chunker.Dictionary().Find(2013051701, &code));
    EXPECT_FALSE(chunker.Dictionary().Find(12345, &code));
    EXPECT_EQ(chunker.GetValueCount(), 5u);
  }
}

// Everything a run must leave as value-by-value inserts would: the bytes of every file
// and each file's flags and counts.
struct Outcome {
  std::vector<std::string> files;
  std::vector<std::string> flags;
  bool operator==(const Outcome&) const = default;
};
Outcome Observe(ChunkerBase& c) {
  Outcome o;
  std::list<ChunkerBase*> files;
  c.AddToList(files);
  files.push_front(&c);
  for (ChunkerBase* f : files) {
    std::string s = std::to_string(f->IsSorted()) + std::to_string(f->IsKey()) +
                    std::to_string(f->HasNoNils()) + " " + std::to_string(f->GetValueCount());
    if (auto* i = dynamic_cast<Chunker<int>*>(f)) s += " " + std::to_string(i->AscendingSteps());
    if (auto* w = dynamic_cast<Chunker<int64_t>*>(f))
      s += " " + std::to_string(w->AscendingSteps()) + " " + std::to_string(w->PreviousValue());
    o.flags.push_back(s);
  }
  if (auto* t = dynamic_cast<TesselTimestampChunker*>(&c))
    o.flags.push_back(std::to_string(t->Minimum()) + " " + std::to_string(t->Maximum()));
  o.files = Take(c);
  return o;
}

// Both timestamp chunkers made alike; the dictionary form without nil as a key.
template <typename C>
C* Make(int32_t chunk) {
  if constexpr (std::is_same_v<C, TesselTimestampChunker>)
    return new C(chunk);
  else
    return new C(chunk, false);
}

template <typename C>
class RunTest : public ::testing::Test {};
using RunChunkers = ::testing::Types<TesselTimestampChunker, TesselTimestampDictChunker>;
TYPED_TEST_SUITE(RunTest, RunChunkers);

TYPED_TEST(RunTest, RunsEqualValueByValue) {
  const int64_t h = 3600000, d = At(2013, 1, 1, 0), nil = kNil;
  std::mt19937_64 rng(11);
  std::vector<int64_t> random_days;
  for (int i = 0; i < 300; i++)
    random_days.push_back(cvd_timestamp(int32_t(rng() % 800000) + 366, int32_t(rng() % 86400000)));
  std::vector<int64_t> seconds;
  const int64_t day = int64_t{1} << 32;
  for (int64_t i = 0; i < 300; i++)  // one every 997 s, over four days
    seconds.push_back(d + i * 997000 / (24 * h) * day + i * 997000 % (24 * h));
  struct Case {
    const char* what;
    std::vector<int64_t> values;
    int32_t chunk;
    bool clear_sorted;  // ClearSorted on every file first
  } cases[] = {
      {"ascending over days", seconds, 64, false},
      {"stops at a full chunk", seconds, 7, false},
      {"zeros, nils and day 0", {d, 0, nil, 5, d + h, 0, d + 2 * h, nil, nil}, 4, false},
      {"random days", random_days, 50, false},
      {"key flags alone", seconds, 50, true},
      {"key flags alone, days", {d, d + day, d + day + 1, d + day + h, d + 2 * day}, 50, true},
      {"hours past 23", {d + 25 * h, d + 24 * h, d + 48 * h}, 50, false},
  };
  const char* const types[] = {"timestamp", "lng"};
  for (const Case& c : cases) {
    for (const char* type : types) {
      SCOPED_TRACE(std::string(c.what) + " " + type);
      std::unique_ptr<TypeParam> run_owner(Make<TypeParam>(c.chunk));
      std::unique_ptr<TypeParam> one_owner(Make<TypeParam>(c.chunk));
      TypeParam& run = *run_owner;
      TypeParam& one = *one_owner;
      std::list<ChunkerBase*> all;
      for (TypeParam* x : {&run, &one}) {
        x->InitCastTable(ATOMindex, ATOMformat, ATOMstrConvert, GDKfree);
        if (!c.clear_sorted) continue;
        std::list<ChunkerBase*> files;
        x->AddToList(files);
        for (ChunkerBase* f : files) f->ClearSorted();
      }
      const size_t n = c.values.size();
      size_t done = 0;
      std::vector<Outcome> by_run, by_value;
      while (done < n) {
        const size_t k = run.InsertRun(c.values.data() + done, type, n - done, 8, &nil);
        ASSERT_GT(k, 0u);
        for (size_t i = done; i < done + k; i++) {
          ASSERT_FALSE(one.IsChunkFull());
          one.InsertValue(&c.values[i], type, c.values[i] == nil);
        }
        done += k;
        ASSERT_EQ(run.IsChunkFull(), one.IsChunkFull());
        if (run.IsChunkFull() || done == n) {
          by_run.push_back(Observe(run));
          by_value.push_back(Observe(one));
        }
      }
      EXPECT_EQ(by_run.size(), (n + c.chunk - 1) / c.chunk);
      for (size_t i = 0; i < by_run.size(); i++) {
        EXPECT_EQ(by_run[i].flags, by_value[i].flags) << i;
        EXPECT_TRUE(by_run[i].files == by_value[i].files) << i;
      }
    }
  }
}

TEST(TimestampDictChunkerTest, ReloadsItsDictionaryFromTheLevelAndCodeFiles) {
  TempDir dir;
  const std::vector<int32_t> levels = {2013051714, 2013051715};
  const std::string level_file = WriteFile(dir.path() + "/level", Bytes(levels));
  const std::string code_file = WriteFile(dir.path() + "/codes", Bytes(levels));
  TesselTimestampDictChunker chunker(8, false);
  ASSERT_TRUE(chunker.LoadDictionary(level_file.c_str(), "", code_file.c_str(), 2))
      << chunker.LastLoadReport();
  EXPECT_EQ(chunker.GetDictionarySize(), 2u);
  ASSERT_TRUE(chunker.InsertDateTime(2013, 5, 17, 14, 10, 0, 0));
  ASSERT_TRUE(chunker.InsertDateTime(2013, 5, 17, 16, 0, 0, 0));
  std::vector<std::string> got = Take(chunker);
  ASSERT_EQ(got.size(), 12u);
  EXPECT_EQ(got[6], Bytes(std::vector<int32_t>{3}));
  EXPECT_EQ(got[7], Bytes(std::vector<int32_t>{2013051716}));

  TesselTimestampDictChunker fresh(8, false);
  EXPECT_TRUE(fresh.LoadDictionary(nullptr, nullptr, nullptr, 0));
  EXPECT_FALSE(fresh.LoadDictionary(nullptr, nullptr, code_file.c_str(), 2));
  EXPECT_NE(std::string(fresh.LastLoadReport()), "");
  EXPECT_FALSE(fresh.LoadDictionary((dir.path() + "/none").c_str(), "", code_file.c_str(), 2));
  EXPECT_EQ(fresh.GetDictionarySize(), 0u);
}

}  // namespace
}  // namespace qopci
