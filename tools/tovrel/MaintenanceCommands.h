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
//   compact FOLDER                          the cache file shrunk to the
//                                           pages it uses
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
#include "UserPath.h"

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
  static int Compact(const CommandLine& line, Console& console);
  // Compacts the cache of a folder and prints the file's size before and
  // after, naming the file as `shownFile`; `package compact` on a cache
  // file comes here too, so that hosts using the folder are told.
  static int CompactFolder(const UserPath& folder, const std::string& shownFile, Console& console);
  // "compacted FILE: 1,234,567 bytes (1.2 MiB) before, 345,678 bytes (337.6 KiB) after"
  static void PrintCompaction(const std::string& file, std::uint64_t before, std::uint64_t after, Console& console);
};

}  // namespace Tool
}  // namespace Tovrel

#endif
