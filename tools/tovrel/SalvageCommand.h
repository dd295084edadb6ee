// SalvageCommand: "tovrel effects salvage FOLDER [--json]": what a host
// does to a cache file that does not load, on demand and for any file that
// fails a check. The deep check runs first; a sound file is left as it is.
// Otherwise every effect proven intact is carried into a new file (its
// name, permanence, last use and stored bytes as they were), the rest
// dropped, and the former file kept beside the new one as
// "norvaneFxoCache.dat-damaged" (EffectCacheMaintenance::Salvage).
//
// Exit status: 0 the file was sound, or every effect it recorded came
// back; 1 effects were lost (entries dropped or unreadable, or nothing to
// salvage: an empty cache took its place); 2 no cache file, or it could
// not be read or written now (nothing changed).
//
// Stateless; thread-safety: one command at a time.
#ifndef TOVREL_TOOL_SALVAGECOMMAND_H
#define TOVREL_TOOL_SALVAGECOMMAND_H

#include <vector>

#include "CommandGroup.h"
#include "CommandLine.h"
#include "Console.h"

namespace Tovrel {
namespace Tool {

class SalvageCommand {
 public:
  static void AddTo(std::vector<CommandGroup::Command>& commands);
  static int Run(const CommandLine& line, Console& console);
};

}  // namespace Tool
}  // namespace Tovrel

#endif
