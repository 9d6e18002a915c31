#include "tools/attribute_table.h"

#include <gtest/gtest.h>

#include <cctype>
#include <fstream>
#include <map>
#include <sstream>


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

}  // namespace
}  // namespace qopci
