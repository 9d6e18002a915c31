// The pieces the copy and bench commands share: a farm with its client context that is
// closed on every path, and the registration of attributes through the plugin.
// Threading: one command thread.
#ifndef QOPCI_TOOLS_SESSION_H_
#define QOPCI_TOOLS_SESSION_H_

#include <cstdint>
#include <string>
#include <vector>

#include "corvid/farm.h"
#include "corvid/sql.h"
#include "tools/kernel_io.h"
#include "tools/manifest.h"
#include "tools/status.h"

namespace qopci {

// Opens a farm (with CVD_FARM_* flags; by default made when missing) and a client context;
// the destructor closes both, dropping anything uncommitted.
class FarmSession {
 public:
  FarmSession() = default;
  ~FarmSession();
  FarmSession(const FarmSession&) = delete;
  FarmSession& operator=(const FarmSession&) = delete;

  // The error is the kernel's text as it is (it names the farm, and for a farm another
  // writer holds, that writer's process id).
  Status Open(const std::string& dir, int flags = CVD_FARM_CREATE);
  mvc* context() const { return context_; }

 private:
  bool open_ = false;
  mvc* context_ = nullptr;
};

// Registers attribute `a` of `column` with the matching qopci_add_col_metadata_ call.
Status RegisterAttribute(const std::string& column, const Attribute& a);

// Registers every attribute of every target's column for a result of `rows` rows
// (RegisteredAttributes()); nothing of a column whose attributes fail the final check.
Status RegisterColumns(const Manifest& manifest, const std::vector<TargetColumn>& targets,
                       bool force_sync, uint64_t rows);

}  // namespace qopci

#endif  // QOPCI_TOOLS_SESSION_H_
