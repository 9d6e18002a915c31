// StringDictWriter: the kernel reads back, through its three BATs, every dictionary string,
// every key code and every row code the writer wrote or appended.
#include "writers/string_dict_writer.h"

#include <gtest/gtest.h>

#include <map>
#include <string>
#include <vector>

#include "chunkers/bat_chunk.h"
#include "tests/writers/string_test_farm.h"

namespace qopci_test {
namespace {

using qopci::KeyValueChunk;
using qopci::SimpleTypeChunk;
using qopci::StringDictWriter;

std::string File(bat id, const char* ext) {
  char path[1024];
  CVDbat_filename(id, ext, path, sizeof path);
  return path;
}

// Codes every row by first appearance after the entries already in `dict`, and builds the
// chunk a string dictionary chunker would hand over.
KeyValueChunk<unsigned>* Encode(const std::vector<std::string>& rows,
                                std::map<std::string, unsigned>* dict, StringChunker* keys) {
  auto* key_codes = new SimpleTypeChunk<unsigned>(rows.size() + 1);
  auto* codes = new SimpleTypeChunk<unsigned>(rows.size() + 1);
  for (const std::string& s : rows) {
    auto [it, added] = dict->emplace(s, static_cast<unsigned>(dict->size() + 1));
    if (added) {
      uint32_t offset;
      keys->InsertString(s.c_str(), &offset);
      key_codes->buffer_[key_codes->count_++] = it->second;
    }
    codes->buffer_[codes->count_++] = it->second;
  }
  key_codes->size_ = key_codes->count_ * 4u;
  codes->size_ = codes->count_ * 4u;
  return new KeyValueChunk<unsigned>(keys->TakeChunk(), key_codes, codes);
}

TEST_F(StringFarmTest, StringDictionaryReadBackThroughTheKernel) {
  struct Case {
    const char* name;
    std::vector<std::string> first;   // the first export (new files)
    std::vector<std::string> second;  // appended by a second export
    bool with_codes;                  // the column has a row-code file
    bool queued;
  } cases[] = {
      {"new, then appended", {"b", "a", "b", kNil, "a"}, {"c", "a", kNil, "d"}, true, false},
      {"appended past tail width 1", {"x", "y"}, Numbered("w", 300, 10), true, true},
      {"dictionary only", {"p", "q", "p"}, {"r", "q"}, false, false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    bat keys_id = 0, key_codes_id = 0, codes_id = 0;
    ASSERT_EQ(CVDbat_create(TYPE_str, "t.c.dict", 0, &keys_id), nullptr);
    ASSERT_EQ(CVDbat_create(TYPE_int, "t.c.dict_codes", 0, &key_codes_id), nullptr);
    ASSERT_EQ(CVDbat_create(TYPE_int, "t.c", 0, &codes_id), nullptr);
    ASSERT_EQ(TMcommit(), 0);
    const std::string heap = File(keys_id, "theap"), key_tail = File(keys_id, "tail");
    const std::string key_code_file = File(key_codes_id, "tail"), code_file = File(codes_id, "tail");
    std::map<std::string, unsigned> dict;
    std::vector<std::string> rows;
    for (const auto* batch : {&c.first, &c.second}) {
      const bool append = batch == &c.second;
      for (bat id : {keys_id, key_codes_id, codes_id}) {
        BAT* b = BBPgetdesc(id);
        if (b->theap.base != nullptr) BATfree(b);
        BBPuncacheit(id, 0);
      }
      const uint64_t entries = dict.size(), heap_size = BBPgetdesc(keys_id)->tvheap->free;
      const uint64_t kept = append ? BBPgetdesc(codes_id)->batCount : 0;
      ConcurrentQueue queue(nullptr, 2);
      StringChunker chunker(1000, 20, heap.c_str(), append ? heap_size : 0);
      StringDictWriter w(heap.c_str(), key_tail.c_str(), key_code_file.c_str(),
                         c.with_codes ? code_file.c_str() : nullptr, append, entries, kept,
                         append ? heap_size : 0);
      if (c.queued) w.SetQueue(&queue);
      ASSERT_TRUE(w.Open());
      ASSERT_TRUE(SubmitChunk(&w, Encode(*batch, &dict, &chunker), true));
      queue.WaitForProcessingEnd();
      ASSERT_TRUE(queue.m_bOK);
      ASSERT_TRUE(w.Close());
      rows.insert(rows.end(), batch->begin(), batch->end());
      Install(keys_id, w.member(0), dict.size());
      Install(key_codes_id, w.member(1), dict.size());
      if (c.with_codes) Install(codes_id, w.member(2), rows.size());
      ASSERT_EQ(TMcommit(), 0);
    }
    CVDfarm_close();
    ASSERT_EQ(CVDfarm_open(Path("farm").c_str(), 0), nullptr);
    BAT* keys = BBPdescriptor(CVDbat_lookup("t.c.dict"));
    BAT* key_codes = BBPdescriptor(CVDbat_lookup("t.c.dict_codes"));
    BAT* codes = BBPdescriptor(CVDbat_lookup("t.c"));
    ASSERT_TRUE(keys && key_codes && codes);
    ASSERT_EQ(keys->batCount, dict.size());
    ASSERT_EQ(key_codes->batCount, dict.size());
    std::map<unsigned, std::string> by_code;
    for (size_t i = 0; i < dict.size(); i++) {
      const std::string s = static_cast<const char*>(BUNtail(keys, i));
      const unsigned code = *static_cast<const unsigned*>(BUNtail(key_codes, i));
      EXPECT_EQ(dict.at(s), code) << i;
      by_code[code] = s;
    }
    ASSERT_EQ(codes->batCount, c.with_codes ? rows.size() : 0u);
    for (size_t i = 0; i < codes->batCount; i++)
      EXPECT_EQ(by_code[*static_cast<const unsigned*>(BUNtail(codes, i))], rows[i]) << i;
    for (BAT* b : {keys, key_codes, codes}) BBPreleaseref(b->batCacheid);
    CVDfarm_close();
    VerifyAndStartOver();
  }
}

}  // namespace
}  // namespace qopci_test
