// Timestamp columns with time levels, exported through the five C functions: the plain form
// (timestamps and five level BATs) and the dictionary form (a dictionary of hours and, unless
// the column has none, the row part). Every BAT is read back from the reopened farm and
// checked against levels computed here with std::chrono.
#include <chrono>
#include <cstdint>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "corvid/mtime.h"
#include "tests/e2e/e2e_fixture.h"
#include "writers/mmf/mmf_fault.h"

namespace qopci_test {
namespace {

constexpr int32_t kEpochDay = 719528;  // the day number of 1970-01-01
const char* const kLevels[5] = {".level", ".year", ".quarter", ".month", ".day"};

// The five levels of one row.
struct Levels {
  int level;
  lng starts[4];  // year, quarter, month, day at midnight
  bool operator==(const Levels&) const = default;
};

lng Midnight(std::chrono::year_month_day d) {
  const int64_t days = std::chrono::sys_days{d}.time_since_epoch().count() + kEpochDay;
  return static_cast<lng>(static_cast<uint64_t>(days) << 32);
}

// The levels of timestamp t: a nil row for 0 and nil; else the calendar date of its day
// number and the hour of its milliseconds (0x80000000 for nil milliseconds), packed as
// yyyymmddhh in unsigned 32-bit arithmetic.
Levels Expected(lng t) {
  using namespace std::chrono;
  if (t == 0 || t == lng_nil) return {int_nil, {lng_nil, lng_nil, lng_nil, lng_nil}};
  const int32_t msecs = cvd_timestamp_msecs(t);
  const year_month_day ymd{sys_days{days{cvd_timestamp_days(t) - kEpochDay}}};
  const unsigned y = static_cast<unsigned>(static_cast<int>(ymd.year()));
  const unsigned m = static_cast<unsigned>(ymd.month()), d = static_cast<unsigned>(ymd.day());
  const uint32_t hour =
      msecs == CVD_MSEC_NIL ? 0x80000000u : static_cast<uint32_t>(msecs / 3600000);
  const uint32_t level = ((y * 100 + m) * 100 + d) * 100 + hour;
  return {
      static_cast<int>(level),
      {Midnight(ymd.year() / January / 1), Midnight(ymd.year() / month{(m - 1) / 3 * 3 + 1} / 1),
       Midnight(ymd.year() / ymd.month() / 1), Midnight(ymd)}};
}

lng At(int y, int mo, int d, int h, int mi = 0, int s = 0, int ms = 0) {
  return cvd_timestamp(cvd_date_days(y, mo, d), ((h * 60 + mi) * 60 + s) * 1000 + ms);
}

// Hourly steps from 2021-03-31 20:00: across a day, a month and a quarter, several rows
// per hour.
std::vector<lng> Steps(int from, int n) {
  std::vector<lng> v;
  for (int i = from; i < from + n; ++i) {
    const int h = 20 + i / 3;
    v.push_back(cvd_timestamp(cvd_date_days(2021, 3, 31) + h / 24, h % 24 * 3600000));
  }
  return v;
}

// On the memory file system: the fault test commits some forty times, twelve BATs each.
class TimeLevelsTest : public FarmTest {
 public:
  TimeLevelsTest() : FarmTest(InMemory{}) {}

  enum Form { kPlain, kDict, kDictOnly };

  bat Bat(const std::string& name, int type) {
    bat b = CVDbat_lookup(name.c_str());
    return b != 0 ? b : Target(name.c_str(), type);
  }
  BUN Rows(const std::string& name) { return BBPgetdesc(Bat(name, TypeOf(name)))->batCount; }
  int TypeOf(const std::string& name) {
    return name.ends_with("level") || name.ends_with("codes") ? TYPE_int : ts_;
  }
  std::string File(const std::string& name) { return TailFile(Bat(name, TypeOf(name))); }

  // Registers column `col` of form `form` writing into the BATs of `t` (see the shared
  // naming: t, t.level, ..., t.dict.level, ..., t.dict_codes).
  void Register(const std::string& col, const std::string& t, Form form, bool queued, int chunk) {
    const bool rows = form != kDictOnly;
    AttrInt(col, 2, chunk);
    AttrStr(col, 5, rows ? File(t) : "");
    AttrInt(col, 6, 1);
    AttrLng(col, 38, rows ? static_cast<int64_t>(Rows(t)) : 0);
    AttrInt(col, 33, 0);
    AttrInt(col, 34, queued ? 1 : 0);
    AttrInt(col, 36, 0);
    AttrInt(col, 50, 0);
    for (int f = 0; f < 5; ++f) AttrStr(col, 15 + f, rows ? File(t + kLevels[f]) : "");
    if (form == kPlain) {
      AttrInt(col, 0, 6);
      AttrInt(col, 1, 2);
      return;
    }
    const int64_t entries = static_cast<int64_t>(Rows(t + ".dict.level"));
    AttrInt(col, 0, 7);
    AttrInt(col, 1, 4);
    AttrInt(col, 35, 0);
    AttrStr(col, 30, File(t + ".dict.level"));
    AttrStr(col, 31, "");
    AttrStr(col, 32, File(t + ".dict_codes"));
    AttrLng(col, 37, entries);
    AttrStr(col, 24, File(t + ".dict_codes"));
    for (int f = 0; f < 5; ++f) AttrStr(col, 25 + f, File(t + ".dict" + kLevels[f]));
    AttrLng(col, 39, entries);
    AttrLng(col, 40, rows ? static_cast<int64_t>(Rows(t)) : 0);
  }

  // The five level BATs of prefix p read back, one Levels per row.
  std::vector<Levels> ReadLevels(const std::string& p) {
    std::vector<int> level = Read<int>((p + ".level").c_str());
    std::vector<Levels> out(level.size());
    for (size_t r = 0; r < level.size(); ++r) out[r].level = level[r];
    for (int f = 1; f < 5; ++f) {
      std::vector<lng> v = Read<lng>((p + kLevels[f]).c_str());
      EXPECT_EQ(v.size(), level.size()) << p << kLevels[f];
      for (size_t r = 0; r < v.size() && r < out.size(); ++r) out[r].starts[f - 1] = v[r];
    }
    return out;
  }

  // What the BATs of `t` must hold after exporting `values` (all exports in order).
  void ExpectColumn(const std::string& t, Form form, const std::vector<lng>& values) {
    SCOPED_TRACE(t);
    std::vector<lng> stamps;
    std::vector<Levels> rows, dict;
    std::vector<int> ordinals;
    std::set<int> hours;
    for (lng v : values) {
      stamps.push_back(v == 0 ? lng_nil : v);
      rows.push_back(Expected(v));
      if (hours.insert(Expected(v).level).second) {
        dict.push_back(Expected(v));
        ordinals.push_back(static_cast<int>(hours.size()));
      }
    }
    if (form != kDictOnly) {
      EXPECT_EQ(Read<lng>(t.c_str()), stamps);
      EXPECT_TRUE(ReadLevels(t) == rows);
    } else {
      EXPECT_EQ(CVDbat_lookup((t + ".level").c_str()), 0);
    }
    if (form != kPlain) {
      EXPECT_TRUE(ReadLevels(t + ".dict") == dict);
      EXPECT_EQ(Read<int>((t + ".dict_codes").c_str()), ordinals);
    }
  }

  // Names of every BAT of form `form` under t.
  std::vector<std::string> BatsOf(const std::string& t, Form form) {
    std::vector<std::string> names;
    if (form != kDictOnly) {
      names.push_back(t);
      for (const char* l : kLevels) names.push_back(t + l);
    }
    if (form != kPlain) {
      for (const char* l : kLevels) names.push_back(t + ".dict" + l);
      names.push_back(t + ".dict_codes");
    }
    return names;
  }

  const int ts_ = ATOMindex("timestamp");
};

// Each form, queued and on the exporting thread, in chunks of 4: a first export and an
// append that continues it (the dictionary reloaded: a known hour keeps its entry).
TEST_F(TimeLevelsTest, ExportAndAppendReadBack) {
  const std::vector<lng> first = {At(2013, 5, 17, 14, 30), At(2024, 2, 29, 23, 59, 59, 999),
                                  At(1999, 12, 31, 0),     At(2000, 11, 15, 12),
                                  At(1970, 1, 1, 0),       At(2013, 5, 17, 14, 59),
                                  At(1600, 2, 29, 7)};
  std::vector<lng> second = Steps(0, 40);
  second.push_back(At(2013, 5, 17, 14, 1));  // an hour of the first export
  // The plain form also takes nil rows (0 and the timestamp nil) and nil milliseconds,
  // whose hour is 0x80000000.
  std::vector<lng> first_plain = first;
  first_plain.insert(first_plain.begin() + 2,
                     {0, lng_nil, cvd_timestamp(cvd_date_days(2013, 5, 17), CVD_MSEC_NIL)});
  struct Case {
    std::string table;
    Form form;
    bool queued;
  } cases[] = {{"p", kPlain, true},  {"ps", kPlain, false},  {"d", kDict, true},
               {"ds", kDict, false}, {"o", kDictOnly, true}, {"os", kDictOnly, false}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.table);
    std::vector<lng> all;
    for (const std::vector<lng>* batch :
         {c.form == kPlain ? &first_plain : &first, &std::as_const(second)}) {
      Register("at", c.table, c.form, c.queued, 4);
      ASSERT_EQ(Export(Result({{"at", Column<lng>(ts_, *batch)}}, DenseOrder(batch->size()))), "");
      all.insert(all.end(), batch->begin(), batch->end());
      // Every file is closed and final when its descriptor is written: its size on disk.
      for (const std::string& name : BatsOf(c.table, c.form)) {
        const BAT* b = BBPgetdesc(CVDbat_lookup(name.c_str()));
        EXPECT_EQ(b->theap.size, ReadFile(File(name)).size()) << name;
        EXPECT_EQ(b->theap.free, b->batCount * b->twidth) << name;
      }
      Reopen();
      ExpectColumn(c.table, c.form, all);
    }
  }
  EXPECT_EQ(cvd_date_days(1970, 1, 1), kEpochDay);
  EXPECT_EQ(Read<int>("p.level")[0], 2013051714);
  EXPECT_EQ(Read<lng>("p.quarter")[0], cvd_timestamp(cvd_date_days(2013, 4, 1), 0));
}

// A file fault at any call of an append to a dictionary column with its row part (all three
// writers) leaves the farm at its previous commit; a level-number tail that cannot be opened
// (its writes do not fail their chunks) is refused when its descriptor would be written.
TEST_F(TimeLevelsTest, AFileFaultAtAnyCallLeavesThePreviousCommit) {
  std::vector<lng> committed = Steps(0, 3);
  Register("d", "d", kDict, true, 4);
  ASSERT_EQ(Export(Result({{"d", Column<lng>(ts_, committed)}}, DenseOrder(committed.size()))), "");
  int failures = 0, short_files = 0;
  for (int n = 1;; n++) {
    SCOPED_TRACE("failing call " + std::to_string(n));
    const std::vector<lng> more = Steps(static_cast<int>(committed.size()), 3);
    Register("d", "d", kDict, n % 2 == 0, 4);
    int id = Result({{"d", Column<lng>(ts_, more)}}, DenseOrder(more.size()));
    qopci::MMFInjectFailure(n, ENOSPC);
    const std::string err = Export(id);
    const bool hit = qopci::MMFSystemCallCount() >= static_cast<uint64_t>(n);
    qopci::MMFInjectFailure(0, 0);
    if (err.empty()) {
      committed.insert(committed.end(), more.begin(), more.end());
    } else {
      failures++;
      bool named = false;
      for (const char* f : {"d.level", "d.dict.level"})
        named = named || err.find("File " + File(f) + " holds") != std::string::npos;
      short_files += named;
      EXPECT_TRUE(named || err.find("Can't insert chunk to file") != std::string::npos ||
                  err.find("cannot be loaded") != std::string::npos)
          << err;
    }
    Reopen();
    ExpectColumn("d", kDict, committed);
    if (!hit) break;
  }
  EXPECT_GT(failures, 10);
  EXPECT_GT(short_files, 0);
}

// The factories of the four kinds: each attribute they read, at its site.
TEST_F(TimeLevelsTest, MissingAttributesNameTheirSites) {
  struct Case {
    Form form;
    int attr, site;
  } cases[] = {
      {kPlain, 5, 947}, {kPlain, 15, 948}, {kPlain, 19, 952}, {kPlain, 6, 953},  {kPlain, 38, 954},
      {kDict, 5, 997},  {kDict, 16, 999},  {kDict, 24, 1003}, {kDict, 25, 1004}, {kDict, 29, 1008},
      {kDict, 6, 1009}, {kDict, 39, 1010}, {kDict, 40, 1011}, {kDict, 35, 818},  {kDict, 30, 819},
      {kDict, 31, 820}, {kDict, 32, 821},  {kDict, 37, 822},
  };
  int k = 0;
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::Message() << "attribute " << c.attr);
    const std::string t = "m" + std::to_string(k++);
    Register("at", t, c.form, true, 4);
    // Replacing it by a value of another size makes the lookup fail at its site.
    AttrInt("at", c.attr, 1);
    if (c.attr == 6 || c.attr == 35) AttrLng("at", c.attr, 1);
    EXPECT_EQ(Export(Result({{"at", Column<lng>(ts_, {At(2013, 5, 17, 1)})}}, DenseOrder(1))),
              "GET_COL_ATTR : Value size mismatch at line " + std::to_string(c.site));
  }
  // The chunk size is read at 800 (kind 6) and 817 (kind 7), and bounded as for every kind.
  for (Form form : {kPlain, kDict}) {
    Register("at", "c" + std::to_string(form), form, true, 4);
    AttrLng("at", 2, 4);
    EXPECT_EQ(Export(Result({{"at", Column<lng>(ts_, {1})}}, DenseOrder(1))),
              std::string("GET_COL_ATTR : Value size mismatch at line ") +
                  (form == kPlain ? "800" : "817"));
    Register("at", "c" + std::to_string(form), form, true, 0);
    EXPECT_EQ(Export(Result({{"at", Column<lng>(ts_, {1})}}, DenseOrder(1))),
              "CIManager::CopyIntoOneColumn(): at: Chunk size must be at least 1");
  }
}

}  // namespace
}  // namespace qopci_test
