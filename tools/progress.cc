#include "tools/progress.h"

#include <unistd.h>

namespace qopci {

ProgressBar::ProgressBar(std::string label, uint64_t total, FILE* out)
    : label_(std::move(label)),
      total_(total),
      out_(out),
      enabled_(out != nullptr && total > 0 && isatty(fileno(out))) {}

ProgressBar::~ProgressBar() {
  if (enabled_ && shown_percent_ >= 0) {
    std::fprintf(out_, "\r%*s\r", static_cast<int>(label_.size()) + 20, "");
    std::fflush(out_);
  }
}

void ProgressBar::Update(uint64_t done) {
  if (!enabled_) return;
  int percent = static_cast<int>((done >= total_ ? total_ : done) * 100 / total_);
  if (percent == shown_percent_) return;
  shown_percent_ = percent;
  constexpr int kWidth = 10;
  char bar[kWidth + 1];
  for (int i = 0; i < kWidth; ++i) bar[i] = i < percent * kWidth / 100 ? '#' : ' ';
  bar[kWidth] = '\0';
  std::fprintf(out_, "\r%s [%s] %3d%%", label_.c_str(), bar, percent);
  std::fflush(out_);
}

}  // namespace qopci
