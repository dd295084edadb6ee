// DemoHistory: the demo's record of its runs in a cache folder, one line
// per run in "tovrel-demo-runs.txt" beside the cache file, so that a run
// can compare itself with the ones before it (the warm run with the cold
// one) though each run is a process of its own, as a host's would be.
//
// A line reads "run N effects E hits H misses M wall_ms W"; lines that do
// not read so are skipped. Value type; not safe against two demos
// writing one folder at once (the second's comparison may then be off).
#ifndef TOVREL_TOOL_DEMOHISTORY_H
#define TOVREL_TOOL_DEMOHISTORY_H

#include <cstdint>
#include <string>
#include <vector>

#include "UserPath.h"

namespace Tovrel {
namespace Tool {

class DemoHistory {
 public:
  static constexpr const char* kFileName = "tovrel-demo-runs.txt";

  struct Run {
    std::uint64_t number;
    std::uint64_t effects;
    std::uint64_t hits;
    std::uint64_t misses;
    std::uint64_t wallMilliseconds;

    bool IsCold() const { return hits == 0 && misses > 0; }
    bool IsWarm() const { return misses == 0 && hits > 0; }
    double WallSeconds() const { return static_cast<double>(wallMilliseconds) / 1000.0; }
  };

  // Reads the record in `folder`; empty when there is none.
  explicit DemoHistory(const UserPath& folder);

  const std::vector<Run>& Runs() const { return runs_; }
  std::uint64_t NextNumber() const { return runs_.empty() ? 1 : runs_.back().number + 1; }
  // The latest cold run of as many effects; null when there is none.
  const Run* LastColdRun(std::uint64_t effects) const;
  // Adds a run to the file and to Runs().
  void Record(const Run& run);

  static std::string Format(const Run& run);
  // False when `line` is not a run's line.
  static bool Parse(const std::string& line, Run& run);

 private:
  UserPath file_;
  std::vector<Run> runs_;
};

}  // namespace Tool
}  // namespace Tovrel

#endif
