#include "tools/verify.h"

#include "corvid/farm.h"
#include "tools/inspect.h"
#include "tools/kernel_io.h"
#include "tools/level_target.h"

namespace qopci {

namespace {

// Every row code of every dictionary column must be a code of its dictionary (or the nil
// code): decoding the column checks just that. Every level of a time-level column must be
// the one its timestamp gives. Run on a farm whose files the kernel found sound; one line
// per column that fails.
int CheckDerivedColumns(const std::string& farm, std::ostream& out) {
  if (!FromKernel(CVDfarm_open(farm.c_str(), CVD_FARM_READONLY)).ok()) return 0;
  int faults = 0;
  for (const FarmColumn& c : FarmColumns()) {
    if (c.keys == 0) continue;
    BAT* b = nullptr;
    Status s = LoadShown(c, &b);
    if (s.ok()) {
      ReleaseShown(c, b);
    } else {
      out << c.name << ": " << s.message() << "\n";
      ++faults;
    }
  }
  faults += CheckLevelColumns(out);
  CVDfarm_close();
  return faults;
}

}  // namespace

Status RunVerify(const std::string& farm, std::ostream& out) {
  char* report = nullptr;
  int faults = 0;
  Status s = CheckFarmDir(farm, FarmUse::kRead, false);
  if (s.ok()) s = FromKernel(CVDfarm_verify(farm.c_str(), &report, &faults));
  if (report != nullptr) out << report;
  GDKfree(report);
  if (!s.ok()) return s;
  if (faults == 0) faults = CheckDerivedColumns(farm, out);
  if (faults > 0)
    return Status::Error("farm " + farm + " has " + std::to_string(faults) +
                         (faults == 1 ? " fault" : " faults"));
  return Status::OK();
}

}  // namespace qopci
