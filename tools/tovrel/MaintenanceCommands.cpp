#include "MaintenanceCommands.h"

#include <filesystem>
#include <string>

#include "CacheFile.h"
#include "ExitStatus.h"
#include "NamePattern.h"
#include "TextFormat.h"
#include "ToolError.h"
#include "UserPath.h"
#include "effectcache/CacheTimeStamp.h"
#include "effectcache/EffectCacheImpl.h"
#include "effectcache/EffectCacheMaintenance.h"

namespace Tovrel {
namespace Tool {

namespace {

// The folder, refused when it holds no cache file a host would load.
UserPath CheckedFolder(const CommandLine& line) {
  const UserPath folder(line.Positionals()[0]);
  const CacheFile check(folder);
  return folder;
}

// Refuses a cache file the library found damaged, which it left as it was.
void RefuseDamaged(bool damaged, const UserPath& folder) {
  if (damaged) {
    throw ToolError(ExitStatus::kUnreadable, folder.Typed() +
                                                 ": the cache file is damaged, so nothing was changed (tovrel effects "
                                                 "verify lists its problems)");
  }
}

// "removed 3 effects: 12,345 bytes (12.1 KiB) stored"
// "left 7 effects: 1,234 bytes (1.2 KiB) stored"
void PrintResult(const EffectCacheMaintenance::Result& result, const UserPath& folder, bool dryRun,
                 Console& console) {
  RefuseDamaged(result.damaged, folder);
  if (!result.ok) {
    throw ToolError(ExitStatus::kFailed, CacheFile::ChangeFailed(folder, "opened or saved"));
  }
  console.Out() << (dryRun ? "would remove " : "removed ") << TextFormat::Counted(result.removedEffects, "effect")
                << ": " << TextFormat::Bytes(result.removedBytes) << " stored\n"
                << (dryRun ? "would leave " : "left ") << TextFormat::Counted(result.keptEffects, "effect") << ": "
                << TextFormat::Bytes(result.keptBytes) << " stored\n";
}

}  // namespace

void MaintenanceCommands::AddTo(std::vector<CommandGroup::Command>& commands) {
  using Command = CommandGroup::Command;
  commands.push_back(Command{"remove", "FOLDER NAME... [--dry-run]", "take named effects out of the cache",
                             "Removes the named effects, permanent or not, in one save under the cache's\n"
                             "mutex; hosts using the folder see the change at their next search. A NAME\n"
                             "with * or ? is a pattern, as list takes it (quote it from the shell), and\n"
                             "names every effect it matches. Names the cache does not hold, and patterns\n"
                             "that match nothing, are listed (exit status 1).\n",
                             {"--dry-run"}, {}, 2, ~std::size_t{0}, &MaintenanceCommands::Remove, nullptr});
  commands.push_back(Command{"clear", "FOLDER [--keep-permanent] [--dry-run]", "take every effect out",
                             "Removes every effect, or with --keep-permanent every one that is not\n"
                             "permanent, in one save under the cache's mutex.\n",
                             {"--keep-permanent", "--dry-run"}, {}, 1, 1, &MaintenanceCommands::Clear, nullptr});
  commands.push_back(Command{"merge", "DEST SRC...", "copy effects from other cache folders",
                             "Copies the effects of the SRC folders into DEST: a name held in several keeps\n"
                             "the copy with the newest last use (DEST's own if it is as new), with its\n"
                             "permanence; compressed bytes are copied as they are, once checked to\n"
                             "decompress. The sources are only read; DEST changes in one save under its\n"
                             "mutex (a DEST folder without a cache gets one). A SRC without a readable\n"
                             "cache is skipped (exit status 1).\n",
                             {}, {}, 2, ~std::size_t{0}, &MaintenanceCommands::Merge, nullptr});
  commands.push_back(Command{"trim", "FOLDER [--max-size SIZE] [--older-than DURATION] [--dry-run]",
                             "cap the cache's size or its effects' age",
                             "Removes effects that are not permanent, in one save under the cache's mutex:\n"
                             "with --max-size, the least recently used first until the stored bytes are\n"
                             "under SIZE (256M, 1.5G, or bytes); with --older-than, every one not used\n"
                             "for DURATION (30d, 12h, 90m). Permanent effects are never trimmed.\n",
                             {"--dry-run"}, {"--max-size", "--older-than"}, 1, 1, &MaintenanceCommands::Trim,
                             nullptr});
  commands.push_back(Command{"compact", "FOLDER", "shrink the cache file to the pages it uses",
                             "Packs the tails of small effects into fewer child files, moves pages from the\n"
                             "end of the file into free ones and cuts the file, in one save under the\n"
                             "cache's mutex (a crash leaves the file as it was or compacted). Every effect\n"
                             "stays as it was; hosts using the folder reload at their next search.\n",
                             {}, {}, 1, 1, &MaintenanceCommands::Compact, nullptr});
}

void MaintenanceCommands::PrintCompaction(const std::string& file, std::uint64_t before, std::uint64_t after,
                                          Console& console) {
  console.Out() << "compacted " << file << ": " << TextFormat::Bytes(before) << " before, " << TextFormat::Bytes(after)
                << " after\n";
}

int MaintenanceCommands::CompactFolder(const UserPath& folder, const std::string& shownFile, Console& console) {
  {
    const CacheFile check(folder);
  }
  const auto result = EffectCacheMaintenance::Compact(WStr(folder.Absolute().c_str()));
  RefuseDamaged(result.damaged, folder);
  if (!result.ok) {
    throw ToolError(ExitStatus::kFailed, CacheFile::ChangeFailed(folder, "opened or compacted"));
  }
  PrintCompaction(shownFile, result.fileBytesBefore, result.fileBytesAfter, console);
  return ExitStatus::kOk;
}

int MaintenanceCommands::Compact(const CommandLine& line, Console& console) {
  const UserPath folder(line.Positionals()[0]);
  const std::string file =
      (std::filesystem::u8path(folder.Typed()) / std::filesystem::path(EffectCacheImpl::kCacheFileName)).u8string();
  return CompactFolder(folder, file, console);
}

int MaintenanceCommands::Merge(const CommandLine& line, Console& console) {
  // A folder without a cache gets one; a cache a host would not load is refused.
  const UserPath destination(line.Positionals()[0]);
  if (!destination.IsFolder()) throw ToolError(ExitStatus::kUnreadable, destination.Typed() + ": no such folder");
  if (CacheFile::FileOf(destination).Exists()) CheckedFolder(line);
  std::vector<UserPath> sources;
  std::vector<WStr> folders;
  for (std::size_t i = 1; i < line.Positionals().size(); ++i) {
    sources.emplace_back(line.Positionals()[i]);
    folders.emplace_back(sources.back().Absolute().c_str());
  }
  const auto result = EffectCacheMaintenance::Merge(WStr(destination.Absolute().c_str()), folders);
  RefuseDamaged(result.damaged, destination);
  if (!result.ok) {
    throw ToolError(ExitStatus::kFailed, CacheFile::ChangeFailed(destination, "opened or saved"));
  }
  console.Out() << "copied " << TextFormat::Counted(result.copiedEffects, "effect") << ": "
                << TextFormat::Bytes(result.copiedBytes) << " stored\n";
  if (result.keptEffects > 0) {
    console.Out() << "kept " << TextFormat::Counted(result.keptEffects, "effect") << " that " << destination.Typed()
                  << " held as recently used or more\n";
  }
  if (result.damagedEffects > 0) {
    console.Out() << "passed over " << TextFormat::Counted(result.damagedEffects, "effect")
                  << " whose bytes in their source could not be read back\n";
  }
  for (std::size_t i : result.unreadableSources) {
    console.Err() << "tovrel: " << sources[i].Typed() << ": no effect cache a host would load, or a damaged one; skipped\n";
  }
  return result.unreadableSources.empty() ? ExitStatus::kOk : ExitStatus::kFailed;
}

int MaintenanceCommands::Remove(const CommandLine& line, Console& console) {
  const UserPath folder(line.Positionals()[0]);
  // Patterns, as list takes them, name the effects they match now.
  std::vector<std::string> names;
  std::vector<std::string> unmatched;
  {
    const CacheFile cache(folder);
    for (std::size_t i = 1; i < line.Positionals().size(); ++i) {
      const std::string& word = line.Positionals()[i];
      if (word.find_first_of("*?") == std::string::npos) {
        names.push_back(word);
        continue;
      }
      const std::size_t before = names.size();
      for (const CacheFile::Entry& entry : cache.Entries()) {
        if (NamePattern::Matches(word, entry.name)) names.push_back(entry.name);
      }
      if (names.size() == before) unmatched.push_back(word);
    }
  }
  const bool dryRun = line.Has("--dry-run");
  const auto result = EffectCacheMaintenance::Remove(WStr(folder.Absolute().c_str()), names, dryRun);
  PrintResult(result, folder, dryRun, console);
  for (const std::string& name : result.notFound) console.Err() << "tovrel: " << folder.Typed() << ": no effect " << name << "\n";
  for (const std::string& pattern : unmatched) {
    console.Err() << "tovrel: " << folder.Typed() << ": no effect matches " << pattern << "\n";
  }
  return result.notFound.empty() && unmatched.empty() ? ExitStatus::kOk : ExitStatus::kFailed;
}

int MaintenanceCommands::Clear(const CommandLine& line, Console& console) {
  const UserPath folder = CheckedFolder(line);
  const bool dryRun = line.Has("--dry-run");
  PrintResult(EffectCacheMaintenance::Clear(WStr(folder.Absolute().c_str()), line.Has("--keep-permanent"), dryRun),
              folder, dryRun, console);
  return ExitStatus::kOk;
}

int MaintenanceCommands::Trim(const CommandLine& line, Console& console) {
  EffectCacheMaintenance::TrimRule rule;
  rule.bySize = line.HasValue("--max-size");
  if (rule.bySize) rule.maxStoredBytes = CommandLine::Size(line.Value("--max-size", ""), "--max-size");
  rule.byAge = line.HasValue("--older-than");
  if (rule.byAge) rule.maxAgeSeconds = CommandLine::Duration(line.Value("--older-than", ""), "--older-than");
  if (!rule.bySize && !rule.byAge) {
    throw ToolError(ExitStatus::kUsage, "trim needs --max-size SIZE, --older-than DURATION or both");
  }
  const UserPath folder = CheckedFolder(line);
  const bool dryRun = line.Has("--dry-run");
  const std::int64_t now = CacheTimeStamp::Now().Seconds();
  const auto result = EffectCacheMaintenance::Trim(WStr(folder.Absolute().c_str()), rule, now, dryRun);
  PrintResult(result, folder, dryRun, console);
  if (rule.bySize && result.keptBytes >= rule.maxStoredBytes) {
    console.Out() << "the size cannot be reached: permanent effects hold " << TextFormat::Bytes(result.keptBytes)
                  << ", and they are never trimmed\n";
  }
  return ExitStatus::kOk;
}

}  // namespace Tool
}  // namespace Tovrel
