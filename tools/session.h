// The pieces the copy and bench commands share: a farm with its client context that is
// closed on every path, and the registration of one attribute through the plugin.
// Threading: one command thread.
#ifndef QOPCI_TOOLS_SESSION_H_
#define QOPCI_TOOLS_SESSION_H_

#include <string>

#include "corvid/sql.h"
#include "tools/manifest.h"
#include "tools/status.h"

namespace qopci {

// Opens (or makes) a farm and a client context; the destructor closes both, dropping
// anything uncommitted.
class FarmSession {
 public:
  FarmSession() = default;
  ~FarmSession();
  FarmSession(const FarmSession&) = delete;
  FarmSession& operator=(const FarmSession&) = delete;

  Status Open(const std::string& dir);
  mvc* context() const { return context_; }

 private:
  bool open_ = false;
  mvc* context_ = nullptr;
};

// Registers attribute `a` of `column` with the matching qopci_add_col_metadata_ call.
Status RegisterAttribute(const std::string& column, const Attribute& a);

}  // namespace qopci

#endif  // QOPCI_TOOLS_SESSION_H_
