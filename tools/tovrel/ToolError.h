// ToolError: a failure a command reports to its user, with the exit
// status it ends the tool with. The message names the file (or folder)
// and what is wrong with it; the tool prints it as "tovrel: <message>".
// Thrown by value and caught once, by TovrelTool::Run. Plain value.
#ifndef TOVREL_TOOL_TOOLERROR_H
#define TOVREL_TOOL_TOOLERROR_H

#include <stdexcept>
#include <string>

namespace Tovrel {
namespace Tool {

class ToolError : public std::runtime_error {
 public:
  ToolError(int status, const std::string& message);

  int Status() const { return status_; }

 private:
  int status_;  // one of ExitStatus, never kOk
};

}  // namespace Tool
}  // namespace Tovrel

#endif
