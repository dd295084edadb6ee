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
  // Runs the command the words name; its exit status. Output that could
  // not be written (a full disk, a closed pipe) makes a command that
  // succeeded fail (status 1), with a message.
  static int Run(const std::vector<std::string>& words, Console& console);

  // The whole command tree, rooted at "tovrel".
  static std::shared_ptr<CommandGroup> Commands();

 private:
  static int RunCommand(const std::vector<std::string>& words, Console& console);
  static int CheckOutput(int status, Console& console);
};

}  // namespace Tool
}  // namespace Tovrel

#endif
