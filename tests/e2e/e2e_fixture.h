// A farm in a temporary directory with a client context, and helpers that build results,
// register attributes through the exported functions, export, and read columns back.
#ifndef QOPCI_TESTS_E2E_E2E_FIXTURE_H_
#define QOPCI_TESTS_E2E_E2E_FIXTURE_H_

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "corvid/exception.h"
#include "corvid/farm.h"
#include "corvid/gdk.h"
#include "corvid/sql.h"
#include "qopci/qopci.h"
#include "tests/support/kernel_text.h"
#include "tests/support/temp_dir.h"

namespace qopci_test {

class FarmTest : public ::testing::Test {
 public:
  FarmTest() = default;
  // A farm on the memory file system (/dev/shm) when the machine has one: for tests that
  // commit many times, whose file syncs would otherwise take most of their time.
  struct InMemory {};
  explicit FarmTest(InMemory)
      : tmp_(access("/dev/shm", W_OK) == 0 ? "../dev/shm/qopci-e2e-" : "qopci-e2e-") {}

  void SetUp() override {
    ASSERT_FALSE(dir_.empty());
    Open(true);
  }
  void TearDown() override {
    if (ctx_ != nullptr) mvc_destroy(ctx_);
    CVDfarm_close();
  }

  void Open(bool create) {
    char* err = CVDfarm_open(dir_.c_str(), create ? 1 : 0);
    ASSERT_EQ(err, nullptr) << err;
    ctx_ = mvc_create();
  }
  // Closes the farm without committing and opens it again from disk.
  void Reopen() {
    mvc_destroy(ctx_);
    ctx_ = nullptr;
    CVDfarm_close();
    Open(false);
  }

  bat Target(const char* name, int type) {
    bat b = 0;
    char* err = CVDbat_create(type, name, 0, &b);
    EXPECT_EQ(err, nullptr) << err;
    return b;
  }
  template <typename T>
  bat Column(int type, const std::vector<T>& values) {
    bat b = 0;
    char* err = CVDbat_create(type, nullptr, values.size(), &b);
    EXPECT_EQ(err, nullptr) << err;
    if (!values.empty()) {
      EXPECT_EQ(CVDbat_append_n(b, values.data(), values.size()), nullptr);
    }
    return b;
  }
  bat Order(const std::vector<oid>& rows) { return Column<oid>(TYPE_oid, rows); }
  bat DenseOrder(BUN n) {
    bat b = 0;
    EXPECT_EQ(CVDbat_dense(0, n, &b), nullptr);
    return b;
  }
  // A result table with the named columns; order 0 means none.
  int Result(const std::vector<std::pair<std::string, bat>>& cols, bat order) {
    res_table* t = res_table_create(ctx_, static_cast<int>(cols.size()), order);
    for (size_t i = 0; i < cols.size(); i++)
      res_col_set(t, static_cast<int>(i), "t", cols[i].first.c_str(), "", 0, 0, cols[i].second);
    return t->id;
  }

  std::string AttrInt(const std::string& col, int attr, int v) {
    char* c = const_cast<char*>(col.c_str());
    return Take(qopci_add_col_metadata_int(nullptr, &c, &attr, &v));
  }
  std::string AttrLng(const std::string& col, int attr, int64_t v) {
    char* c = const_cast<char*>(col.c_str());
    return Take(qopci_add_col_metadata_lng(nullptr, &c, &attr, &v));
  }
  std::string AttrStr(const std::string& col, int attr, const std::string& v) {
    char* c = const_cast<char*>(col.c_str());
    char* s = const_cast<char*>(v.c_str());
    return Take(qopci_add_col_metadata_str(nullptr, &c, &attr, &s));
  }

  std::string TailFile(bat target) {
    char buf[4096];
    return CVDbat_filename(target, "tail", buf, sizeof buf);
  }

  // Registers the attributes every column needs, for writing into `target`.
  void Common(const std::string& col, bat target, int source = 0, bool queued = true,
              int chunk = 1000) {
    AttrInt(col, 2, chunk);
    AttrStr(col, 5, TailFile(target));
    AttrInt(col, 6, 1);
    AttrLng(col, 38, static_cast<int64_t>(BBPgetdesc(target)->batCount));
    AttrInt(col, 33, source);
    AttrInt(col, 34, queued ? 1 : 0);
    AttrInt(col, 36, 0);
    AttrInt(col, 50, 0);
  }
  void Fixed(const std::string& col, bat target, int code, bool queued = true, int chunk = 1000,
             int source = 0) {
    Common(col, target, source, queued, chunk);
    AttrInt(col, 0, 0);
    AttrInt(col, 1, 0);
    AttrInt(col, 3, code);
    AttrInt(col, 4, code);
  }
  void Decimal(const std::string& col, bat target, int precision, int scale) {
    Common(col, target);
    AttrInt(col, 0, 4);
    AttrInt(col, 1, 7);
    AttrInt(col, 7, precision);
    AttrInt(col, 8, scale);
    AttrInt(col, 9, precision);
    AttrInt(col, 10, scale);
  }

  // Runs the export; returns the error text ("" on success).
  std::string Export(int result_id, int* rc = nullptr) {
    char* error = nullptr;
    int r = qopci_export_result(ctx_, result_id, CVDfarm_logger(), &error);
    if (rc != nullptr) *rc = r;
    return error != nullptr ? error : "";
  }

  // The tail values of a persistent BAT, read through the kernel's own loading.
  template <typename T>
  std::vector<T> Read(const char* name) {
    std::vector<T> out;
    bat id = CVDbat_lookup(name);
    EXPECT_NE(id, 0) << name;
    BAT* b = id != 0 ? BBPdescriptor(id) : nullptr;
    EXPECT_NE(b, nullptr) << name;
    if (b == nullptr) return out;
    for (BUN i = 0; i < b->batCount; i++) {
      T v;
      std::memcpy(&v, BUNtail(b, i), sizeof v);
      out.push_back(v);
    }
    BBPreleaseref(id);
    return out;
  }

  TempDir tmp_{"qopci-e2e-"};
  const std::string dir_ = tmp_.path();
  mvc* ctx_ = nullptr;
};

}  // namespace qopci_test

#endif  // QOPCI_TESTS_E2E_E2E_FIXTURE_H_
