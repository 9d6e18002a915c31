// The plugin's dynamic symbol table holds exactly the five exported functions.
#include <gtest/gtest.h>

#include <cstdio>
#include <set>
#include <string>

namespace {

TEST(SymbolsTest, LibraryExportsExactlyTheFiveFunctions) {
  std::string cmd = std::string("nm -D --defined-only ") + QOPCI_LIBRARY_PATH;
  FILE* p = popen(cmd.c_str(), "r");
  ASSERT_NE(p, nullptr);
  std::set<std::string> defined;
  char line[1024];
  while (fgets(line, sizeof line, p) != nullptr) {
    char type;
    char name[512];
    unsigned long long addr;
    if (sscanf(line, "%llx %c %511s", &addr, &type, name) == 3 && type == 'T')
      defined.insert(name);
  }
  ASSERT_EQ(pclose(p), 0);
  EXPECT_EQ(defined, (std::set<std::string>{
                         "qopci_add_col_metadata_int", "qopci_add_col_metadata_lng",
                         "qopci_add_col_metadata_str", "qopci_export_result",
                         "qopci_set_refresh_columns_structs_function"}));
}

}  // namespace
