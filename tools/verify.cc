#include "tools/verify.h"

#include "corvid/farm.h"
#include "tools/kernel_io.h"

namespace qopci {

Status RunVerify(const std::string& farm, std::ostream& out) {
  char* report = nullptr;
  int faults = 0;
  Status s = CheckFarmDir(farm, FarmUse::kRead, false);
  if (s.ok()) s = FromKernel(CVDfarm_verify(farm.c_str(), &report, &faults));
  if (report != nullptr) out << report;
  GDKfree(report);
  if (!s.ok()) return s;
  if (faults > 0)
    return Status::Error("farm " + farm + " has " + std::to_string(faults) +
                         (faults == 1 ? " fault" : " faults"));
  return Status::OK();
}

}  // namespace qopci
