// Generated columns at the reader level: what the end-to-end export cannot reach (files
// that pass the factory's checks and still fail, type names, value lifetime).
#include "readers/bat_internal_reader.h"

#include <cstdint>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "corvid/gdk.h"
#include "gtest/gtest.h"
#include "readers/simple_type_bat_reader.h"
#include "readers/simple_type_dict_reader.h"
#include "readers/string_reader.h"
#include "tests/readers/reader_test_util.h"
#include "writers/mmf/mmf.h"

namespace qopci {
namespace {

using GeneratedTest = ReaderTest;

// Pulls values as the copy does, each formatted by fmt, until atEnd. "!text" records an
// exception.
std::vector<std::string> Pull(InternalReader& r, std::function<std::string(const void*)> fmt) {
  std::vector<std::string> out;
  try {
    while (!r.atEnd()) {
      const void* v = r.next();
      if (v != nullptr) out.push_back(fmt(v));
    }
  } catch (const char* text) {
    out.push_back(std::string("!") + text);
  }
  return out;
}

template <typename T>
std::function<std::string(const void*)> As() {
  return [](const void* v) { return std::to_string(*static_cast<const T*>(v)); };
}
std::string AsString(const void* v) { return static_cast<const char*>(v); }

// Pulls every value of the reader (which it owns) and checks its type and the values.
void Expect(InternalReader* reader, std::function<std::string(const void*)> fmt, const char* type,
            const std::vector<std::string>& expected) {
  std::unique_ptr<InternalReader> r(reader);
  EXPECT_EQ(r->type(), ATOMindex(type)) << type;
  EXPECT_EQ(Pull(*r, fmt), expected) << type;
  EXPECT_TRUE(r->atEnd()) << type;
}

TEST_F(GeneratedTest, TypesFailuresAndTheEnd) {
  std::string codes = PutValues<unsigned int>("codes", {2, 1, 2});
  std::string values = PutValues<int64_t>("values", {100, -200});
  std::string heap = Put("heap", std::string("red\0\0\0\0\0green\0\0\0blue\0", 21));
  std::string tail = PutValues<uint32_t>("tail", {0, 1, 2});
  std::string bad_tail = PutValues<uint32_t>("bad", {0, 1000});
  std::string empty = Put("empty", "");
  std::string missing = dir_ + "/missing";
  constexpr uint64_t kAll = MMF::kNoRequestedSize;
  using Str = BatInternalReader<char*, unsigned int>;
  // A dictionary of timestamps.
  Expect(new BatInternalReader<int64_t, unsigned int>(
             nullptr,
             new SimpleTypeDictReader<int64_t, unsigned int>(
                 values.c_str(), 16, new SimpleTypeBATReader<unsigned int>(codes.c_str(), 12)),
             true, 3),
         As<int64_t>(), "timestamp", {"-200", "100", "-200"});
  Expect(new BatInternalReader<double, unsigned int>(
             new SimpleTypeBATReader<double>(empty.c_str(), 0), nullptr, false, 0),
         As<double>(), "dbl", {});
  Expect(new BatInternalReader<int64_t, unsigned int>(
             new SimpleTypeBATReader<int64_t>(missing.c_str(), 8), nullptr, false, 1),
         As<int64_t>(), "lng", {"!shit on the ground"});
  Expect(new Str(new StringReader(missing.c_str(), tail.c_str(), 4, 12, kAll), nullptr, false, 3),
         AsString, "str", {"!shit on the ground"});
  // An offset past the heap ends the column early.
  Expect(new Str(new StringReader(heap.c_str(), bad_tail.c_str(), 4, 8, kAll), nullptr, false, 2),
         AsString, "str", {"red", "!Generated column ended after 1 of 2 rows"});
  Expect(new BatInternalReader<unsigned int, int>(
             new SimpleTypeBATReader<unsigned int>(codes.c_str(), kAll), nullptr, false, 5),
         As<unsigned int>(), "oid", {"2", "1", "2", "!Generated column ended after 3 of 5 rows"});
}

TEST_F(GeneratedTest, AStringStaysValidUntilTheNextCall) {
  // Strings on both sides of a granule boundary: the second row moves the heap's span.
  std::string bytes(140000, '\0');
  std::memcpy(&bytes[8], "first", 5);
  std::memcpy(&bytes[131072], "second", 6);
  std::string heap = Put("heap", bytes);
  std::string tail = PutValues<uint32_t>("tail", {1, 131072 / 8});
  BatInternalReader<char*, unsigned int> r(
      new StringReader(heap.c_str(), tail.c_str(), 4, 8, MMF::kNoRequestedSize), nullptr, false, 2);
  for (const char* expected : {"first", "second"}) {
    const char* s = static_cast<const char*>(r.next());
    ASSERT_NE(s, nullptr) << expected;
    EXPECT_STREQ(s, expected);
  }
  EXPECT_EQ(r.next(), nullptr);
  EXPECT_TRUE(r.atEnd());
}

}  // namespace
}  // namespace qopci
