// Console: where a command writes: its output (results, the bytes of
// cat and get), its messages (errors, progress) and whether a person is
// watching the messages, so that progress may be drawn there.
//
// main makes one over std::cout and std::cerr; tests make one over string
// streams. Does not own the streams, which must outlive it.
// Thread-safety: none; one command at a time.
#ifndef TOVREL_TOOL_CONSOLE_H
#define TOVREL_TOOL_CONSOLE_H

#include <ostream>

namespace Tovrel {
namespace Tool {

class Console {
 public:
  Console(std::ostream& out, std::ostream& err, bool messagesOnTerminal)
      : out_(out), err_(err), messagesOnTerminal_(messagesOnTerminal) {}

  std::ostream& Out() const { return out_; }
  std::ostream& Err() const { return err_; }
  // True when the messages go to a terminal: progress may be shown.
  bool MessagesOnTerminal() const { return messagesOnTerminal_; }

 private:
  std::ostream& out_;
  std::ostream& err_;
  bool messagesOnTerminal_;
};

}  // namespace Tool
}  // namespace Tovrel

#endif
