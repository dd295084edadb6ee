// VerifyReport: how the tool's verify commands end: one line per problem
// found, each after the name of what was checked, then a closing line, or
// the same as one JSON object; and the exit status (0 no problem, 1
// problems found).
// Stateless; thread-safety: one command at a time.
#ifndef TOVREL_TOOL_VERIFYREPORT_H
#define TOVREL_TOOL_VERIFYREPORT_H

#include <string>
#include <vector>

#include "Console.h"

namespace Tovrel {
namespace Tool {

class VerifyReport {
 public:
  // `checked` says what a clean check covered: "44 pages, 51 streams";
  // `note`, when not empty, is said first (a journal beside the file).
  static int Print(const Console& console, const std::string& name, const std::vector<std::string>& problems,
                   const std::string& checked, const std::string& note = "");
  // The same as {"file", "journal" (the note, or null), "problems" (an
  // array of strings), "checked", "ok"}.
  static int PrintJson(const Console& console, const std::string& name, const std::vector<std::string>& problems,
                       const std::string& checked, const std::string& note = "");
};

}  // namespace Tool
}  // namespace Tovrel

#endif
