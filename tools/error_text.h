// Error texts as a user reads them. The kernel and the copy-into library report failures in
// texts that hosts match on ("IOException:CVDfarm_open:...", "... (Error code 28)"); the
// tool shows them without their exception and method prefixes and with the system's words
// for an errno, and keeps the raw text for --verbose and for JSON output. This is also the
// one place where the tool turns an errno into text.
//
// Threading: pure functions; safe from any thread.
#ifndef QOPCI_TOOLS_ERROR_TEXT_H_
#define QOPCI_TOOLS_ERROR_TEXT_H_

#include <string>
#include <vector>

namespace qopci {

// The system's words for errno `err` ("No space left on device").
std::string SystemText(int err);

// `raw` without "<Kind>Exception:<function>:" and "<Class>::<Method>() : " prefixes, and with
// every "(Error code N)" read as ": <SystemText(N)>"; the kernel's " (errno N)" after the
// system's words is dropped.
std::string PlainMessage(const std::string& raw);

// {"error": PlainMessage(raw), "detail": raw} as one line of JSON.
std::string ErrorJson(const std::string& raw);

// A subcommand of the tool as the command line knows it: its name and its options'
// spellings ("--farm", "-h").
struct CommandWords {
  std::string name;
  std::vector<std::string> options;
};

// The first word of a command line (argv without the program) that names no subcommand or
// option: "unknown command \"inspct\" (did you mean \"inspect\"?)" or "unknown option
// \"--fram\" for inspect (did you mean \"--farm\"?)"; "" when every word is known. Only
// the subcommand and words that look like options are checked, up to a "--"; `global`
// options (flags) are allowed anywhere.
std::string UnknownWord(const std::vector<std::string>& args,
                        const std::vector<CommandWords>& commands,
                        const std::vector<std::string>& global);

}  // namespace qopci

#endif  // QOPCI_TOOLS_ERROR_TEXT_H_
