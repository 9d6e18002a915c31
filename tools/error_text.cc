#include "tools/error_text.h"

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <cstring>
#include <nlohmann/json.hpp>
#include <regex>

#include "tools/closest.h"

namespace qopci {

std::string SystemText(int err) { return std::strerror(err); }

std::string PlainMessage(const std::string& raw) {
  static const std::regex kPrefix(
      R"(\b[A-Za-z]*Exception:[A-Za-z_0-9]*:|\b[A-Za-z_0-9]+::[A-Za-z_0-9]+\(\) ?:( :)? ?)");
  // The kernel gives the system's words and the number; the number is for the detail.
  static const std::regex kErrno(R"( \(errno [0-9]+\))");
  std::string text = std::regex_replace(std::regex_replace(raw, kPrefix, ""), kErrno, "");
  static const char kCode[] = " (Error code ";
  for (size_t at = text.find(kCode); at != std::string::npos; at = text.find(kCode, at)) {
    char* end = nullptr;
    const long code = std::strtol(text.c_str() + at + sizeof kCode - 1, &end, 10);
    if (*end != ')' || code <= 0 || code > 4095) {
      at += sizeof kCode - 1;
      continue;
    }
    const std::string words = ": " + SystemText(static_cast<int>(code));
    text.replace(at, static_cast<size_t>(end + 1 - (text.c_str() + at)), words);
    at += words.size();
  }
  return text;
}

std::string ErrorJson(const std::string& raw) {
  return nlohmann::ordered_json{{"error", PlainMessage(raw)}, {"detail", raw}}.dump();
}

std::string UnknownWord(const std::vector<std::string>& args,
                        const std::vector<CommandWords>& commands,
                        const std::vector<std::string>& global) {
  const CommandWords* command = nullptr;
  std::vector<std::string> names;
  for (const CommandWords& c : commands) names.push_back(c.name);
  for (const std::string& arg : args) {
    if (arg == "--") break;
    const bool option = arg.size() > 1 && arg[0] == '-' &&
                        !std::isdigit(static_cast<unsigned char>(arg[1])) && arg[1] != '.';
    if (!option) {
      if (command == nullptr) {
        auto it = std::find(names.begin(), names.end(), arg);
        if (it == names.end()) return "unknown command \"" + arg + "\"" + DidYouMean(arg, names);
        command = &commands[static_cast<size_t>(it - names.begin())];
      }
      continue;
    }
    const std::string word = arg.substr(0, arg.find('='));
    std::vector<std::string> known = global;
    if (command != nullptr)
      known.insert(known.end(), command->options.begin(), command->options.end());
    if (std::find(known.begin(), known.end(), word) == known.end())
      return "unknown option \"" + word + "\"" +
             (command != nullptr ? " for " + command->name : std::string()) +
             DidYouMean(word, known);
  }
  return "";
}

}  // namespace qopci
