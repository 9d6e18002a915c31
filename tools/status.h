// Status: the outcome of a tool operation, either OK or an error text that says why.
//
// The tool's own layers (manifest, CSV loading, kernel calls) return a Status instead of
// throwing, so that main() can print the text and choose the exit code in one place.
// Threading: a Status is a plain value; distinct objects may be used from distinct threads.
#ifndef QOPCI_TOOLS_STATUS_H_
#define QOPCI_TOOLS_STATUS_H_

#include <string>
#include <utility>

namespace qopci {

class Status {
 public:
  Status() = default;  // OK

  static Status OK() { return Status(); }
  static Status Error(std::string message) { return Status(std::move(message)); }

  bool ok() const { return !failed_; }
  const std::string& message() const { return message_; }  // empty when ok()

 private:
  explicit Status(std::string message) : failed_(true), message_(std::move(message)) {}

  bool failed_ = false;
  std::string message_;
};

}  // namespace qopci

#endif  // QOPCI_TOOLS_STATUS_H_
