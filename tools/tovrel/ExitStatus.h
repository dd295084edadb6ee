// ExitStatus: the exit statuses of the tovrel tool, the same for every
// command, so that scripts can tell what went wrong.
//
//   0  done; for verify: no problem found
//   1  verify found problems, or the command could not do what was asked
//      (no such stream or effect, an output file that cannot be written)
//   2  the file cannot be read at all: missing, or not a package or cache
//   3  the command line is wrong
// Constants only.
#ifndef TOVREL_TOOL_EXITSTATUS_H
#define TOVREL_TOOL_EXITSTATUS_H

namespace Tovrel {
namespace Tool {

class ExitStatus {
 public:
  static constexpr int kOk = 0;
  static constexpr int kFailed = 1;
  static constexpr int kUnreadable = 2;
  static constexpr int kUsage = 3;
};

}  // namespace Tool
}  // namespace Tovrel

#endif
