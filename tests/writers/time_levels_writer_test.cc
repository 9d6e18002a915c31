// The time-level writers on real files: the open and close rules of the levels writer,
// and failing member writes (what is still written, what is destroyed, who keeps the
// chunk). The files of both forms, appends and the pairing with BATs are checked end to
// end (tests/e2e/time_levels_test.cc).
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
// A timestamp chunk of rows [from, to), without the dictionary's second member.
BATChunk* StampChunk(int from, int to) {
  std::vector<int64_t> ts;
  for (int r = from; r < to; ++r) ts.push_back((int64_t{7} << 50) + r);
  return new CountedTimestamps(new Counted<int64_t>(ts), nullptr, LevelsChunk(from, to));
}

class TimeLevelsWriterTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_FALSE(dir_.empty());
    g_destroyed = g_shells = 0;
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

// The levels writer opens all five files; Open is true when the four members opened.
// A member left closed makes its writes fail, but the other members are still written;
// an own tail left closed does not fail the chunk. Close closes the own tail alone: the
// members stay open, their size on disk not yet final, until each is closed.
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
    for (int k = 0; k < 4; ++k) {
      if (k + 1 == c.unopenable) continue;
      EXPECT_FALSE(w.member(k)->tail()->IsClosed());
      EXPECT_TRUE(w.member(k)->Close());
      EXPECT_EQ(w.member(k)->GetTailMappedSize(), 24u);
    }
    for (int f = 0; f < 5; ++f) {
      SCOPED_TRACE("file " + std::to_string(f));
      EXPECT_TRUE(ReadFile(p[f]) == (f == c.unopenable ? "" : LevelBytes(f, 0, 3)));
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
