// The five functions the host calls, and the globals they share: the one CIManager, the
// string duplicates made for string attributes, and the refresh callback.
#include <cstdint>
#include <list>

#include "copy_into/ci_manager.h"
#include "corvid/exception.h"
#include "qopci/qopci.h"

#define QOPCI_EXPORT extern "C" __attribute__((visibility("default")))

namespace qopci {
namespace {

CIManager* g_manager = nullptr;          // created by the first add call of an export
std::list<char*> g_string_duplicates;    // GDKstrdup copies of string attribute values
qopci_refresh_fn g_refresh = nullptr;    // survives exports

// Checks the attribute number (compared unsigned, so negatives fail too) and makes sure a
// manager exists. Returns an exception text for a bad number.
char* PrepareAdd(int attr) {
  if (static_cast<uint32_t>(attr) > 50)
    return createException(ILLARG, "qopci_validate_add_md", "Bad attribute enum");
  if (g_manager == nullptr) g_manager = new CIManager();
  return nullptr;
}

void FreeStringDuplicates() {
  for (char* s : g_string_duplicates) GDKfree(s);
  g_string_duplicates.clear();
}

// Brings the rewritten BATs back into the host's cache and lets it check their properties.
void ReloadBATs(const std::list<bat>& ids) {
  for (bat id : ids) {
    if (BBPgetdesc(id) == nullptr) continue;
    BBPincref(id, 0);
    BAT* b = BATload_intern(id, 0);
    if (b != nullptr) {
      BBPcacheit(b, 0);
      BATpropcheck(b);
    }
    BBPdecref(id, 0);
    bat cold = id;
    char* err = BKCcoldBAT(&cold);
    if (err != nullptr) GDKfree(err);
  }
}

}  // namespace

void RefreshColumn(bat id) {
  if (g_refresh != nullptr) g_refresh(id);
}

}  // namespace qopci

using qopci::g_manager;

QOPCI_EXPORT char* qopci_add_col_metadata_int(void*, char** column, int* attr, int* value) {
  if (char* err = qopci::PrepareAdd(*attr)) return err;
  g_manager->AddAttribute(*column, *attr, value, sizeof *value);
  return nullptr;
}

QOPCI_EXPORT char* qopci_add_col_metadata_lng(void*, char** column, int* attr,
                                               int64_t* value) {
  if (char* err = qopci::PrepareAdd(*attr)) return err;
  g_manager->AddAttribute(*column, *attr, value, sizeof *value);
  return nullptr;
}

QOPCI_EXPORT char* qopci_add_col_metadata_str(void*, char** column, int* attr, char** value) {
  if (char* err = qopci::PrepareAdd(*attr)) return err;
  char* copy = GDKstrdup(*value);
  qopci::g_string_duplicates.push_back(copy);
  g_manager->AddAttribute(*column, *attr, &copy, sizeof copy);
  return nullptr;
}

QOPCI_EXPORT int qopci_export_result(mvc* context, int result_id, logger* lg, char** error) {
  std::list<bat> reload;
  if (g_manager == nullptr) return 0;
  BBPlock("qopci_export_result()");
  bool ok = g_manager->ExecuteCopyInto(context, result_id);
  if (ok) {
    ok = g_manager->UpdateBBP(lg);
    for (const auto& job : g_manager->jobs())
      reload.insert(reload.end(), job->rewritten.begin(), job->rewritten.end());
  }
  if (error != nullptr) *error = const_cast<char*>(g_manager->error());
  qopci::FreeStringDuplicates();
  delete g_manager;
  g_manager = nullptr;
  if (ok) {
    qopci::ReloadBATs(reload);
    if (error != nullptr) *error = nullptr;
  }
  BBPunlock("qopci_export_result()");
  if (ok) GDKmemchk(0);
  return 1;
}

QOPCI_EXPORT void qopci_set_refresh_columns_structs_function(qopci_refresh_fn fn) {
  qopci::g_refresh = fn;
}
