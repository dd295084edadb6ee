// CommandLine: the words of one command after its name, split into
// options and positional arguments.
//
// A command names the flags it knows (such as "--json") and the options
// that take a value (such as "-o", written "-o FILE" or "-o=FILE").
// "--help" and "-h" are known everywhere. A word that starts with "-" and
// is neither is refused, unless it is "-" itself or follows "--", after
// which every word is positional. Refusals are ToolErrors with the usage
// status. Value type; thread-safety as any value.
#ifndef TOVREL_TOOL_COMMANDLINE_H
#define TOVREL_TOOL_COMMANDLINE_H

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <vector>

namespace Tovrel {
namespace Tool {

class CommandLine {
 public:
  // Splits `words`; ToolError (usage) for an unknown option or an option
  // without its value.
  CommandLine(const std::vector<std::string>& words, const std::set<std::string>& flags,
              const std::set<std::string>& valueOptions);

  bool WantsHelp() const { return help_; }
  bool Has(const std::string& flag) const { return flags_.count(flag) != 0; }
  // The option's value, or `fallback` when it was not given.
  std::string Value(const std::string& option, const std::string& fallback) const;
  bool HasValue(const std::string& option) const { return values_.count(option) != 0; }
  const std::vector<std::string>& Positionals() const { return positionals_; }

  // A whole decimal number in `low`..`high`; ToolError (usage) naming `what`
  // otherwise.
  static std::uint64_t Number(const std::string& text, const std::string& what, std::uint64_t low,
                              std::uint64_t high);
  // A size in bytes: a decimal number, possibly with a fraction, and
  // possibly K, M, G or T (binary: 1.5G is 1.5 x 2^30 bytes), such as
  // "256M", "1.5G" or "1000000". ToolError (usage) naming `what` otherwise.
  static std::uint64_t Size(const std::string& text, const std::string& what);
  // A duration in seconds: a whole number followed by s, m, h, d or w, such
  // as "30d" or "12h". ToolError (usage) naming `what` otherwise.
  static std::int64_t Duration(const std::string& text, const std::string& what);

 private:
  void SetValue(const std::string& option, const std::string& value);
  bool help_;
  std::set<std::string> flags_;
  std::map<std::string, std::string> values_;
  std::vector<std::string> positionals_;
};

}  // namespace Tool
}  // namespace Tovrel

#endif
