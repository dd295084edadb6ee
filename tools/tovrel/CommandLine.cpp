#include "CommandLine.h"

#include "ExitStatus.h"
#include "ToolError.h"

namespace Tovrel {
namespace Tool {

namespace {

bool LooksLikeOption(const std::string& word) { return word.size() > 1 && word[0] == '-'; }

}  // namespace

CommandLine::CommandLine(const std::vector<std::string>& words, const std::set<std::string>& flags,
                         const std::set<std::string>& valueOptions)
    : help_(false) {
  bool optionsEnded = false;
  for (std::size_t i = 0; i < words.size(); ++i) {
    const std::string& word = words[i];
    if (optionsEnded || !LooksLikeOption(word)) {
      positionals_.push_back(word);
    } else if (word == "--") {
      optionsEnded = true;
    } else if (word == "--help" || word == "-h") {
      help_ = true;
    } else if (flags.count(word) != 0) {
      flags_.insert(word);
    } else if (valueOptions.count(word.substr(0, word.find('='))) != 0 && word.find('=') != std::string::npos) {
      values_[word.substr(0, word.find('='))] = word.substr(word.find('=') + 1);
    } else if (valueOptions.count(word) != 0) {
      if (i + 1 == words.size()) throw ToolError(ExitStatus::kUsage, "option " + word + " needs a value");
      values_[word] = words[++i];
    } else {
      throw ToolError(ExitStatus::kUsage, "unknown option " + word);
    }
  }
}

std::string CommandLine::Value(const std::string& option, const std::string& fallback) const {
  const auto found = values_.find(option);
  return found == values_.end() ? fallback : found->second;
}

std::uint64_t CommandLine::Number(const std::string& text, const std::string& what, std::uint64_t low,
                                  std::uint64_t high) {
  const std::string range = " (" + std::to_string(low) + " to " + std::to_string(high) + ")";
  std::uint64_t value = 0;
  bool valid = !text.empty() && text.size() <= 20;
  for (char c : text) {
    if (c < '0' || c > '9') {
      valid = false;
      break;
    }
    const std::uint64_t digit = static_cast<std::uint64_t>(c - '0');
    if (value > (high - digit) / 10) {
      valid = false;
      break;
    }
    value = value * 10 + digit;
  }
  if (!valid || value < low || value > high) {
    throw ToolError(ExitStatus::kUsage, what + " must be a whole number" + range + ", not \"" + text + "\"");
  }
  return value;
}

}  // namespace Tool
}  // namespace Tovrel
