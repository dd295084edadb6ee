// Console: where a command writes: its output (results, the bytes of
// cat and get), its messages (errors, progress) and whether a person is
// watching each: progress is drawn only on a terminal, and binary bytes
// are written to one only when asked (as gzip does).
//
// main makes one over std::cout and std::cerr; tests make one over string
// streams. Does not own the streams, which must outlive it.
// Thread-safety: none; one command at a time.
#ifndef TOVREL_TOOL_CONSOLE_H
#define TOVREL_TOOL_CONSOLE_H

#include <ostream>

#include "ExitStatus.h"
#include "ToolError.h"

namespace Tovrel {
namespace Tool {

class Console {
 public:
  Console(std::ostream& out, std::ostream& err, bool messagesOnTerminal, bool outputOnTerminal = false)
      : out_(out), err_(err), messagesOnTerminal_(messagesOnTerminal), outputOnTerminal_(outputOnTerminal) {}

  std::ostream& Out() const { return out_; }
  std::ostream& Err() const { return err_; }
  // True when the messages go to a terminal: progress may be shown.
  bool MessagesOnTerminal() const { return messagesOnTerminal_; }
  // True when the output goes to a terminal.
  bool OutputOnTerminal() const { return outputOnTerminal_; }
  // Refuses (a usage error) to write binary bytes to a terminal unless
  // `forced`: they would garble it and help nobody.
  void RefuseBinaryOnTerminal(bool forced) const {
    if (outputOnTerminal_ && !forced) {
      throw ToolError(ExitStatus::kUsage,
                      "not writing binary bytes to a terminal (send them to a file or a pipe, or add --force)");
    }
  }

 private:
  std::ostream& out_;
  std::ostream& err_;
  bool messagesOnTerminal_;
  bool outputOnTerminal_;
};

}  // namespace Tool
}  // namespace Tovrel

#endif
