#include "RemoteCommands.h"

#include <filesystem>
#include <string>

#include "CacheFile.h"
#include "ExitStatus.h"
#include "ProgressReporter.h"
#include "TextFormat.h"
#include "ToolError.h"
#include "UserPath.h"
#include "effectcache/EffectRemoteSync.h"

namespace Tovrel {
namespace Tool {

namespace {

// "3 effects left over: the store failed (2 errors); it is left alone for a minute after a failure"
int LeftOver(const EffectRemoteSync::Result& result, Console& console) {
  if (result.failed == 0) return ExitStatus::kOk;
  console.Err() << "tovrel: " << TextFormat::Counted(result.failed, "effect") << " left over: the store failed ("
                << TextFormat::Counted(result.counts.errors, "error")
                << (result.lastError.empty() ? std::string() : "; the last: " + result.lastError)
                << "), and is not asked again for a minute after a failure\n";
  return ExitStatus::kFailed;
}

// --jobs N: requests in flight.
unsigned JobsOf(const CommandLine& line) {
  if (!line.HasValue("--jobs")) return EffectRemoteSync::kDefaultJobs;
  return static_cast<unsigned>(CommandLine::Number(line.Value("--jobs", ""), "--jobs", 1, EffectRemoteSync::kMostJobs));
}

}  // namespace

EffectRemoteStore::Settings RemoteCommands::StoreOf(const std::string& text) {
  EffectRemoteStore::Settings settings;
  std::string why;
  if (!RemoteStoreSettings::Parse(text, &settings, &why)) {
    throw ToolError(ExitStatus::kUsage, "not a remote store: " + RemoteStoreSettings::WithoutCredentials(text) +
                                            ": " + why +
                                            " (an http:// or https:// URL, optionally followed by |read-only, "
                                            "|connect-ms=N, |timeout-ms=N, |ca=PATH, |token-file=PATH, "
                                            "|key-file=PATH)");
  }
  return settings;
}

void RemoteCommands::AddTo(std::vector<CommandGroup::Command>& commands) {
  using Command = CommandGroup::Command;
  commands.push_back(Command{"push", "FOLDER STORE [--jobs N]", "send every effect of a cache to a remote store",
                             "PUTs every effect of the folder's cache to the remote store STORE (an http://\n"
                             "or https:// URL, optionally followed by |connect-ms=N, |timeout-ms=N,\n"
                             "|ca=PATH, |token-file=PATH, |key-file=PATH), its compressed bytes as stored,\n"
                             "N requests at a time (8 by default, at most 64). The cache is read under its\n"
                             "mutex, in batches; no request is made while the mutex is held. See\n"
                             "docs/REMOTE.md.\n",
                             {}, {"--jobs"}, 2, 2, &RemoteCommands::Push, nullptr});
  commands.push_back(Command{"pull", "FOLDER STORE (NAME... | --all) [--jobs N]", "fetch effects from a remote store",
                             "GETs the named effects from the remote store STORE (or with --all every object\n"
                             "that the server's folder listings name), N at a time (8 by default, at most\n"
                             "64), checks each as a search does, and stores them in the folder's cache in\n"
                             "saves under its mutex (a folder without a cache gets one). Names the store\n"
                             "does not hold are counted.\n",
                             {"--all"}, {"--jobs"}, 2, ~std::size_t{0}, &RemoteCommands::Pull, nullptr});
}

int RemoteCommands::Push(const CommandLine& line, Console& console) {
  const EffectRemoteStore::Settings store = StoreOf(line.Positionals()[1]);
  if (store.readOnly) {
    throw ToolError(ExitStatus::kUsage, "the store is marked |read-only: nothing can be pushed to it");
  }
  const UserPath folder(line.Positionals()[0]);
  std::uint64_t total = 0;
  {
    const CacheFile check(folder);
    total = check.Entries().size();
  }
  ProgressReporter progress(console, "effects", total);
  const auto result = EffectRemoteSync::Push(
      WStr(folder.Absolute().c_str()), store, [&](std::uint64_t done, std::uint64_t) { progress.Update(done); },
      JobsOf(line));
  progress.Finish();
  if (!result.ok) throw ToolError(ExitStatus::kUnreadable, folder.Typed() + ": the effect cache cannot be read");
  console.Out() << "pushed " << TextFormat::Counted(result.moved, "effect") << ": " << TextFormat::Bytes(result.bytes)
                << " to " << RemoteStoreSettings::WithoutCredentials(store.baseUrl) << "\n";
  return LeftOver(result, console);
}

int RemoteCommands::Pull(const CommandLine& line, Console& console) {
  const bool all = line.Has("--all");
  if (all == (line.Positionals().size() > 2)) {
    throw ToolError(ExitStatus::kUsage, "pull takes the names of the effects to fetch, or --all");
  }
  const EffectRemoteStore::Settings store = StoreOf(line.Positionals()[1]);
  const UserPath folder(line.Positionals()[0]);
  if (!folder.IsFolder()) throw ToolError(ExitStatus::kUnreadable, folder.Typed() + ": no such folder");
  if (CacheFile::FileOf(folder).Exists()) {
    const CacheFile check(folder);
  }
  const std::vector<std::string> names(line.Positionals().begin() + 2, line.Positionals().end());
  ProgressReporter progress(console, "effects", names.size());
  const auto report = [&](std::uint64_t done, std::uint64_t total) { progress.Update(done, total); };
  const WStr target(folder.Absolute().c_str());
  const unsigned jobs = JobsOf(line);
  const auto result = all ? EffectRemoteSync::PullAll(target, store, report, jobs)
                          : EffectRemoteSync::Pull(target, store, names, report, jobs);
  progress.Finish();
  if (result.noListing) {
    throw ToolError(ExitStatus::kFailed, RemoteStoreSettings::WithoutCredentials(store.baseUrl) +
                                             ": the server offers no listing of its objects (" + result.lastError +
                                             "); name the effects to pull");
  }
  if (!result.ok) {
    throw ToolError(ExitStatus::kFailed, CacheFile::ChangeFailed(folder, "opened or saved"));
  }
  console.Out() << "pulled " << TextFormat::Counted(result.moved, "effect") << ": " << TextFormat::Bytes(result.bytes)
                << " from " << RemoteStoreSettings::WithoutCredentials(store.baseUrl) << "\n";
  if (result.absent != 0) console.Out() << TextFormat::Counted(result.absent, "effect") << " not in the store\n";
  const int status = LeftOver(result, console);
  if (!result.listingCut) return status;
  console.Err() << "tovrel: the store's listings name more than " << TextFormat::Count(EffectRemoteStore::kKeyLimit)
                << " objects: only the first " << TextFormat::Count(EffectRemoteStore::kKeyLimit)
                << " listed were asked for\n";
  return ExitStatus::kFailed;
}

}  // namespace Tool
}  // namespace Tovrel
