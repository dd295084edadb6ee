#include "DemoHistory.h"

#include <sstream>

#include "LocalFile.h"

namespace Tovrel {
namespace Tool {

namespace {

UserPath FileIn(const UserPath& folder) { return UserPath(folder.AbsoluteText() + "/" + DemoHistory::kFileName); }

}  // namespace

DemoHistory::DemoHistory(const UserPath& folder) : file_(FileIn(folder)) {
  if (!file_.IsFile()) return;
  const std::vector<unsigned char> bytes = LocalFile::Read(file_, 1 << 20);
  std::istringstream text(std::string(bytes.begin(), bytes.end()));
  std::string line;
  while (std::getline(text, line)) {
    Run run{};
    if (Parse(line, run)) runs_.push_back(run);
  }
}

const DemoHistory::Run* DemoHistory::LastColdRun(std::uint64_t effects) const {
  for (auto it = runs_.rbegin(); it != runs_.rend(); ++it) {
    if (it->IsCold() && it->effects == effects) return &*it;
  }
  return nullptr;
}

void DemoHistory::Record(const Run& run) {
  LocalFile::Append(file_, Format(run) + "\n");
  runs_.push_back(run);
}

std::string DemoHistory::Format(const Run& run) {
  return "run " + std::to_string(run.number) + " effects " + std::to_string(run.effects) + " hits " +
         std::to_string(run.hits) + " misses " + std::to_string(run.misses) + " wall_ms " +
         std::to_string(run.wallMilliseconds);
}

bool DemoHistory::Parse(const std::string& line, Run& run) {
  std::istringstream words(line);
  std::string runWord, effects, hits, misses, wall;
  Run read{};
  if (!(words >> runWord >> read.number >> effects >> read.effects >> hits >> read.hits >> misses >> read.misses >> wall >>
        read.wallMilliseconds)) {
    return false;
  }
  if (runWord != "run" || effects != "effects" || hits != "hits" || misses != "misses" || wall != "wall_ms") return false;
  run = read;
  return true;
}

}  // namespace Tool
}  // namespace Tovrel
