#include "writers/mmf/mmf_manipulator.h"

#include "writers/mmf/mmf_os.h"

namespace qopci {

MMFManipulator::MMFManipulator(const std::string& name, uint64_t requested_size)
    : name_(name), requested_size_(requested_size) {}

MMFManipulator::~MMFManipulator() = default;

uint64_t MMFManipulator::Size() {
  if (!mmf_) return 0;
  uint64_t logical = mmf_->GetLogicalSize();
  return logical ? logical : mmf_->GetMappingSize();
}

bool MMFManipulator::Close() { return mmf_ ? mmf_->Close() : true; }

bool MMFManipulator::Remove() { return mmf_os::Remove(name_.c_str()) == 0; }

uint32_t MMFManipulator::GetGranularity() const {
  return mmf_ ? mmf_->GetGranularity() : MMF::kGranularity;
}

}  // namespace qopci
