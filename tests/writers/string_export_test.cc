// String columns exported through the library's C functions: a new column, then a second
// export appending to it (duplicates of the first found, the tail widened), read back row
// by row by the kernel after each commit.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/e2e/e2e_fixture.h"

namespace qopci_test {
namespace {

const std::string kNilString("\x80", 1);

class StringExportTest : public FarmTest {
 public:
  bat Strings(const std::vector<std::string>& values) {
    bat b = 0;
    EXPECT_EQ(CVDbat_create(TYPE_str, nullptr, values.size(), &b), nullptr);
    for (const std::string& s : values) EXPECT_EQ(CVDbat_append(b, s.c_str()), nullptr);
    return b;
  }
  // Registers string column col for writing into target as it now stands.
  void StringColumn(const std::string& col, bat target, int chunk) {
    BAT* b = BBPgetdesc(target);
    char heap[4096];
    CVDbat_filename(target, "theap", heap, sizeof heap);
    const int64_t heap_size = b->batCount > 0 ? static_cast<int64_t>(b->tvheap->free) : 0;
    Common(col, target, 0, true, chunk);
    AttrInt(col, 0, 2);
    AttrInt(col, 1, 5);
    AttrInt(col, 11, 20);
    AttrStr(col, 12, heap);
    AttrLng(col, 41, heap_size);
    AttrStr(col, 22, heap);
    AttrInt(col, 23, b->twidth);
    AttrLng(col, 42, heap_size);
  }
  std::vector<std::string> ReadStrings(const char* name) {
    std::vector<std::string> out;
    bat id = CVDbat_lookup(name);
    BAT* b = id != 0 ? BBPdescriptor(id) : nullptr;
    EXPECT_NE(b, nullptr);
    if (b == nullptr) return out;
    for (BUN i = 0; i < b->batCount; i++) out.emplace_back(static_cast<const char*>(BUNtail(b, i)));
    BBPreleaseref(id);
    return out;
  }
};

TEST_F(StringExportTest, ExportsAppendAndTheKernelReadsEveryRow) {
  std::vector<std::string> first = {"red", kNilString, "", "green", "red", "\x80x"};
  std::vector<std::string> second;
  for (int i = 0; i < 400; i++) second.push_back("value " + std::to_string(i));
  second.insert(second.end(), first.begin(), first.end());
  bat target = Target("s", TYPE_str);
  ASSERT_EQ(TMcommit(), 0);
  std::vector<std::string> expected;
  int round = 0;
  for (const auto& rows : {first, second}) {
    SCOPED_TRACE(round++);
    target = CVDbat_lookup("s");
    StringColumn("s", target, 7);
    ASSERT_EQ(Export(Result({{"s", Strings(rows)}}, DenseOrder(rows.size()))), "");
    expected.insert(expected.end(), rows.begin(), rows.end());
    Reopen();
    EXPECT_EQ(ReadStrings("s"), expected);
  }
  const BAT* b = BBPgetdesc(CVDbat_lookup("s"));
  EXPECT_EQ(b ? b->twidth : 0, 2);  // widened by the second export
}

}  // namespace
}  // namespace qopci_test
