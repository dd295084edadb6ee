// TovrelTool: the tovrel command-line tool: its command tree and the one
// place where a command's failure becomes a message and an exit status.
//
// Run takes the words after the program's name. A ToolError prints
// "tovrel: <message>" on the console's messages and ends with its status
// (a usage error also points at --help); any other exception is reported
// the same way with status 1. Nothing is thrown out of Run. "--version"
// alone prints "tovrel " and the version the build was made with
// (TOVREL_VERSION, from the project's version).
// Stateless; thread-safety: one run at a time per console.
#ifndef TOVREL_TOOL_TOVRELTOOL_H
#define TOVREL_TOOL_TOVRELTOOL_H

#include <memory>
#include <string>
#include <vector>

#include "CommandGroup.h"
#include "Console.h"

namespace Tovrel {
namespace Tool {

class TovrelTool {
 public:
  static int Run(const std::vector<std::string>& words, Console& console);

  // The whole command tree, rooted at "tovrel".
  static std::shared_ptr<CommandGroup> Commands();
};

}  // namespace Tool
}  // namespace Tovrel

#endif
