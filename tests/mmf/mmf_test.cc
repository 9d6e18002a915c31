#include "writers/mmf/mmf.h"

#include <signal.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <vector>

#include "gtest/gtest.h"
#include "writers/mmf/mmf_byte_reader.h"
#include "writers/mmf/mmf_byte_writer.h"
#include "writers/mmf/mmf_fault.h"

namespace qopci {
namespace {

class MmfTest : public ::testing::Test {
 public:
  void SetUp() override {
    char tmpl[] = "/tmp/mmf_test_XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    dir_ = tmpl;
    path_ = dir_ + "/f.bin";
  }
  void TearDown() override {
    MMFInjectFailure(0);
    std::filesystem::remove_all(dir_);
  }
  void Put(const std::string& bytes) { std::ofstream(path_, std::ios::binary) << bytes; }
  std::string Get() {
    std::ifstream in(path_, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
  }
  bool Exists() { return access(path_.c_str(), F_OK) == 0; }
  int64_t DiskSize() {
    struct stat st;
    return stat(path_.c_str(), &st) == 0 ? st.st_size : -1;
  }

  std::string dir_, path_;
};

std::string Pattern(size_t n, char seed) {
  std::string s(n, '\0');
  for (size_t i = 0; i < n; ++i) s[i] = static_cast<char>(seed + i % 23);
  return s;
}

TEST_F(MmfTest, OpenModes) {
  struct Case {
    uint32_t mode;
    bool exists;
    bool ok;
    uint32_t error;
    int64_t size_after;  // -1: no file
  } cases[] = {
      {0, false, true, 0, 0},   {0, true, false, EEXIST, 100}, {1, false, false, 2, -1},
      {1, true, true, 0, 100},  {2, false, true, 0, 0},        {2, true, true, 0, 100},
      {3, false, false, 2, -1}, {3, true, true, 0, 0},         {4, true, true, 0, 0},
      {4, false, true, 0, 0},   {5, false, false, 0, -1},      {5, true, false, 0, 100},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::Message() << "mode " << c.mode << " exists " << c.exists);
    std::remove(path_.c_str());
    if (c.exists) Put(std::string(100, 'x'));
    MMF mmf(path_.c_str(), c.mode, MMF::kReadAccess, MMF::kNoRequestedSize);
    uint32_t error = 77;
    EXPECT_EQ(mmf.Open(&error), c.ok);
    EXPECT_EQ(error, c.error);
    if (c.error == 2) {
      EXPECT_EQ(mmf.GetLogicalSize() + mmf.GetMappingSize() + mmf.GetSizeAtOpen(), 0u);
    }
    if (c.ok) {
      EXPECT_EQ(mmf.GetSizeAtOpen(), static_cast<uint64_t>(c.size_after));
    }
    mmf.Close();
    EXPECT_EQ(DiskSize(), c.size_after);
  }
}

// The mapping is remade when a range reaches beyond it, and also when it spans more than
// one granule past its offset; the file grows with it, by at least one granule.
TEST_F(MmfTest, MapGrowsTheFileByTheConservativeRule) {
  MMF mmf(path_.c_str(), 4, MMF::kWriteAccess, MMF::kNoRequestedSize);
  uint32_t error;
  ASSERT_TRUE(mmf.Open(&error));
  struct Step {
    uint64_t end, offset, mapping;
  } steps[] = {
      {10, 0, 65536},           {100000, 0, 100000},      {50000, 40000, 100000},
      {90000, 0, 155536},       {155536, 150000, 155536}, {160000, 150000, 215536},
      {300000, 299990, 365526},
  };
  for (const Step& s : steps) {
    SCOPED_TRACE(testing::Message() << "Map(" << s.end << ", " << s.offset << ")");
    ASSERT_NE(mmf.Map(s.end, s.offset), nullptr);
    EXPECT_EQ(mmf.GetMappingSize(), s.mapping);
    EXPECT_GE(DiskSize(), static_cast<int64_t>(s.mapping));
    mmf.Data()[s.end - s.offset - 1] = 'z';  // the last byte asked for is writable
  }
  mmf.SetLogicalSize(12345);
  mmf.Close();
  EXPECT_EQ(DiskSize(), 12345);
}

TEST_F(MmfTest, ByteWriterSizesAndBytes) {
  const std::string block = Pattern(10, 'a');
  struct Case {
    const char* name;
    int existing;  // bytes in the file before, -1 for none
    bool keep;
    uint64_t requested;
    std::function<void(MMFByteWriter&)> ops;
    std::function<std::string(const std::string& before)> expected;
  } cases[] = {
      {"new file, one block", -1, false, MMF::kNoRequestedSize,
       [&](MMFByteWriter& w) { ASSERT_TRUE(w.Write(block.data(), 10)); },
       [&](const std::string&) { return block; }},
      {"keep, no requested size appends at the end", 100, true, MMF::kNoRequestedSize,
       [&](MMFByteWriter& w) { ASSERT_TRUE(w.Write(block.data(), 10)); },
       [&](const std::string& b) { return b + block; }},
      {"keep, requested size 40 writes at 40 and cuts", 100, true, 40,
       [&](MMFByteWriter& w) { ASSERT_TRUE(w.Write(block.data(), 10)); },
       [&](const std::string& b) { return b.substr(0, 40) + block; }},
      {"keep, requested size 40, nothing written", 100, true, 40, [](MMFByteWriter&) {},
       [&](const std::string& b) { return b.substr(0, 40); }},
      {"not kept: created anew", 100, false, MMF::kNoRequestedSize,
       [&](MMFByteWriter& w) { ASSERT_TRUE(w.Write(block.data(), 10)); },
       [&](const std::string&) { return block; }},
      {"empty block touches nothing", 100, true, MMF::kNoRequestedSize,
       [&](MMFByteWriter& w) { ASSERT_TRUE(w.Write(block.data(), 0)); },
       [&](const std::string& b) { return b; }},
      {"scalars keep the zero tail of their span", -1, false, MMF::kNoRequestedSize,
       [](MMFByteWriter& w) {
         ASSERT_TRUE(w.WriteInt8(-2));
         ASSERT_TRUE(w.WriteUInt16(0x0102));
         ASSERT_TRUE(w.WriteUInt32Ex(0x03040506));
       },
       [](const std::string&) {
         std::string s("\xfe\x02\x01\x06\x05\x04\x03", 7);
         return s + std::string(65536 - 7, '\0');
       }},
      {"a block after scalars cuts the tail back", -1, false, MMF::kNoRequestedSize,
       [&](MMFByteWriter& w) {
         ASSERT_TRUE(w.WriteInt32(7));
         ASSERT_TRUE(w.Write(block.data(), 10));
       },
       [&](const std::string&) { return std::string("\x07\0\0\0", 4) + block; }},
      {"the span moves one value early", -1, false, MMF::kNoRequestedSize,
       [](MMFByteWriter& w) {
         for (int i = 0; i < 16384; ++i) ASSERT_TRUE(w.WriteUInt32(i));
       },
       [](const std::string&) {
         std::string s(65532 + 65536, '\0');
         for (uint32_t i = 0; i < 16384; ++i) memcpy(&s[i * 4], &i, 4);
         return s;
       }},
      {"keep with requested size, scalar then block", 100, true, 8,
       [&](MMFByteWriter& w) {
         ASSERT_TRUE(w.WriteInt16(-1));
         ASSERT_TRUE(w.Write(block.data(), 10));
       },
       [&](const std::string& b) { return b.substr(0, 8) + "\xff\xff" + block; }},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    std::remove(path_.c_str());
    if (c.existing >= 0) Put(Pattern(c.existing, 'A'));
    std::string before = Get();
    {
      MMFByteWriter w(path_, c.keep, c.requested);
      ASSERT_TRUE(w.Open());
      uint64_t start = w.GetWrittenCount();
      c.ops(w);
      std::string want = c.expected(before);
      if (w.GetMMF()->GetLogicalSize() == want.size()) {
        EXPECT_EQ(w.Size(), want.size());
      }
      EXPECT_GE(w.GetWrittenCount(), start);
      EXPECT_TRUE(w.Close());
      EXPECT_EQ(w.GetMappingSize(), want.size());
    }
    std::string got = Get(), want = c.expected(before);
    EXPECT_EQ(got.size(), want.size());
    EXPECT_TRUE(got == want);
  }
}

TEST_F(MmfTest, ReopenAppendsAndRemoveDeletes) {
  for (int round = 0; round < 3; ++round) {
    MMFByteWriter w(path_, true);
    ASSERT_TRUE(w.Open());
    EXPECT_EQ(w.GetPosition(), round * 10u);
    ASSERT_TRUE(w.Write(Pattern(10, 'a' + round).data(), 10));
    w.Close();
  }
  EXPECT_EQ(Get(), Pattern(10, 'a') + Pattern(10, 'b') + Pattern(10, 'c'));
  MMFByteWriter w(path_, true);
  EXPECT_TRUE(w.Remove());
  EXPECT_FALSE(Exists());
}

TEST_F(MmfTest, ReaderSpansAndLeavesTheFileAsFound) {
  const std::string content = Pattern(200000, 'a');
  Put(content);
  struct Case {
    bool whole;
    std::vector<uint64_t> seeks;
  } cases[] = {{true, {0, 199999, 5}}, {false, {0, 70000, 199999, 3, 131072}}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.whole);
    MMFByteReader r(path_);
    r.SetWholeFile(c.whole);
    ASSERT_TRUE(r.Open());
    if (c.whole) {
      EXPECT_GT(DiskSize(), 200000);  // the mapping reached past the end
    }
    for (uint64_t p : c.seeks) {
      ASSERT_TRUE(r.Seek(p)) << p;
      EXPECT_EQ(*r.Current(), content[p]) << p;
    }
    EXPECT_FALSE(r.Seek(200000));
    r.Close();
    EXPECT_EQ(DiskSize(), 200000);
  }
  EXPECT_EQ(Get(), content);

  MMFByteReader missing(dir_ + "/missing");
  EXPECT_FALSE(missing.Open());
  EXPECT_NE(access((dir_ + "/missing").c_str(), F_OK), 0);

  Put("");
  MMFByteReader empty(path_);
  ASSERT_TRUE(empty.Open());
  EXPECT_TRUE(empty.IsEmpty());
  EXPECT_FALSE(empty.Seek(0));
}

// Any failing system call of a block write makes it return false with that call's errno,
// and the file keeps what was written before.
TEST_F(MmfTest, InjectedFailureFailsWriteAndKeepsErrno) {
  const std::string first = Pattern(1000, 'a'), big = Pattern(1 << 20, 'b');
  const MMFBlockCopy copies[] = {MMFBlockCopy::kPwrite, MMFBlockCopy::kMemcpy};
  const MMFTuning saved = MMFGetTuning();
  for (MMFBlockCopy copy : copies) {
    MMFSetTuning({copy, false});
    for (int nth = 1;; ++nth) {
      SCOPED_TRACE(testing::Message() << "copy " << int(copy) << " call " << nth);
      MMFByteWriter w(path_, false);
      ASSERT_TRUE(w.Open());
      ASSERT_TRUE(w.Write(first.data(), first.size()));
      MMFInjectFailure(nth, nth == 2 ? EIO : ENOSPC);
      errno = 0;
      bool ok = w.Write(big.data(), big.size());
      uint64_t calls = MMFSystemCallCount();
      MMFInjectFailure(0);
      if (ok && calls < static_cast<uint64_t>(nth)) break;  // every call was tried
      if (ok) continue;  // the failure hit the unmapping of the old view, which is ignored
      EXPECT_EQ(errno, nth == 2 ? EIO : ENOSPC);
      EXPECT_EQ(calls, static_cast<uint64_t>(nth));  // nothing ran after the failure
      w.Close();
      EXPECT_EQ(DiskSize(), 1000);
      EXPECT_TRUE(Get() == first);
    }
  }
  MMFSetTuning(saved);

  MMFInjectFailure(1, EACCES);
  MMF mmf(path_.c_str(), 2, MMF::kWriteAccess, MMF::kNoRequestedSize);
  uint32_t error = 0;
  EXPECT_FALSE(mmf.Open(&error));
  EXPECT_EQ(error, static_cast<uint32_t>(EACCES));
}

// Blocks reserve disk space ahead of the mapping, yet the mapping grows by the rule, each
// block is visible through Data(), and Close leaves exactly the rule's size on disk.
TEST_F(MmfTest, ReservationAheadNeverShowsAfterClose) {
  struct Case {
    const char* name;
    bool scalar_last;  // the zero tail of a last scalar span stays
    uint64_t want_size;
  } cases[] = {{"blocks only", false, 8 * 300000}, {"scalar last", true, 8 * 300000 + 65536}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    std::string want;
    {
      MMFByteWriter w(path_, false);
      ASSERT_TRUE(w.Open());
      for (int i = 0; i < 8; ++i) {
        const std::string block = Pattern(300000, 'a' + i);
        ASSERT_TRUE(w.Write(block.data(), block.size()));
        want += block;
        EXPECT_EQ(w.GetMappingSize(), want.size());
        EXPECT_GE(DiskSize(), static_cast<int64_t>(want.size()));
        ASSERT_NE(w.GetMMF()->Data(), nullptr);
        EXPECT_EQ(std::string(w.GetMMF()->Data(), block.size()), block);
      }
      if (c.scalar_last) {
        ASSERT_TRUE(w.WriteUInt8(9));
        want += '\x09' + std::string(65535, '\0');
      }
      EXPECT_TRUE(w.Close());
      EXPECT_EQ(w.GetMappingSize(), c.want_size);
    }
    EXPECT_EQ(DiskSize(), static_cast<int64_t>(c.want_size));
    EXPECT_TRUE(Get() == want);
  }
}

// A full disk at any system call of a run of growing block writes either fails that write
// with ENOSPC or, when it hit only the reservation ahead, costs nothing; either way the file
// holds exactly the blocks that were written.
TEST_F(MmfTest, FullDiskAtAnyCallLosesNothing) {
  int failed = 0, absorbed = 0;
  for (int nth = 1;; ++nth) {
    SCOPED_TRACE(testing::Message() << "call " << nth);
    std::string want;
    bool failure_seen = false;
    {
      MMFByteWriter w(path_, false);
      ASSERT_TRUE(w.Open());
      MMFInjectFailure(nth, ENOSPC);
      for (int i = 0; i < 12 && !failure_seen; ++i) {
        const std::string block = Pattern(200000, 'a' + i);
        errno = 0;
        if (w.Write(block.data(), block.size())) {
          want += block;
        } else {
          EXPECT_EQ(errno, ENOSPC);
          failure_seen = true;
        }
      }
      uint64_t calls = MMFSystemCallCount();
      MMFInjectFailure(0);
      if (!failure_seen && calls < static_cast<uint64_t>(nth)) break;  // every call tried
      failure_seen ? ++failed : ++absorbed;
      EXPECT_TRUE(w.Close());
    }
    EXPECT_EQ(DiskSize(), static_cast<int64_t>(want.size()));
    EXPECT_TRUE(Get() == want);
  }
  EXPECT_GT(failed, 0);
  EXPECT_GT(absorbed, 0);

  // A scalar's span needs its blocks and its view: either failing fails the write and
  // leaves no view behind.
  int scalar_failed = 0;
  for (int nth = 1;; ++nth) {
    SCOPED_TRACE(testing::Message() << "scalar, call " << nth);
    MMFByteWriter w(path_, false);
    ASSERT_TRUE(w.Open());
    MMFInjectFailure(nth, ENOSPC);
    errno = 0;
    bool ok = w.WriteUInt32(5);
    uint64_t calls = MMFSystemCallCount();
    MMFInjectFailure(0);
    if (ok && calls < static_cast<uint64_t>(nth)) break;
    if (!ok) {
      EXPECT_EQ(errno, ENOSPC);
      EXPECT_EQ(w.GetMMF()->Data(), nullptr);
      ++scalar_failed;
    }
  }
  EXPECT_EQ(scalar_failed, 2);  // the reservation of the span and its mmap
}

// After any failed call the writer and the reader stay usable: the next write or seek
// fails cleanly or works, and never touches a view that is gone. Each case fails each
// call of its operation in turn.
TEST_F(MmfTest, UsableAfterAFailure) {
  const std::string block = Pattern(200000, 'a');
  const std::string file = Pattern(300000, 'x');
  struct Case {
    const char* name;
    // Sets up, fails the operation at system call nth (false when it did not fail), then
    // tries what must still be safe.
    std::function<bool(MmfTest*, int)> run;
  };
  const std::vector<Case> cases = {
      {"scalar after a failed block write",
       [&](MmfTest* t, int nth) {
         MMFByteWriter w(t->path_, false);
         EXPECT_TRUE(w.Open());
         EXPECT_TRUE(w.WriteUInt8(1));
         MMFInjectFailure(nth, ENOSPC);
         bool failed = !w.Write(block.data(), block.size());
         MMFInjectFailure(0);
         if (failed) {
           EXPECT_TRUE(w.WriteUInt8(2));
         }
         return failed;
       }},
      {"narrower scalar after a failed span move",
       [&](MmfTest* t, int nth) {
         MMFByteWriter w(t->path_, false);
         EXPECT_TRUE(w.Open());
         for (int i = 0; i < 16383; i++) EXPECT_TRUE(w.WriteUInt32(i));  // 4 bytes left
         MMFInjectFailure(nth, ENOSPC);
         bool failed = !w.WriteUInt32(7);
         MMFInjectFailure(0);
         if (failed) {
           EXPECT_TRUE(w.WriteUInt8(3));
         }
         return failed;
       }},
      {"seek back after a failed span move",
       [&](MmfTest* t, int nth) {
         t->Put(file);
         MMFByteReader r(t->path_);
         EXPECT_TRUE(r.Open());
         MMFInjectFailure(nth, ENOMEM);
         bool failed = !r.Seek(100000);
         MMFInjectFailure(0);
         if (failed && r.Seek(10)) {
           EXPECT_NE(r.Current(), nullptr);
           if (r.Current() != nullptr) {
             EXPECT_EQ(*r.Current(), file[10]);
           }
         }
         return failed;
       }},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    int failures = 0;
    for (int nth = 1; nth <= 6; nth++) failures += c.run(this, nth) ? 1 : 0;
    EXPECT_GT(failures, 0);
  }
}

// A real limit on the file size (RLIMIT_FSIZE, with SIGXFSZ ignored) fails the write that
// would cross it with EFBIG, in a child process that must exit normally: no SIGBUS from a
// mapped page without blocks behind it, whichever way the bytes travel.
TEST_F(MmfTest, FileSizeLimitFailsTheWriteNotTheProcess) {
  constexpr rlim_t kLimit = 1 << 20;
  const std::string block = Pattern(300000, 'q');
  const MMFBlockCopy copies[] = {MMFBlockCopy::kPwrite, MMFBlockCopy::kMemcpy};
  for (MMFBlockCopy copy : copies) {
    SCOPED_TRACE(static_cast<int>(copy));
    std::remove(path_.c_str());
    auto child = [&] {
      signal(SIGXFSZ, SIG_IGN);
      struct rlimit lim = {kLimit, kLimit};
      setrlimit(RLIMIT_FSIZE, &lim);
      MMFSetTuning({copy, false});
      MMFByteWriter w(path_, false);
      if (!w.Open()) _exit(10);
      int blocks = 0;
      while (w.Write(block.data(), block.size())) ++blocks;
      int block_errno = errno;
      int scalars = 0;
      while (w.WriteUInt32(7)) ++scalars;
      int scalar_errno = errno;
      w.Close();
      fprintf(stderr, "blocks %d errno %d scalars>0 %d errno %d size %lld\n", blocks, block_errno,
              scalars > 0, scalar_errno, static_cast<long long>(DiskSize()));
      _exit(0);
    };
    EXPECT_EXIT(child(), testing::ExitedWithCode(0),
                "blocks 3 errno 27 scalars>0 1 errno 27 size 10[0-9]{5}\n");
    EXPECT_LE(DiskSize(), static_cast<int64_t>(kLimit));
    EXPECT_TRUE(Get().substr(0, 3 * block.size()) == block + block + block);
  }
}

// Write-back is started for runs of flushed blocks, not block by block: the writes of one
// column are many small blocks, and a disk request per block would slow the export. The
// difference in system calls with and without early write-back counts the requests.
TEST_F(MmfTest, WritebackStartsInSteps) {
  const std::string block = Pattern(64 << 10, 'w');
  const MMFTuning saved = MMFGetTuning();
  struct Case {
    int blocks;
    uint64_t most;  // one per full step, and one for the rest at Close
  };
  const std::vector<Case> cases = {{1, 1}, {64, 2}, {200, 4}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.blocks);
    uint64_t calls[2] = {0, 0};
    for (bool early : {false, true}) {
      MMFSetTuning({MMFBlockCopy::kPwrite, early});
      std::filesystem::remove(path_);
      MMFInjectFailure(0);
      {
        MMFByteWriter w(path_, false);
        ASSERT_TRUE(w.Open());
        for (int k = 0; k < c.blocks; ++k) ASSERT_TRUE(w.Write(block.data(), block.size()));
        w.Close();
      }
      calls[early] = MMFSystemCallCount();
      EXPECT_EQ(DiskSize(), static_cast<int64_t>(c.blocks * block.size()));
    }
    EXPECT_GE(calls[1] - calls[0], 1u);
    EXPECT_LE(calls[1] - calls[0], c.most);
  }
  MMFSetTuning(saved);
}

}  // namespace
}  // namespace qopci
