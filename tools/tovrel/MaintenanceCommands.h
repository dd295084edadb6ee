// MaintenanceCommands: the "tovrel effects" commands that take effects out
// of a cache folder while hosts may be using it:
//
//   remove FOLDER NAME... [--dry-run]       the named effects
//   clear FOLDER [--keep-permanent] [--dry-run]
//                                           every effect, or every one that
//                                           is not permanent
//   merge DEST SRC...                       effects of other folders, the
//                                           newest copy of each name
//   trim FOLDER [--max-size SIZE] [--older-than DURATION] [--dry-run]
//                                           non-permanent effects, least
//                                           recently used first, until the
//                                           stored bytes are under SIZE, and
//                                           every one unused for DURATION
//
// Each is one call of EffectCacheMaintenance (one crash-safe save under
// the cache's named mutex); the commands parse and print. A folder without
// a readable cache file is refused as the other commands refuse it.
// Stateless; thread-safety: one command at a time.
#ifndef TOVREL_TOOL_MAINTENANCECOMMANDS_H
#define TOVREL_TOOL_MAINTENANCECOMMANDS_H

#include <vector>

#include "CommandGroup.h"
#include "CommandLine.h"
#include "Console.h"

namespace Tovrel {
namespace Tool {

class MaintenanceCommands {
 public:
  // Appends the commands to a group's list.
  static void AddTo(std::vector<CommandGroup::Command>& commands);

  static int Merge(const CommandLine& line, Console& console);
  static int Remove(const CommandLine& line, Console& console);
  static int Clear(const CommandLine& line, Console& console);
  static int Trim(const CommandLine& line, Console& console);
};

}  // namespace Tool
}  // namespace Tovrel

#endif
