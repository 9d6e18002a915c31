#include "writers/mmf/mmf.h"

#include <signal.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <functional>
#include <string>
#include <vector>

#include "gtest/gtest.h"
#include "tests/support/temp_dir.h"
#include "writers/mmf/mmf_byte_reader.h"
#include "writers/mmf/mmf_byte_writer.h"
#include "writers/mmf/mmf_fault.h"

namespace qopci {
namespace {

class MmfTest : public ::testing::Test {
 public:
  void SetUp() override { ASSERT_FALSE(dir_.empty()); }
  void TearDown() override { MMFInjectFailure(0); }
  void Put(const std::string& bytes) { qopci_test::WriteFile(path_, bytes); }
  std::string Get() { return qopci_test::ReadFile(path_); }
  int64_t DiskSize() {
    struct stat st;
    return stat(path_.c_str(), &st) == 0 ? st.st_size : -1;
  }

  qopci_test::TempDir tmp_{"mmf_test_"};
  const std::string dir_ = tmp_.path(), path_ = dir_ + "/f.bin";
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

// Bytes and size on disk after Close: blocks set the logical size to their end, scalars to
// the end of their span (its zero tail stays), and Close cuts the file to that size.
TEST_F(MmfTest, ByteWriterSizesAndBytes) {
  const std::string block = Pattern(10, 'a'), before = Pattern(100, 'A');
  auto write_block = [&](MMFByteWriter& w) { ASSERT_TRUE(w.Write(block.data(), 10)); };
  std::string u32s(65532 + 65536, '\0');
  for (uint32_t i = 0; i < 16384; ++i) memcpy(&u32s[i * 4], &i, 4);
  struct Case {
    const char* name;
    bool existing, keep;  // existing: the file holds `before` at Open
    uint64_t requested;
    std::function<void(MMFByteWriter&)> ops;
    std::string want;
  } cases[] = {
      {"keep, no requested size appends at the end", true, true, MMF::kNoRequestedSize, write_block,
       before + block},
      {"keep, requested size 40 writes at 40 and cuts", true, true, 40, write_block,
       before.substr(0, 40) + block},
      {"keep, requested size 40, nothing written", true, true, 40, [](MMFByteWriter&) {},
       before.substr(0, 40)},
      {"not kept: created anew", true, false, MMF::kNoRequestedSize, write_block, block},
      {"scalars keep the zero tail of their span", false, false, MMF::kNoRequestedSize,
       [](MMFByteWriter& w) {
         ASSERT_TRUE(w.WriteInt8(-2));
         ASSERT_TRUE(w.WriteUInt16(0x0102));
         ASSERT_TRUE(w.WriteUInt32Ex(0x03040506));
       },
       std::string("\xfe\x02\x01\x06\x05\x04\x03", 7) + std::string(65536 - 7, '\0')},
      {"a block after scalars cuts the tail back", false, false, MMF::kNoRequestedSize,
       [&](MMFByteWriter& w) {
         ASSERT_TRUE(w.WriteInt32(7));
         write_block(w);
       },
       std::string("\x07\0\0\0", 4) + block},
      {"the span moves one value early", false, false, MMF::kNoRequestedSize,
       [](MMFByteWriter& w) {
         for (int i = 0; i < 16384; ++i) ASSERT_TRUE(w.WriteUInt32(i));
       },
       u32s},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    std::remove(path_.c_str());
    if (c.existing) Put(before);
    {
      MMFByteWriter w(path_, c.keep, c.requested);
      ASSERT_TRUE(w.Open());
      c.ops(w);
      EXPECT_TRUE(w.Close());
      EXPECT_EQ(w.GetMappingSize(), c.want.size());
    }
    EXPECT_EQ(DiskSize(), static_cast<int64_t>(c.want.size()));
    EXPECT_TRUE(Get() == c.want);
  }
  // Appending again after Close starts at the end; Remove deletes the file by name.
  MMFByteWriter again(path_, true);
  ASSERT_TRUE(again.Open());
  EXPECT_EQ(again.GetPosition(), static_cast<uint64_t>(DiskSize()));
  again.Close();
  EXPECT_TRUE(again.Remove());
  EXPECT_NE(access(path_.c_str(), F_OK), 0);
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

// A failure at any system call of a run of growing block writes either fails the write that
// made it, with that call's errno and no call after it, or, when it hit only the reservation
// ahead or a call whose failure is ignored, costs nothing. Either way Close leaves exactly
// the blocks written, without the space reserved ahead of them, whichever way bytes travel.
TEST_F(MmfTest, FailureAtAnyCallOfABlockRunLosesNothing) {
  const MMFTuning saved = MMFGetTuning();
  for (MMFBlockCopy copy : {MMFBlockCopy::kPwrite, MMFBlockCopy::kMemcpy}) {
    MMFSetTuning({copy, copy == MMFBlockCopy::kPwrite});
    int failed = 0, absorbed = 0;
    for (int nth = 1;; ++nth) {
      SCOPED_TRACE(testing::Message() << "copy " << int(copy) << " call " << nth);
      const int err = nth % 2 ? ENOSPC : EIO;
      std::string want, block;
      bool failure_seen = false;
      uint64_t calls = 0;
      {
        MMFByteWriter w(path_, false);
        ASSERT_TRUE(w.Open());
        MMFInjectFailure(nth, err);
        for (int i = 0; i < 8 && !failure_seen; ++i) {
          block = Pattern(300000, 'a' + i);
          errno = 0;
          failure_seen = !w.Write(block.data(), block.size());
          if (!failure_seen) want += block;
        }
        calls = MMFSystemCallCount();
        MMFInjectFailure(0);
        if (failure_seen) {
          EXPECT_EQ(errno, err);
          EXPECT_EQ(calls, static_cast<uint64_t>(nth));
        } else {  // the last block shows through the view, at the file's end
          EXPECT_EQ(w.GetMappingSize(), want.size());
          EXPECT_TRUE(std::string(w.GetMMF()->Data(), block.size()) == block);
        }
        EXPECT_TRUE(w.Close());
      }
      EXPECT_EQ(DiskSize(), static_cast<int64_t>(want.size()));
      EXPECT_TRUE(Get() == want);
      if (!failure_seen && calls < static_cast<uint64_t>(nth)) break;  // every call was tried
      failure_seen ? ++failed : ++absorbed;
    }
    EXPECT_GT(failed, 0);
    EXPECT_GT(absorbed, 0);
  }
  MMFSetTuning(saved);
}

// After any failed call the writer and the reader stay usable: the next write or seek
// works and never touches a view that is gone. Each case fails each call of its operation
// in turn, and the operation fails exactly at the calls it cannot do without.
TEST_F(MmfTest, UsableAfterAFailure) {
  const std::string block = Pattern(200000, 'a'), file = Pattern(300000, 'x');
  // Fails op at system call nth; true (with errno checked) when op failed.
  auto fails_at = [](int nth, const std::function<bool()>& op) {
    MMFInjectFailure(nth, ENOSPC);
    errno = 0;
    bool failed = !op();
    if (failed) {
      EXPECT_EQ(errno, ENOSPC);
    }
    MMFInjectFailure(0);
    return failed;
  };
  // Fails a span move after `prior` values; a failure leaves no view, and a narrower value
  // that would fit in the old span must move a span in again.
  auto scalar_after = [&](int prior) {
    return [&, prior](int nth) {
      MMFByteWriter w(path_, false);
      EXPECT_TRUE(w.Open());
      for (int i = 0; i < prior; i++) EXPECT_TRUE(w.WriteUInt32(i));
      bool failed = fails_at(nth, [&] { return w.WriteUInt32(7); });
      if (failed) {
        EXPECT_EQ(w.GetMMF()->Data(), nullptr);
      }
      EXPECT_TRUE(w.WriteUInt8(3));
      return failed;
    };
  };
  struct Case {
    const char* name;
    int failures;                      // of the first six calls
    std::function<bool(int nth)> run;  // true when the operation failed
  };
  const std::vector<Case> cases = {
      {"scalar after a failed block write", 2,
       [&](int nth) {
         MMFByteWriter w(path_, false);
         EXPECT_TRUE(w.Open() && w.WriteUInt8(1));
         bool failed = fails_at(nth, [&] { return w.Write(block.data(), block.size()); });
         EXPECT_TRUE(w.WriteUInt8(2));
         return failed;
       }},
      {"first scalar, whose span needs its blocks and its view", 2, scalar_after(0)},
      {"narrower scalar after a failed span move", 1, scalar_after(16383)},  // 4 bytes left
      {"seek back after a failed span move", 1,
       [&](int nth) {
         Put(file);
         MMFByteReader r(path_);
         EXPECT_TRUE(r.Open());
         bool failed = fails_at(nth, [&] { return r.Seek(100000); });
         EXPECT_TRUE(r.Seek(10));
         EXPECT_EQ(*r.Current(), file[10]);
         return failed;
       }},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    int failures = 0;
    for (int nth = 1; nth <= 6; nth++) failures += c.run(nth) ? 1 : 0;
    EXPECT_EQ(failures, c.failures);
  }
}

// A real limit on the file size (RLIMIT_FSIZE, with SIGXFSZ ignored) fails the write that
// would cross it with EFBIG, in a child process that must exit normally: no SIGBUS from a
// mapped page without blocks behind it, whichever way the bytes travel.
TEST_F(MmfTest, FileSizeLimitFailsTheWriteNotTheProcess) {
  constexpr rlim_t kLimit = 1 << 20;
  const std::string block = Pattern(300000, 'q');
  for (MMFBlockCopy copy : {MMFBlockCopy::kPwrite, MMFBlockCopy::kMemcpy}) {
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
  // Blocks written, and the most write-back requests: one per full step, one for the rest.
  for (auto [blocks, most] : std::vector<std::pair<int, uint64_t>>{{1, 1}, {64, 2}, {200, 4}}) {
    SCOPED_TRACE(blocks);
    uint64_t calls[2] = {0, 0};
    for (bool early : {false, true}) {
      MMFSetTuning({MMFBlockCopy::kPwrite, early});
      MMFInjectFailure(0);
      {
        MMFByteWriter w(path_, false);
        ASSERT_TRUE(w.Open());
        for (int k = 0; k < blocks; ++k) ASSERT_TRUE(w.Write(block.data(), block.size()));
        w.Close();
      }
      calls[early] = MMFSystemCallCount();
      EXPECT_EQ(DiskSize(), static_cast<int64_t>(blocks * block.size()));
    }
    EXPECT_GE(calls[1] - calls[0], 1u);
    EXPECT_LE(calls[1] - calls[0], most);
  }
  MMFSetTuning(saved);
}

}  // namespace
}  // namespace qopci
