// The time-level writers on real files: the bytes of every file, appends at the existing
// count, the open and close rules of the levels writer, the dictionary writer with and
// without a row part, and failing member writes (what is written, what is destroyed).
#include "writers/time_levels_writer.h"

#include <atomic>
#include <cerrno>
#include <filesystem>
#include <list>
#include <string>
#include <vector>

#include "gtest/gtest.h"
#include "queue/concurrent_queue.h"
#include "tests/support/temp_dir.h"
#include "writers/writer_chunk_pair.h"

namespace qopci {
namespace {

using qopci_test::ReadFile;
using qopci_test::WriteFile;

std::atomic<int> g_destroyed{0};  // elementary chunks
std::atomic<int> g_shells{0};     // composite chunk objects

template <typename T>
struct Counted : SimpleTypeChunk<T> {
  explicit Counted(std::vector<T> values) : SimpleTypeChunk<T>(values.size() + 1) {
    for (T v : values) this->buffer_[this->count_++] = v, this->size_ += sizeof(T);
  }
  ~Counted() override { ++g_destroyed; }
};
struct CountedLevels : TesselTimeLevelsChunk {
  using TesselTimeLevelsChunk::TesselTimeLevelsChunk;
  ~CountedLevels() override { ++g_shells; }
};
struct CountedTimestamps : TesselTimestampChunk {
  using TesselTimestampChunk::TesselTimestampChunk;
  ~CountedTimestamps() override { ++g_shells; }
};

template <typename T>
std::string Bytes(const std::vector<T>& v) {
  return std::string(reinterpret_cast<const char*>(v.data()), v.size() * sizeof(T));
}

// The values of file f (0: level numbers, 1-4: year, quarter, month starts and day) for
// rows [from, to): each file holds its own sequence, so a file written in the wrong place
// shows.
std::string LevelBytes(int f, int from, int to) {
  if (f == 0) {
    std::vector<int> v;
    for (int r = from; r < to; ++r) v.push_back(2013051700 + r);
    return Bytes(v);
  }
  std::vector<int64_t> v;
  for (int r = from; r < to; ++r) v.push_back((int64_t{f} << 40) + r);
  return Bytes(v);
}
std::string StampBytes(int from, int to) {
  std::vector<int64_t> v;
  for (int r = from; r < to; ++r) v.push_back((int64_t{7} << 50) + r);
  return Bytes(v);
}

// A levels chunk of rows [from, to): five elementary members.
BATChunk* LevelsChunk(int from, int to) {
  std::vector<int> numbers;
  std::vector<int64_t> m[4];
  for (int r = from; r < to; ++r) {
    numbers.push_back(2013051700 + r);
    for (int f = 1; f <= 4; ++f) m[f - 1].push_back((int64_t{f} << 40) + r);
  }
  BATChunk* const parts[5] = {new Counted<int>(numbers), new Counted<int64_t>(m[0]),
                              new Counted<int64_t>(m[1]), new Counted<int64_t>(m[2]),
                              new Counted<int64_t>(m[3])};
  return new CountedLevels(parts);
}
// A timestamp chunk of rows [from, to); with `ordinals`, a second member as the dictionary
// chunker makes it.
BATChunk* StampChunk(int from, int to, bool ordinals = false) {
  std::vector<int64_t> ts;
  for (int r = from; r < to; ++r) ts.push_back((int64_t{7} << 50) + r);
  return new CountedTimestamps(new Counted<int64_t>(ts),
                               ordinals ? new Counted<int>({1, 2}) : nullptr,
                               LevelsChunk(from, to));
}

class TimeLevelsWriterTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_FALSE(dir_.empty());
    g_destroyed = g_shells = 0;
  }
  // Fresh files name.0 .. name.5 (0: timestamps, 1-5: levels), each holding `rows` values
  // and a spare one that an append at `rows` must overwrite.
  void Prefill(const std::string& name, int rows) {
    WriteFile(Path(name, 0), StampBytes(0, rows) + Bytes<int64_t>({-1}));
    for (int f = 0; f < 5; ++f)
      WriteFile(Path(name, f + 1), LevelBytes(f, 0, rows) + LevelBytes(f, 99, 100));
  }
  std::string Path(const std::string& name, int k) {
    return dir_ + "/" + name + "." + std::to_string(k);
  }
  // The five level file names, kept alive for the writers; level file `unopenable` (1-5)
  // lies in a directory that does not exist.
  const char* const (&Names(const std::string& name, int unopenable = 0))[5] {
    auto& n = names_.emplace_back();
    for (int f = 0; f < 5; ++f) {
      n.paths[f] = f + 1 == unopenable ? dir_ + "/missing/x" : Path(name, f + 1);
      n.ptrs[f] = n.paths[f].c_str();
    }
    return n.ptrs;
  }
  void ExpectLevelFiles(const std::string& name, int from, int to) {
    for (int f = 0; f < 5; ++f) {
      SCOPED_TRACE("level file " + std::to_string(f));
      EXPECT_TRUE(ReadFile(Path(name, f + 1)) == LevelBytes(f, from, to));
    }
  }

  struct NameSet {
    std::string paths[5];
    const char* ptrs[5];
  };
  qopci_test::TempDir tmp_{"time_levels_writer_test_"};
  const std::string dir_ = tmp_.path();
  std::list<NameSet> names_;
};

// Two chunks through a timestamp writer, appended behind `existing` rows or written anew,
// queued or direct: six files of exactly the rows, and every chunk destroyed.
TEST_F(TimeLevelsWriterTest, TimestampWriterAppendsSixFiles) {
  struct Case {
    const char* name;
    bool keep;
    int existing;
  } cases[] = {{"append behind 3", true, 3}, {"anew", false, 0}, {"append to empty", true, 0}};
  for (bool queued : {false, true}) {
    for (const Case& c : cases) {
      SCOPED_TRACE(testing::Message() << c.name << (queued ? ", queued" : ", direct"));
      g_destroyed = g_shells = 0;
      Prefill("t", 3);
      std::string ts = Path("t", 0);
      ConcurrentQueue queue(nullptr, 2);
      {
        TesselTimestampWriter w(ts.c_str(), Names("t"), c.keep, c.existing);
        if (queued) w.SetQueue(&queue);
        std::list<BATWriter*> files;
        w.RegisterIn(files);
        ASSERT_EQ(files.size(), 6u);
        EXPECT_EQ(files.front(), &w);
        EXPECT_EQ(*std::next(files.begin()), w.levels());
        EXPECT_EQ(files.back(), w.levels()->member(3));
        for (BATWriter* f : files) EXPECT_EQ(f->GetQueue(), queued ? &queue : nullptr);
        ASSERT_TRUE(w.Open());
        ASSERT_TRUE(SubmitChunk(&w, StampChunk(c.existing, c.existing + 2), true));
        ASSERT_TRUE(SubmitChunk(&w, StampChunk(c.existing + 2, c.existing + 5), true));
        queue.WaitForProcessingEnd();
        EXPECT_TRUE(queue.m_bOK);
        EXPECT_EQ(g_destroyed, 12);
        EXPECT_EQ(g_shells, 4);
        EXPECT_EQ(w.GetTailSize(), (c.existing + 5) * 8u);
        EXPECT_EQ(w.levels()->GetTailSize(), (c.existing + 5) * 4u);
        ASSERT_TRUE(w.Close());
        // The levels writer's Close left its members open; they close one by one.
        for (int k = 0; k < 4; ++k) {
          EXPECT_FALSE(w.levels()->member(k)->tail()->IsClosed());
          EXPECT_TRUE(w.levels()->member(k)->Close());
          EXPECT_EQ(w.levels()->member(k)->GetTailMappedSize(), (c.existing + 5) * 8u);
          EXPECT_TRUE(w.levels()->member(k)->Close());  // a second Close changes nothing
        }
      }
      EXPECT_TRUE(ReadFile(ts) == StampBytes(0, c.existing + 5));
      ExpectLevelFiles("t", 0, c.existing + 5);
    }
  }
}

// The levels writer opens all five files; Open is true when the four members opened.
// A member left closed makes its writes fail, but the other members are still written;
// an own tail left closed does not fail the chunk.
TEST_F(TimeLevelsWriterTest, LevelsWriterOpenAndWriteRules) {
  struct Case {
    const char* name;
    int unopenable;  // file that cannot be opened (0: level numbers, 1-4 members), -1 none
    bool open, write;
  } cases[] = {
      {"all open", -1, true, true},
      {"own tail cannot be opened", 0, true, true},
      {"quarter member cannot be opened", 2, false, false},
      {"day member cannot be opened", 4, false, false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    g_destroyed = g_shells = 0;
    std::filesystem::remove_all(dir_ + "/l");
    std::filesystem::create_directory(dir_ + "/l");
    std::string p[5];
    for (int f = 0; f < 5; ++f)
      p[f] = f == c.unopenable ? dir_ + "/missing/x" : dir_ + "/l/" + std::to_string(f);
    const char* const members[4] = {p[1].c_str(), p[2].c_str(), p[3].c_str(), p[4].c_str()};
    TesselTimeLevelsWriter w(p[0].c_str(), members, false, 0);
    EXPECT_EQ(w.Open(), c.open);
    BATChunk* chunk = LevelsChunk(0, 3);
    errno = 0;
    EXPECT_EQ(w.WriteChunk(chunk), c.write);
    EXPECT_EQ(g_destroyed, 5);  // every member, written or not
    if (!c.write) {
      EXPECT_EQ(errno, EBADF);
      EXPECT_EQ(g_shells, 0);  // left to the caller
      delete chunk;
    }
    EXPECT_EQ(g_shells, 1);
    w.Close();
    for (int k = 0; k < 4; ++k) w.member(k)->Close();
    for (int f = 0; f < 5; ++f) {
      SCOPED_TRACE("file " + std::to_string(f));
      EXPECT_TRUE(ReadFile(p[f]) == (f == c.unopenable ? "" : LevelBytes(f, 0, 3)));
    }
  }
}

// The dictionary writer: the dictionary's levels and key codes always appended to, the row
// part only when the column has a row tail; queued or direct. The chunk objects are kept
// by the writer, emptied, until it goes.
TEST_F(TimeLevelsWriterTest, DictionaryWriterFiles) {
  for (bool with_rows : {true, false}) {
    for (bool queued : {false, true}) {
      SCOPED_TRACE(testing::Message() << "rows " << with_rows << " queued " << queued);
      g_destroyed = g_shells = 0;
      std::filesystem::remove_all(dir_);
      std::filesystem::create_directory(dir_);
      Prefill("d", 2);  // two entries in the dictionary
      Prefill("r", 4);  // four rows
      std::string codes = dir_ + "/codes", rows = Path("r", 0);
      WriteFile(codes, Bytes<int>({1, 2, 77}));
      ConcurrentQueue queue(nullptr, 3);
      {
        TesselTimestampDictWriter w(with_rows ? rows.c_str() : nullptr, Names("r"), codes.c_str(),
                                    Names("d"), true, 2, 4);
        if (queued) w.SetQueue(&queue);
        std::list<BATWriter*> files;
        w.RegisterIn(files);
        EXPECT_EQ(files.size(), with_rows ? 13u : 7u);
        EXPECT_EQ(files.front(), &w);
        EXPECT_EQ(w.GetValueWidth(), with_rows ? 8u : 0u);
        ASSERT_TRUE(w.Open());
        // Chunk k: dictionary entries [2 + k, 3 + k) with ordinals, rows [4 + 3k, 7 + 3k).
        for (int k = 0; k < 2; ++k) {
          std::vector<int> ordinal = {3 + k};
          BATChunk* chunk =
              new CountedTimestamps(StampChunk(4 + 3 * k, 7 + 3 * k), new Counted<int>(ordinal),
                                    LevelsChunk(2 + k, 3 + k));
          ASSERT_TRUE(SubmitChunk(&w, chunk, true));
        }
        queue.WaitForProcessingEnd();
        EXPECT_TRUE(queue.m_bOK);
        EXPECT_EQ(g_destroyed, 2 * 12);
        EXPECT_EQ(g_shells, 2 * 3);  // the row composites and the levels, not the outer ones
        EXPECT_EQ(w.KeptChunkCount(), 2u);
        w.Close();
      }
      EXPECT_EQ(g_shells, 2 * 4);
      ExpectLevelFiles("d", 0, 4);
      EXPECT_TRUE(ReadFile(codes) == Bytes<int>({1, 2, 3, 4}));
      if (with_rows) {
        EXPECT_TRUE(ReadFile(rows) == StampBytes(0, 10));
        ExpectLevelFiles("r", 0, 10);
      } else {
        EXPECT_TRUE(ReadFile(rows) == StampBytes(0, 4) + Bytes<int64_t>({-1}));  // untouched
        for (int f = 0; f < 5; ++f)
          EXPECT_TRUE(ReadFile(Path("r", f + 1)) == LevelBytes(f, 0, 4) + LevelBytes(f, 99, 100));
      }
    }
  }
}

// A member write that fails: the writer reports it with errno, destroys every member it
// was handed, and leaves the chunk object to the caller (or, queued, to the queue, whose
// error names the failing file); the other files still receive their rows.
TEST_F(TimeLevelsWriterTest, FailingMemberWrites) {
  struct Case {
    const char* name;
    bool dictionary;
    int unopenable;            // 0 the timestamps, 1-5 a level file, 6 the dictionary's key codes
    std::vector<int> written;  // files that still receive their rows
  } cases[] = {
      {"timestamps", false, 0, {1, 2, 3, 4, 5}},
      {"a level member", false, 3, {0, 1, 2, 4, 5}},
      {"dictionary key codes", true, 6, {}},
  };
  for (bool queued : {false, true}) {
    for (const Case& c : cases) {
      SCOPED_TRACE(testing::Message() << c.name << (queued ? ", queued" : ", direct"));
      g_destroyed = g_shells = 0;
      std::filesystem::remove_all(dir_);
      std::filesystem::create_directory(dir_);
      const std::string missing = dir_ + "/missing/x";
      const std::string ts = c.unopenable == 0 ? missing : Path("t", 0);
      const std::string codes = c.unopenable == 6 ? missing : dir_ + "/codes";
      const char* const(&levels)[5] = Names("t", c.unopenable);
      ConcurrentQueue queue(nullptr, 2);
      std::unique_ptr<BATWriter> w;
      if (c.dictionary)
        w.reset(
            new TesselTimestampDictWriter(nullptr, levels, codes.c_str(), Names("d"), true, 0, 0));
      else
        w.reset(new TesselTimestampWriter(ts.c_str(), levels, false, 0));
      if (queued) w->SetQueue(&queue);
      EXPECT_FALSE(w->Open());
      BATChunk* chunk =
          c.dictionary
              ? new CountedTimestamps(StampChunk(0, 3), new Counted<int>({1}), LevelsChunk(0, 1))
              : StampChunk(0, 3);
      errno = 0;
      bool ok = SubmitChunk(w.get(), chunk, true);
      int err = errno;
      queue.WaitForProcessingEnd();
      EXPECT_EQ(g_destroyed, c.dictionary ? 12 : 6);
      if (queued) {
        EXPECT_TRUE(ok);
        EXPECT_FALSE(queue.m_bOK);
        EXPECT_EQ(queue.ErrorText(),
                  "WriterChunkPair::CreateError() : Can't insert chunk to "
                  "file [ " +
                      (c.dictionary ? codes : ts) + " ] (Error code 9)");
      } else {
        EXPECT_FALSE(ok);
        EXPECT_EQ(err, EBADF);
        EXPECT_EQ(g_shells, c.dictionary ? 3 : 1);  // the outer object is the caller's
        delete chunk;
      }
      w.reset();
      EXPECT_EQ(g_shells, c.dictionary ? 4 : 2);
      for (int f : c.written) {
        SCOPED_TRACE("file " + std::to_string(f));
        std::string want = f == 0 ? StampBytes(0, 3) : LevelBytes(f - 1, 0, 3);
        EXPECT_TRUE(ReadFile(f == 0 ? ts : std::string(levels[f - 1])) == want);
      }
      if (c.dictionary) ExpectLevelFiles("d", 0, 1);  // submitted before the key codes
    }
  }
}

}  // namespace
}  // namespace qopci
