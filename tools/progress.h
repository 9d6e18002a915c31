// ProgressBar: a one-line bar redrawn in place on a terminal while a long job runs
// ("loading trades.csv [#####     ]  52%"). It draws nothing when its stream is not a
// terminal, so logs and pipes stay clean.
//
// Threading: one bar belongs to one thread.
#ifndef QOPCI_TOOLS_PROGRESS_H_
#define QOPCI_TOOLS_PROGRESS_H_

#include <cstdint>
#include <cstdio>
#include <string>

namespace qopci {

class ProgressBar {
 public:
  // A bar for a job of `total` units drawn on `out` (not owned; must outlive the bar).
  // It stays silent unless `out` is a terminal.
  ProgressBar(std::string label, uint64_t total, FILE* out);
  ~ProgressBar();  // clears the line if anything was drawn

  ProgressBar(const ProgressBar&) = delete;
  ProgressBar& operator=(const ProgressBar&) = delete;

  // Report that `done` of the total units are finished; redraws on each new percent.
  void Update(uint64_t done);

 private:
  std::string label_;
  uint64_t total_;
  FILE* out_;
  bool enabled_;
  int shown_percent_ = -1;  // last percentage drawn
};

}  // namespace qopci

#endif  // QOPCI_TOOLS_PROGRESS_H_
