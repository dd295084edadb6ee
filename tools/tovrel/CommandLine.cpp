#include "CommandLine.h"

#include <cctype>
#include <cstdint>
#include <map>

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
    if (word.empty()) {
      // Most often a variable that is not set: it must never come to mean
      // "this folder" (tovrel effects clear "$UNSET").
      throw ToolError(ExitStatus::kUsage, "an empty argument names nothing (an unset variable?); "
                                          "write . for the current folder");
    }
    if (optionsEnded || !LooksLikeOption(word)) {
      positionals_.push_back(word);
    } else if (word == "--") {
      optionsEnded = true;
    } else if (word == "--help" || word == "-h") {
      help_ = true;
    } else if (flags.count(word) != 0) {
      flags_.insert(word);
    } else if (valueOptions.count(word.substr(0, word.find('='))) != 0 && word.find('=') != std::string::npos) {
      SetValue(word.substr(0, word.find('=')), word.substr(word.find('=') + 1));
    } else if (valueOptions.count(word) != 0) {
      if (i + 1 == words.size()) throw ToolError(ExitStatus::kUsage, "option " + word + " needs a value");
      SetValue(word, words[++i]);
    } else {
      throw ToolError(ExitStatus::kUsage, "unknown option " + word);
    }
  }
}

void CommandLine::SetValue(const std::string& option, const std::string& value) {
  if (value.empty()) throw ToolError(ExitStatus::kUsage, "option " + option + " needs a value, not an empty one");
  values_[option] = value;
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

std::uint64_t CommandLine::Size(const std::string& text, const std::string& what) {
  static const std::string kUnits = "KMGT";
  const auto refuse = [&] {
    return ToolError(ExitStatus::kUsage, what + " must be a size such as 256M, 1.5G or a number of bytes, not \"" +
                                             text + "\"");
  };
  std::string digits = text;
  std::uint64_t unit = 1;
  if (!digits.empty()) {
    const std::size_t at = kUnits.find(static_cast<char>(std::toupper(static_cast<unsigned char>(digits.back()))));
    if (at != std::string::npos) {
      unit = std::uint64_t{1} << (10 * (at + 1));
      digits.pop_back();
    }
  }
  const std::size_t point = digits.find('.');
  const std::string whole = digits.substr(0, point);
  const std::string fraction = point == std::string::npos ? "" : digits.substr(point + 1);
  if (whole.empty() || fraction.size() > 6 || (point != std::string::npos && fraction.empty()) ||
      fraction.find_first_not_of("0123456789") != std::string::npos) {
    throw refuse();
  }
  std::uint64_t value = 0;
  try {
    value = Number(whole, what, 0, ~std::uint64_t{0} / unit) * unit;
  } catch (const ToolError&) {
    throw refuse();
  }
  std::uint64_t tenths = 1;
  std::uint64_t part = 0;
  for (char c : fraction) {
    part = part * 10 + static_cast<std::uint64_t>(c - '0');
    tenths *= 10;
  }
  const std::uint64_t extra = part * unit / tenths;  // part < 10^6 and unit <= 2^40: no overflow
  if (extra > ~std::uint64_t{0} - value) throw refuse();
  return value + extra;
}

std::int64_t CommandLine::Duration(const std::string& text, const std::string& what) {
  static const std::map<char, std::int64_t> kUnits{{'s', 1}, {'m', 60}, {'h', 3600}, {'d', 86400}, {'w', 604800}};
  const auto unit = text.empty() ? kUnits.end() : kUnits.find(text.back());
  if (unit == kUnits.end() || text.size() < 2) {
    throw ToolError(ExitStatus::kUsage, what + " must be a duration such as 30d or 12h, not \"" + text + "\"");
  }
  const std::uint64_t count =
      Number(text.substr(0, text.size() - 1), what, 0, static_cast<std::uint64_t>(INT64_MAX / unit->second));
  return static_cast<std::int64_t>(count) * unit->second;
}

}  // namespace Tool
}  // namespace Tovrel
