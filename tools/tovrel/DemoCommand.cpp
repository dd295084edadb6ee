#include "DemoCommand.h"

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <set>
#include <string>
#include <system_error>

#include "CacheFile.h"
#include "DemoHistory.h"
#include "ExitStatus.h"
#include "ProgressReporter.h"
#include "RemoteCommands.h"
#include "SyntheticShaders.h"
#include "TextFormat.h"
#include "ToolError.h"
#include "effectcache/EffectRemoteStore.h"
#include "platform/WideText.h"
#include "tovrel/EffectCacheSystem.h"

namespace Tovrel {
namespace Tool {

namespace {

using Clock = std::chrono::steady_clock;

// What one run saw.
struct Outcome {
  std::uint64_t hits;
  std::uint64_t misses;
  std::uint64_t wrong;  // found, but not of the size the shader has
  std::uint64_t bytes;  // of the effects found or compiled
  std::uint64_t wallMilliseconds;  // the one measure of its time, printed and recorded alike
  std::uint64_t fromTeam;  // hits on names the local file did not hold: served by the remote store
};

// The names the folder's cache file holds before a run (none without one).
std::set<std::string> LocalNames(const UserPath& folder) {
  std::set<std::string> names;
  if (!CacheFile::FileOf(folder).Exists()) return names;
  try {
    const CacheFile file(folder);
    for (const CacheFile::Entry& entry : file.Entries()) names.insert(entry.name);
  } catch (const ToolError&) {
    // A file the library would replace: it holds nothing for the run.
  }
  return names;
}

UserPath PrepareFolder(const CommandLine& line) {
  const UserPath folder(line.Positionals().empty() ? DemoCommand::kDefaultFolder : line.Positionals()[0]);
  std::error_code error;
  std::filesystem::create_directories(std::filesystem::u8path(folder.AbsoluteText()), error);
  if (!folder.IsFolder()) throw ToolError(ExitStatus::kFailed, folder.Typed() + ": cannot be made as a folder");
  return folder;
}

// One run of the host: every effect asked for, compiled and cached on a
// miss; the cache let go (and so saved) before the clock stops.
Outcome PlayHost(const UserPath& folder, const SyntheticShaders& shaders, std::uint32_t effects,
                 const std::string& remote, bool background, const Console& console) {
  Outcome outcome{};
  // Only a run with a team tier says where its hits came from.
  const std::set<std::string> local = remote.empty() ? std::set<std::string>() : LocalNames(folder);
  const Clock::time_point start = Clock::now();
  RefPtr<EffectCacheSystem> cache(new EffectCacheSystem(WStr(folder.Absolute())));
  if (!cache->IsEnabled()) throw ToolError(ExitStatus::kFailed, folder.Typed() + ": the effect cache cannot be opened");
  // As a host that compiles on its loading threads should: its caching
  // calls never wait for a save.
  cache->SetBackgroundSaving(background);
  if (!remote.empty() && !cache->SetRemoteStore(WideText::FromUtf8(remote).c_str())) {
    throw ToolError(ExitStatus::kUsage, "not a remote store: " + RemoteStoreSettings::WithoutCredentials(remote));
  }
  ProgressReporter progress(console, "effects", effects);
  for (std::uint32_t i = 0; i < effects; ++i) {
    const WStr name(WideText::FromUtf8(shaders.Name(i)));
    Tab<unsigned char> found;
    if (cache->SearchCachedEffects(name, found)) {
      ++outcome.hits;
      if (local.count(shaders.Name(i)) == 0) ++outcome.fromTeam;
      outcome.bytes += static_cast<std::uint64_t>(found.Count());
      if (static_cast<std::size_t>(found.Count()) != shaders.Size(i)) ++outcome.wrong;
    } else {
      const std::vector<unsigned char> compiled = shaders.Compile(i);
      cache->CacheCompiledEffect(name, compiled.data(), compiled.size(), false);
      ++outcome.misses;
      outcome.bytes += compiled.size();
    }
    progress.Update(i + 1);
  }
  progress.Finish();
  cache.Reset();
  outcome.wallMilliseconds = static_cast<std::uint64_t>(
      std::chrono::duration_cast<std::chrono::duration<double, std::milli>>(Clock::now() - start).count() + 0.5);
  return outcome;
}

std::string KindOf(const DemoHistory::Run& run) {
  return run.IsCold() ? "cold" : (run.IsWarm() ? "warm" : "partly warm");
}

void Report(const DemoHistory::Run& run, const Outcome& outcome, const CacheFile& cache, const std::string& remote,
            std::ostream& out) {
  std::uint64_t stored = 0;
  std::uint64_t uncompressed = 0;
  for (const CacheFile::Entry& entry : cache.Entries()) {
    stored += entry.record.compressedSize;
    uncompressed += entry.record.uncompressedSize;
  }
  out << "run " << run.number << " (" << KindOf(run) << "): " << TextFormat::Counted(outcome.hits, "hit") << ", "
      << TextFormat::Counted(outcome.misses, "miss", "misses") << ", " << TextFormat::Bytes(outcome.bytes) << " of effects\n"
      << "  cache file: " << TextFormat::Counted(cache.Entries().size(), "effect") << ", "
      << TextFormat::Bytes(stored) << " stored, compression ratio " << TextFormat::Ratio(uncompressed, stored) << "\n"
      << "  wall time:  " << TextFormat::Seconds(run.WallSeconds()) << "\n";
  if (!remote.empty()) {
    out << "  team tier:  " << TextFormat::Count(outcome.fromTeam) << " of the hits came from " << RemoteStoreSettings::WithoutCredentials(remote) << "\n";
  }
  if (outcome.wrong != 0) out << "  " << TextFormat::Counted(outcome.wrong, "effect") << " came back with the wrong size\n";
}

void ReportSpeedUp(const DemoHistory& history, const DemoHistory::Run& run, std::ostream& out) {
  const DemoHistory::Run* cold = history.LastColdRun(run.effects);
  if (run.IsCold()) {
    out << "every effect was compiled and cached; run the demo again on this folder for the warm run\n";
  } else if (run.IsWarm() && cold != nullptr) {
    const double coldSeconds = cold->WallSeconds();
    const double warmSeconds = run.WallSeconds();
    char factor[32];
    std::snprintf(factor, sizeof factor, "%.1f", coldSeconds / (warmSeconds > 0 ? warmSeconds : 1e-3));
    out << "warm run over cold run " << cold->number << ": " << factor << " times faster ("
        << TextFormat::Seconds(coldSeconds) << " -> " << TextFormat::Seconds(warmSeconds) << ")\n";
  }
}

}  // namespace

CommandGroup::Command DemoCommand::Describe() {
  return CommandGroup::Command{
      "demo",
      "[FOLDER] [--effects N] [--work ROUNDS] [--remote STORE] [--foreground-saving]",
      "play a host whose shader effects are cached in FOLDER (./fxcache)",
      "Plays a host application that needs N shader effects (2,000; 2 KiB to 64 KiB of\n"
      "bytecode-like content each). It asks the effect cache in FOLDER for each one; on a\n"
      "miss it compiles the effect (ROUNDS rounds of hashing: a few milliseconds of CPU\n"
      "work) and caches it. One invocation is one run of the host. The first run in an\n"
      "empty folder finds nothing (cold); run it again and it finds everything (warm).\n"
      "Each run prints its hits, misses, bytes, the cache file's compression ratio and\n"
      "its wall time; a warm run also prints its speed-up over the cold run, which the\n"
      "folder remembers (tovrel-demo-runs.txt). With --remote, the host's cache also\n"
      "uses the remote store STORE (see docs/REMOTE.md): a second workstation's first\n"
      "run is then served by what the first one cached there. The host saves in the\n"
      "background (EffectCacheSystem::SetBackgroundSaving), as one that compiles on its\n"
      "loading threads should; --foreground-saving saves on the host's thread instead.\n",
      {"--foreground-saving"},
      {"--effects", "--work", "--remote"},
      0,
      1,
      &DemoCommand::Run,
      nullptr};
}

int DemoCommand::Run(const CommandLine& line, Console& console) {
  const auto effects = static_cast<std::uint32_t>(
      CommandLine::Number(line.Value("--effects", std::to_string(kDefaultEffects)), "--effects", 1, 60000));
  const std::uint64_t rounds = CommandLine::Number(
      line.Value("--work", std::to_string(SyntheticShaders::kDefaultWorkRounds)), "--work", 0, 1000000000);
  // Every argument is checked before the disk is touched.
  const std::string remote = line.Value("--remote", "");
  if (!remote.empty()) RemoteCommands::StoreOf(remote);
  const UserPath folder = PrepareFolder(line);
  DemoHistory history(folder);
  console.Out() << "tovrel demo: a host that needs " << TextFormat::Count(effects) << " shader effects, cached in "
                << folder.AbsoluteText() << "\n";
  const Outcome outcome =
      PlayHost(folder, SyntheticShaders(SyntheticShaders::kDefaultSeed, rounds), effects, remote,
               !line.Has("--foreground-saving"), console);
  const DemoHistory::Run run{history.NextNumber(), effects, outcome.hits, outcome.misses, outcome.wallMilliseconds};
  Report(run, outcome, CacheFile(folder), remote, console.Out());
  ReportSpeedUp(history, run, console.Out());
  history.Record(run);
  return outcome.wrong == 0 ? ExitStatus::kOk : ExitStatus::kFailed;
}

}  // namespace Tool
}  // namespace Tovrel
