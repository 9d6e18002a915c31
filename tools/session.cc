#include "tools/session.h"

#include <cstdint>

#include "corvid/farm.h"
#include "qopci/qopci.h"
#include "tools/kernel_io.h"

namespace qopci {

FarmSession::~FarmSession() {
  if (context_ != nullptr) mvc_destroy(context_);
  if (open_) CVDfarm_close();
}

Status FarmSession::Open(const std::string& dir, int flags) {
  Status s = FromKernel(CVDfarm_open(dir.c_str(), flags));
  open_ = s.ok();
  if (s.ok()) context_ = mvc_create();
  if (s.ok() && context_ == nullptr) return Status::Error("cannot create a client context");
  return s;
}

Status RegisterAttribute(const std::string& column, const Attribute& a) {
  std::string name = column, text = a.text;
  char* name_ptr = name.data();
  char* text_ptr = text.data();
  int number = a.number;
  int v32 = static_cast<int>(a.value);
  int64_t v64 = a.value;
  char* exception = a.kind == Attribute::kInt
                        ? qopci_add_col_metadata_int(nullptr, &name_ptr, &number, &v32)
                    : a.kind == Attribute::kLng
                        ? qopci_add_col_metadata_lng(nullptr, &name_ptr, &number, &v64)
                        : qopci_add_col_metadata_str(nullptr, &name_ptr, &number, &text_ptr);
  Status s = FromKernel(exception);
  if (!s.ok())
    return Status::Error("column " + column + ", attribute " + std::to_string(a.number) + ": " +
                         s.message());
  return s;
}

Status RegisterColumns(const Manifest& manifest, const std::vector<TargetColumn>& targets,
                       bool force_sync, uint64_t rows) {
  for (const TargetColumn& t : targets) {
    const ManifestColumn& c = manifest.columns[t.manifest_index];
    std::vector<Attribute> attrs;
    Status s = RegisteredAttributes(manifest, c, t.info, force_sync, rows, &attrs);
    for (size_t k = 0; s.ok() && k < attrs.size(); ++k) s = RegisterAttribute(c.name, attrs[k]);
    if (!s.ok()) return s;
  }
  return Status::OK();
}

}  // namespace qopci
