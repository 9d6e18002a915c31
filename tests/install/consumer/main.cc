// Exports one int column through the installed library into a fresh farm.
#include <corvid/farm.h>
#include <corvid/sql.h>
#include <qopci/qopci.h>

#include <cstdio>
#include <string>

int main(int argc, char** argv) {
  if (argc != 2) return 2;
  if (char* err = CVDfarm_open(argv[1], 1)) return std::puts(err), 1;
  bat target = 0, values = 0, order = 0;
  int v[3] = {1, 2, 3};
  CVDbat_create(TYPE_int, "t.c", 0, &target);
  CVDbat_create(TYPE_int, nullptr, 3, &values);
  CVDbat_append_n(values, v, 3);
  CVDbat_dense(0, 3, &order);
  mvc* m = mvc_create();
  res_table* t = res_table_create(m, 1, order);
  res_col_set(t, 0, "t", "c", "int", 0, 0, values);
  char buf[4096];
  std::string file = CVDbat_filename(target, "tail", buf, sizeof buf);
  char* col = const_cast<char*>("c");
  char* path = file.data();
  int64_t zero64 = 0;
  struct { int attr, value; } ints[] = {{0, 0}, {1, 0}, {2, 1024}, {3, 0}, {4, 0}, {6, 0},
                                         {33, 0}, {34, 1}, {36, 0}, {50, 0}};
  for (auto& a : ints) qopci_add_col_metadata_int(nullptr, &col, &a.attr, &a.value);
  int attr = 5;
  qopci_add_col_metadata_str(nullptr, &col, &attr, &path);
  attr = 38;
  qopci_add_col_metadata_lng(nullptr, &col, &attr, &zero64);
  char* error = nullptr;
  qopci_export_result(m, t->id, CVDfarm_logger(), &error);
  if (error != nullptr) return std::puts(error), 1;
  mvc_destroy(m);
  std::printf("exported %d rows\n", static_cast<int>(BBPgetdesc(target)->batCount));
  CVDfarm_close();
  return 0;
}
