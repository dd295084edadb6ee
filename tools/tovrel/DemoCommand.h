// DemoCommand: "tovrel demo [FOLDER]": plays a host application that
// needs a set of shader effects and keeps them in an effect cache in
// FOLDER (./fxcache unless named; made if missing).
//
// One invocation is one run of the host, a process of its own as a host
// would be: for each of the effects (2,000 unless --effects says) it asks
// the cache; on a miss it "compiles" the effect (SyntheticShaders: real
// CPU work of a few milliseconds) and caches it. The cache is then let
// go, which saves. So the first run in an empty folder misses everything
// (cold), and the next one finds everything (warm). Each run prints its
// hits, misses, bytes, the compression ratio of the cache file and its
// wall time, records itself in the folder (DemoHistory), and a warm run
// prints its speed-up over the last cold run recorded there.
//
// Everything the run does to the cache goes through EffectCacheSystem.
// Stateless; thread-safety: one run at a time per folder.
#ifndef TOVREL_TOOL_DEMOCOMMAND_H
#define TOVREL_TOOL_DEMOCOMMAND_H

#include "CommandGroup.h"

namespace Tovrel {
namespace Tool {

class DemoCommand {
 public:
  static constexpr std::uint32_t kDefaultEffects = 2000;
  static constexpr const char* kDefaultFolder = "fxcache";

  static CommandGroup::Command Describe();
  static int Run(const CommandLine& line, Console& console);
};

}  // namespace Tool
}  // namespace Tovrel

#endif
