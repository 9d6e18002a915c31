// Runs the qopci executable (QOPCI_BINARY, defined by the test's build) as a user would, and
// keeps its exit status and what it wrote to stdout and stderr. Not thread-safe: the output
// goes through files in a temporary directory.
#ifndef QOPCI_TESTS_SUPPORT_RUN_TOOL_H_
#define QOPCI_TESTS_SUPPORT_RUN_TOOL_H_

#include <stdlib.h>
#include <sys/wait.h>

#include <string>

#include "tests/support/temp_dir.h"

namespace qopci_test {

struct ToolRun {
  int status = -1;  // the exit status; -1 when the process did not exit by itself
  std::string out, err;
};

// Runs `prefix qopci args` through the shell, so args may quote and prefix may wrap the
// command (e.g. to run it as another user).
inline ToolRun RunQopci(const std::string& args, const std::string& prefix = "") {
  TempDir dir("qopci_run_");
  const std::string out = dir.path() + "/out", err = dir.path() + "/err";
  const int status = system((prefix + QOPCI_BINARY " " + args + " >" + out + " 2>" + err).c_str());
  return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, ReadFile(out), ReadFile(err)};
}

}  // namespace qopci_test

#endif  // QOPCI_TESTS_SUPPORT_RUN_TOOL_H_
