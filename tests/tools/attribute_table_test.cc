#include "tools/attribute_table.h"

#include <gtest/gtest.h>

#include <cctype>
#include <fstream>
#include <map>
#include <sstream>

#include "tools/column_attributes.h"

namespace qopci {
namespace {

// The doc's table of attributes read by this version: number -> "call | range".
std::map<int, std::string> DocTable() {
  std::ifstream in(QOPCI_ATTRIBUTES_DOC);
  EXPECT_TRUE(in) << QOPCI_ATTRIBUTES_DOC;
  std::map<int, std::string> rows;
  std::string line;
  bool inside = false;
  while (std::getline(in, line)) {
    if (line.rfind("#", 0) == 0) inside = line == "## Attributes read by this version";
    if (!inside || line.size() < 3 || line[0] != '|' ||
        !std::isdigit(static_cast<unsigned char>(line[2])))
      continue;
    std::vector<std::string> cells;
    std::istringstream row(line.substr(1));
    for (std::string cell; std::getline(row, cell, '|');) {
      const size_t b = cell.find_first_not_of(' '), e = cell.find_last_not_of(' ');
      cells.push_back(b == std::string::npos ? "" : cell.substr(b, e - b + 1));
    }
    EXPECT_GE(cells.size(), 3u) << line;
    if (cells.size() >= 3) rows[std::stoi(cells[0])] = cells[1] + " | " + cells[2];
  }
  return rows;
}

TEST(AttributeTableTest, DocumentedTableMatchesTheCode) {
  std::map<int, std::string> code;
  for (int n = 0; n < kAttributeCount; ++n) {
    const AttributeSpec& spec = AttributeInfo(n);
    if (spec.read) code[n] = std::string(CallName(spec.call)) + " | " + RangeText(spec.range);
  }
  EXPECT_EQ(DocTable(), code);
}

// What RegisteredAttributes() hands the library as attribute 2 for a manifest that skipped
// the manifest checks, or its refusal.
std::string ChunkSizeRegistered(const std::string& manifest_json, uint64_t rows) {
  Manifest m;
  Status s = ParseManifest(manifest_json, &m);
  std::vector<Attribute> attrs;
  if (s.ok()) s = RegisteredAttributes(m, m.columns[0], {"/f/bat/07.tail", 0}, false, rows, &attrs);
  if (!s.ok()) return s.message();
  std::string registered;
  for (const Attribute& a : attrs)
    if (a.number == 2) registered = std::string(CallName(a.kind)) + " " + std::to_string(a.value);
  return registered;
}

TEST(AttributeTableTest, RegisteredChunkSizeFollowsTheRowsAndTheFinalCheckRefuses) {
  auto manifest = [](const std::string& chunk, const std::string& attrs) {
    return R"({"table": "t", )" + chunk + R"( "columns": [{"name": "c", "type": "bigint",
        "attributes": {)" +
           attrs + "}}]}";
  };
  const struct {
    std::string json;
    uint64_t rows;
    std::string want;
  } cases[] = {
      {manifest("", ""), 49, "int 49"},
      {manifest("", ""), 0, "int 1"},
      {manifest("", ""), 100000, "int 65536"},
      {manifest(R"("chunk_size": 16777216,)", ""), 20000000, "int 16777216"},
      {manifest("", R"("2": 500)"), 49, "int 49"},  // a raw chunk size is cut as well
      // Values the manifest checks refuse never reach the library through this gate either.
      {manifest(R"("chunk_size": 2147483647,)", ""), 3000000000,
       "internal error: column c: attribute 2 (chunk size) would be registered as 2147483647, "
       "outside 1 to 16777216"},
      {manifest("", R"("5": 1099511627776)"), 49,
       "internal error: column c: attribute 5 (tail file) would be registered as lng, but the "
       "library reads it as str"},
      {manifest("", R"("3": 9)"), 49,
       "internal error: column c: attribute 3 (chunker type code) would be registered as 9, "
       "outside 0 to 8"},
      {manifest("", R"("34": 4294967296)"), 49,
       "internal error: column c: attribute 34 would be registered as int, but 4294967296 needs "
       "64 bits"},
  };
  for (const auto& c : cases) EXPECT_EQ(ChunkSizeRegistered(c.json, c.rows), c.want) << c.json;
}

}  // namespace
}  // namespace qopci
