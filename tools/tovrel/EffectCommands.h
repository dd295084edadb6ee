// EffectCommands: "tovrel effects": an effect cache folder.
//
//   list FOLDER [--json]                  one line per stored effect
//   get FOLDER NAME [-o FILE]             an effect's bytes, to FILE or
//                                         standard output
//   put FOLDER NAME FILE [--permanent]    stores FILE's bytes as an effect
//   remove, clear, trim                   see MaintenanceCommands
//   stats FOLDER [--json]                 count, bytes stored, compression
//                                         ratio, oldest and newest use
//   verify FOLDER                         every effect decompresses to its
//                                         recorded size; exit status as
//                                         package verify
//
// Reading goes through CacheFile, under the cache's named mutex; put goes
// through EffectCacheSystem, as a host's would, and the removals through
// EffectCacheMaintenance. So the tool is safe to run while hosts use the
// folder.
// Stateless; thread-safety: one command at a time.
#ifndef TOVREL_TOOL_EFFECTCOMMANDS_H
#define TOVREL_TOOL_EFFECTCOMMANDS_H

#include <memory>

#include "CommandGroup.h"

namespace Tovrel {
namespace Tool {

class EffectCommands {
 public:
  static std::shared_ptr<CommandGroup> Group();

  static int List(const CommandLine& line, Console& console);
  static int Get(const CommandLine& line, Console& console);
  static int Put(const CommandLine& line, Console& console);
  static int Stats(const CommandLine& line, Console& console);
  static int Verify(const CommandLine& line, Console& console);
};

}  // namespace Tool
}  // namespace Tovrel

#endif
