#include "EffectCommands.h"

#include <algorithm>
#include <map>
#include <set>
#include <vector>

#include "CacheFile.h"
#include "ExitStatus.h"
#include "JsonWriter.h"
#include "LocalFile.h"
#include "MaintenanceCommands.h"
#include "RemoteCommands.h"
#include "SalvageCommand.h"
#include "NamePattern.h"
#include "ProgressReporter.h"
#include "TextFormat.h"
#include "ToolError.h"
#include "VerifyReport.h"
#include "effectcache/CacheWriteAccess.h"
#include "effectcache/EffectCacheVerifier.h"
#include "effectcache/EffectCacheImpl.h"
#include "effectcache/EffectCacheMaintenance.h"
#include "effectcache/EffectCacheStats.h"
#include "effectcache/RemoteErrorNote.h"
#include "effectcache/UnsavedCounts.h"
#include "effectcache/EffectIndex.h"
#include "platform/PlatformFile.h"
#include "platform/WideText.h"
#include "tovrel/EffectCacheSystem.h"

namespace Tovrel {
namespace Tool {

namespace {

// Totals of a cache's index, for stats.
struct Totals {
  std::uint64_t effects;
  std::uint64_t permanent;
  std::uint64_t uncompressed;
  std::uint64_t compressed;
  const CacheFile::Entry* oldest;
  const CacheFile::Entry* newest;
};

Totals Sum(const CacheFile& cache) {
  Totals t{cache.Entries().size(), 0, 0, 0, nullptr, nullptr};
  for (const CacheFile::Entry& entry : cache.Entries()) {
    t.permanent += entry.record.permanent != 0 ? 1 : 0;
    t.uncompressed += entry.record.uncompressedSize;
    t.compressed += entry.record.compressedSize;
    if (t.oldest == nullptr || entry.record.lastUsed < t.oldest->record.lastUsed) t.oldest = &entry;
    if (t.newest == nullptr || t.newest->record.lastUsed < entry.record.lastUsed) t.newest = &entry;
  }
  return t;
}

double RatioOf(std::uint64_t whole, std::uint64_t part) {
  return part == 0 ? 0.0 : static_cast<double>(whole) / static_cast<double>(part);
}

// The entries `effects list` shows: those whose names match the pattern
// (when one is given), in the order asked for (the index's by default).
std::vector<const CacheFile::Entry*> Listed(const CacheFile& cache, const CommandLine& line) {
  std::vector<const CacheFile::Entry*> listed;
  const bool filtered = line.Positionals().size() > 1;
  for (const CacheFile::Entry& entry : cache.Entries()) {
    if (!filtered || NamePattern::Matches(line.Positionals()[1], entry.name)) listed.push_back(&entry);
  }
  const std::string order = line.Value("--sort", "");
  using Entry = const CacheFile::Entry*;
  if (order == "name") {
    std::stable_sort(listed.begin(), listed.end(), [](Entry a, Entry b) { return a->name < b->name; });
  } else if (order == "size") {
    std::stable_sort(listed.begin(), listed.end(),
                     [](Entry a, Entry b) { return a->record.uncompressedSize > b->record.uncompressedSize; });
  } else if (order == "stored") {
    std::stable_sort(listed.begin(), listed.end(),
                     [](Entry a, Entry b) { return a->record.compressedSize > b->record.compressedSize; });
  } else if (order == "used") {
    std::stable_sort(listed.begin(), listed.end(),
                     [](Entry a, Entry b) { return a->record.lastUsed < b->record.lastUsed; });
  } else if (!order.empty()) {
    throw ToolError(ExitStatus::kUsage, "--sort must be name, size, stored or used, not \"" + order + "\"");
  }
  return listed;
}

void PrintListText(const std::vector<const CacheFile::Entry*>& entries, std::ostream& out) {
  out << TextFormat::Right("SIZE", 9) << TextFormat::Right("STORED", 9) << "  P  " << TextFormat::Left("LAST USED", 32)
      << "NAME\n";
  for (const CacheFile::Entry* item : entries) {
    const CacheFile::Entry& entry = *item;
    out << TextFormat::Right(std::to_string(entry.record.uncompressedSize), 9)
        << TextFormat::Right(std::to_string(entry.record.compressedSize), 9) << "  "
        << (entry.record.permanent != 0 ? "p" : "-") << "  " << TextFormat::Left(TextFormat::Time(entry.record.lastUsed), 32)
        << entry.name << "\n";
  }
}

void PrintListJson(const std::vector<const CacheFile::Entry*>& entries, std::ostream& out) {
  JsonWriter json(out);
  json.BeginArray();
  for (const CacheFile::Entry* item : entries) {
    const CacheFile::Entry& entry = *item;
    json.BeginObject().Field("name", entry.name).Field("sizeBytes", entry.record.uncompressedSize);
    json.Field("storedBytes", entry.record.compressedSize).Field("permanent", entry.record.permanent != 0);
    json.Field("lastUsed", TextFormat::IsoTime(entry.record.lastUsed)).Field("stream", entry.record.streamId);
    json.EndObject();
  }
  json.EndArray().Finish();
}

// The file's statistics block plus the counts of the hosts that never
// saved (UnsavedCounts); false when there are neither.
bool ReadCounts(const CacheFile& cache, EffectCacheStats& stats) {
  const bool inBlock = EffectCacheStats::Read(cache.Package(), stats);
  EffectCacheStats unsaved;
  const bool beside = UnsavedCounts::Read(UnsavedCounts::PathFor(cache.File().Absolute()), &unsaved);
  stats.AddCounts(unsaved);
  return inBlock || beside;
}

// The remote store's last failure noted beside the cache file, if any.
RemoteErrorNote LastRemoteError(const CacheFile& cache) {
  RemoteErrorNote note;
  RemoteErrorNote::Read(RemoteErrorNote::PathFor(cache.File().Absolute()), &note);
  return note;
}

// Whether any process with a remote store counted or noted anything.
bool AnyRemoteWork(const CacheFile& cache, const EffectCacheStats& stats, const RemoteErrorNote& note) {
  return EffectCacheStats::HasRemoteBlock(cache.Package()) || stats.AnyRemoteCounts() || !note.message.empty();
}

// How a host would use the file: "read and write", or "read only: " and why.
const char* Access(const CacheFile& cache) {
  return CacheWriteAccess::Describe(CacheWriteAccess::Check(cache.File().Absolute()));
}

void PrintCountsText(const EffectCacheStats& stats, std::ostream& out) {
  const std::uint64_t searches = stats.hits + stats.misses;
  out << "searches     " << TextFormat::Counted(stats.hits, "hit") << ", "
      << TextFormat::Counted(stats.misses, "miss", "misses") << " (hit rate " << (searches == 0 ? std::string("-") : TextFormat::Percent(stats.hits, searches))
      << ")\n"
      << "cached       " << TextFormat::Counted(stats.cached, "effect") << ", " << TextFormat::Count(stats.trimmed)
      << " trimmed\n"
      << "counted since " << TextFormat::Time(stats.zeroed) << "\n";
}

void PrintRemoteText(const EffectCacheStats& stats, const RemoteErrorNote& note, std::ostream& out) {
  out << "remote       " << TextFormat::Count(stats.remoteHits) << " fetched, " << TextFormat::Count(stats.remoteMisses)
      << " not there, " << TextFormat::Counted(stats.remoteErrors, "error") << "; "
      << TextFormat::Bytes(stats.remoteBytesIn) << " fetched, " << TextFormat::Bytes(stats.remoteBytesOut) << " sent\n";
  if (!note.message.empty()) out << "last error   " << TextFormat::Time(note.time) << "  " << note.message << "\n";
}

void PrintStatsText(const CacheFile& cache, const Totals& t, std::ostream& out) {
  out << "cache file   " << cache.File().AbsoluteText() << ", " << TextFormat::Bytes(cache.FileSize()) << "\n"
      << "effects      " << TextFormat::Count(t.effects) << " (" << TextFormat::Count(t.permanent) << " permanent)\n"
      << "stored       " << TextFormat::Bytes(t.compressed) << " compressed\n"
      << "effects      " << TextFormat::Bytes(t.uncompressed) << " uncompressed\n"
      << "compression  " << TextFormat::Ratio(t.uncompressed, t.compressed) << "\n"
      << "access       " << Access(cache) << "\n";
  if (t.oldest != nullptr) {
    out << "oldest used  " << TextFormat::Time(t.oldest->record.lastUsed) << "  " << t.oldest->name << "\n"
        << "newest used  " << TextFormat::Time(t.newest->record.lastUsed) << "  " << t.newest->name << "\n";
  }
  EffectCacheStats stats;
  if (ReadCounts(cache, stats)) {
    PrintCountsText(stats, out);
  } else {
    out << "searches     not counted yet (hosts add their counts when they save or end)\n";
  }
  const RemoteErrorNote note = LastRemoteError(cache);
  if (AnyRemoteWork(cache, stats, note)) PrintRemoteText(stats, note, out);
}

// {"time": ..., "name": ...} of an effect's last use, or null for none.
void LastUse(JsonWriter& json, const std::string& key, const CacheFile::Entry* entry) {
  json.Key(key);
  if (entry == nullptr) {
    json.Null();
    return;
  }
  json.BeginObject().Field("time", TextFormat::IsoTime(entry->record.lastUsed)).Field("name", entry->name).EndObject();
}

void PrintStatsJson(const CacheFile& cache, const Totals& t, std::ostream& out) {
  JsonWriter json(out);
  json.BeginObject().Field("file", cache.File().AbsoluteText()).Field("fileBytes", cache.FileSize());
  json.Field("effects", t.effects).Field("permanent", t.permanent).Field("storedBytes", t.compressed);
  json.Field("sizeBytes", t.uncompressed).Key("compressionRatio");
  if (t.compressed == 0) {
    json.Null();
  } else {
    json.Number(RatioOf(t.uncompressed, t.compressed));
  }
  json.Field("access", Access(cache));
  LastUse(json, "oldestUsed", t.oldest);
  LastUse(json, "newestUsed", t.newest);
  EffectCacheStats stats;
  if (ReadCounts(cache, stats)) {
    const std::uint64_t searches = stats.hits + stats.misses;
    json.Key("searches").BeginObject().Field("hits", stats.hits).Field("misses", stats.misses).Key("hitRate");
    if (searches == 0) {
      json.Null();
    } else {
      json.Number(static_cast<double>(stats.hits) / static_cast<double>(searches));
    }
    json.Field("effectsCached", stats.cached).Field("effectsTrimmed", stats.trimmed);
    json.Field("countedSince", TextFormat::IsoTime(stats.zeroed)).EndObject();
  } else {
    json.Key("searches").Null();
  }
  json.Key("remote");
  const RemoteErrorNote note = LastRemoteError(cache);
  if (AnyRemoteWork(cache, stats, note)) {
    json.BeginObject().Field("hits", stats.remoteHits).Field("misses", stats.remoteMisses);
    json.Field("errors", stats.remoteErrors).Field("fetchedBytes", stats.remoteBytesIn);
    json.Field("sentBytes", stats.remoteBytesOut).Key("lastError");
    if (note.message.empty()) {
      json.Null();
    } else {
      json.BeginObject().Field("time", TextFormat::IsoTime(note.time)).Field("message", note.message).EndObject();
    }
    json.EndObject();
  } else {
    json.Null();
  }
  json.EndObject().Finish();
}

// Problems of the index as a whole: names twice, streams shared or owned
// by no effect.
// A name as messages show it: a long one cut short, never 64 KiB echoed.
std::string Shown(const std::string& name) {
  if (name.size() <= 80) return name;
  return name.substr(0, 60) + "... (" + TextFormat::Count(name.size()) + " bytes)";
}

// Puts one effect through the library, as a host would; false when the
// cache could not be used or saved.
bool StoreThroughLibrary(const UserPath& folder, const std::string& name, const std::vector<unsigned char>& bytes,
                         bool permanent) {
  RefPtr<EffectCacheSystem> cache(new EffectCacheSystem(WStr(folder.Absolute())));
  if (!cache->IsEnabled()) return false;
  if (!cache->CacheCompiledEffect(WStr(WideText::FromUtf8(name)), bytes.data(), bytes.size(), permanent)) {
    throw ToolError(ExitStatus::kFailed, "the cache refused the effect " + Shown(name));
  }
  cache->ForceSaveToFile();
  return cache->IsEnabled();
}

// Refuses a name the library would not take, saying why.
void CheckName(const std::string& name) {
  if (!WideText::IsUtf8(name)) throw ToolError(ExitStatus::kUsage, "the effect name is not UTF-8");
  if (name.size() > EffectIndex::kNameSizeLimit) {
    throw ToolError(ExitStatus::kUsage, "the effect name " + Shown(name) + " is longer than 65,536 bytes");
  }
}

// Why a save kept nothing: the file served read only (and why), too
// little disk space, or the cache's size limit. Under the mutex `cache`
// holds.
std::string WhyNotKept(const CacheFile& cache, std::uint64_t bytes) {
  const CacheWriteAccess::Why access = CacheWriteAccess::Check(cache.File().Absolute());
  if (access != CacheWriteAccess::Why::kWritable) return CacheWriteAccess::Describe(access);
  const std::uint64_t free = PlatformFile::AvailableBytes(cache.Folder().Absolute().c_str());
  if (free < bytes + 65536) return "too little disk space (" + TextFormat::Bytes(free) + " free)";
  return "the cache's size limit";
}

}  // namespace

std::shared_ptr<CommandGroup> EffectCommands::Group() {
  using Command = CommandGroup::Command;
  std::vector<Command> commands;
  commands.push_back(Command{"list", "FOLDER [PATTERN] [--sort name|size|stored|used] [--json]",
                             "one line per stored effect",
                             "For each effect stored in the folder's cache file, in the order of its index:\n"
                             "its size, its stored (compressed) size, p when it is permanent, when it was\n"
                             "last used and its name. Effects a host holds in memory are not in the file\n"
                             "yet. PATTERN keeps the names it matches (* any run, ? any one byte: quote it\n"
                             "from the shell). --sort orders by name, by size or stored size (largest\n"
                             "first) or by last use (least recent first). --json writes a JSON array.\n",
                             {"--json"}, {"--sort"}, 1, 2, &EffectCommands::List, nullptr});
  commands.push_back(Command{"get", "FOLDER NAME [-o FILE] [--force]", "an effect's bytes",
                             "Writes the effect's bytes, decompressed, to FILE (-o) or standard output\n"
                             "(also with -o -); to a terminal only with --force.\n",
                             {"--force"}, {"-o"}, 2, 2, &EffectCommands::Get, nullptr});
  commands.push_back(Command{"put", "FOLDER NAME FILE [--permanent]", "store a file as an effect",
                             "Stores FILE's bytes (1 byte to 1 MiB) as the effect NAME through the library's\n"
                             "EffectCacheSystem, as a host would, and saves. A permanent effect is never\n"
                             "trimmed. The folder must exist; a cache file is made if it has none. A cache\n"
                             "file that cannot be read is left alone (the library would replace it).\n",
                             {"--permanent"}, {}, 3, 3, &EffectCommands::Put, nullptr});
  MaintenanceCommands::AddTo(commands);
  SalvageCommand::AddTo(commands);
  RemoteCommands::AddTo(commands);
  commands.push_back(Command{"stats", "FOLDER [--json] [--zero]", "count, bytes, compression, use, hit rate",
                             "The number of effects, the bytes stored and the bytes of the effects, the\n"
                             "compression ratio, the oldest and newest last use, and the searches that hit\n"
                             "and missed, effects cached and trimmed since the counts were last zeroed\n"
                             "(hosts add their counts when they save, or when they end without saving),\n"
                             "and whether a host could write the file (\"read only: \" and why if not).\n"
                             "--zero zeroes the counts first.\n"
                             "--json: one object.\n",
                             {"--json", "--zero"}, {}, 1, 1, &EffectCommands::Stats, nullptr});
  commands.push_back(Command{"verify", "FOLDER [--json]", "every effect decompresses to its recorded size",
                             "Reads every effect of the index and checks that its stream holds what its\n"
                             "record says and decompresses to its recorded size; also that no two effects\n"
                             "share a name or a stream and that every stream belongs to an effect.\n"
                             "Prints each problem found.\n\n"
                             "--json: one object {file, journal, problems, checked, ok}.\n\n"
                             "exit status: 0 no problem, 1 problems found, 2 the cache cannot be read at all\n",
                             {"--json"}, {}, 1, 1, &EffectCommands::Verify, nullptr});
  return std::make_shared<CommandGroup>(
      "tovrel effects",
      "Looks into an effect cache folder, stores effects in it and takes them out through the library.",
      std::move(commands));
}

int EffectCommands::List(const CommandLine& line, Console& console) {
  const CacheFile cache{UserPath(line.Positionals()[0])};
  if (line.Has("--json")) {
    PrintListJson(Listed(cache, line), console.Out());
  } else {
    PrintListText(Listed(cache, line), console.Out());
  }
  return ExitStatus::kOk;
}

int EffectCommands::Get(const CommandLine& line, Console& console) {
  const std::string& name = line.Positionals()[1];
  // "-o -" is standard output, as most tools take it.
  const bool toFile = line.HasValue("-o") && line.Value("-o", "") != "-";
  if (!toFile) console.RefuseBinaryOnTerminal(line.Has("--force"));
  Tab<unsigned char> data;
  {
    const CacheFile cache{UserPath(line.Positionals()[0])};
    const CacheFile::Entry* entry = cache.Find(name);
    if (entry == nullptr) throw ToolError(ExitStatus::kFailed, line.Positionals()[0] + ": no effect " + Shown(name));
    const EffectPayload::Result result = cache.Read(*entry, data);
    if (result != EffectPayload::Result::kOk) {
      throw ToolError(ExitStatus::kFailed, line.Positionals()[0] + ": effect " + name + ": " +
                                               EffectPayload::Describe(result));
    }
  }
  const auto size = static_cast<std::size_t>(data.Count());
  if (toFile) {
    LocalFile::Write(UserPath(line.Value("-o", "")), data.Addr(0), size);
  } else {
    console.Out().write(reinterpret_cast<const char*>(data.Addr(0)), static_cast<std::streamsize>(size));
    console.Out().flush();
  }
  return ExitStatus::kOk;
}

int EffectCommands::Put(const CommandLine& line, Console& console) {
  const UserPath folder(line.Positionals()[0]);
  const std::string& name = line.Positionals()[1];
  CheckName(name);
  const std::vector<unsigned char> bytes = LocalFile::Read(UserPath(line.Positionals()[2]), EffectIndex::kEffectSizeLimit);
  if (bytes.empty()) throw ToolError(ExitStatus::kFailed, line.Positionals()[2] + ": empty; an effect holds 1 byte or more");
  if (!folder.IsFolder()) throw ToolError(ExitStatus::kUnreadable, folder.Typed() + ": no such folder");
  if (CacheFile::FileOf(folder).Exists()) {
    const CacheFile check(folder);  // refuses a file the library would replace
  }
  if (!StoreThroughLibrary(folder, name, bytes, line.Has("--permanent"))) {
    const std::string owner = CacheFileNames::OwnerNote(CacheFile::FileOf(folder).Absolute());
    throw ToolError(ExitStatus::kFailed, folder.Typed() + ": the effect cache could not be opened or saved" +
                                             (owner.empty() ? "" : ": " + owner));
  }
  const CacheFile cache(folder);
  const CacheFile::Entry* stored = cache.Find(name);
  if (stored == nullptr || stored->record.uncompressedSize != bytes.size()) {
    throw ToolError(ExitStatus::kFailed, folder.Typed() + ": the cache did not keep " + Shown(name) + " (" +
                                             WhyNotKept(cache, bytes.size()) + ")");
  }
  console.Out() << "stored " << name << ": " << TextFormat::Bytes(bytes.size()) << ", "
                << TextFormat::Count(stored->record.compressedSize) << " compressed ("
                << TextFormat::Ratio(bytes.size(), stored->record.compressedSize) << ")"
                << (stored->record.permanent != 0 ? ", permanent\n" : "\n");
  return ExitStatus::kOk;
}

int EffectCommands::Stats(const CommandLine& line, Console& console) {
  const UserPath folder(line.Positionals()[0]);
  if (line.Has("--zero")) {
    {
      const CacheFile check(folder);  // refuses a folder without a readable cache
    }
    bool damaged = false;
    if (!EffectCacheMaintenance::ZeroStatistics(WStr(folder.Absolute().c_str()), &damaged)) {
      if (damaged) {
        throw ToolError(ExitStatus::kUnreadable, folder.Typed() + ": the cache file is damaged, so nothing was changed");
      }
      throw ToolError(ExitStatus::kFailed, CacheFile::ChangeFailed(folder, "opened or saved"));
    }
    if (!line.Has("--json")) console.Out() << "hit statistics zeroed\n";
  }
  const CacheFile cache{folder};
  const Totals totals = Sum(cache);
  if (line.Has("--json")) {
    PrintStatsJson(cache, totals, console.Out());
  } else {
    PrintStatsText(cache, totals, console.Out());
  }
  return ExitStatus::kOk;
}

int EffectCommands::Verify(const CommandLine& line, Console& console) {
  const std::string& name = line.Positionals()[0];
  const CacheFile cache{UserPath(name)};
  ProgressReporter progress(console, "checking effects", cache.Entries().size());
  const std::vector<std::string> problems = EffectCacheVerifier::CheckAll(
      cache.Package(), cache.FileSize(), cache.Header().indexStreamId, cache.Entries(),
      [&cache](const CacheFile::Entry& entry, Tab<unsigned char>& data) { return cache.Read(entry, data); },
      [&progress](std::uint64_t done, std::uint64_t) { progress.Update(done); });
  const auto report = line.Has("--json") ? &VerifyReport::PrintJson : &VerifyReport::Print;
  return report(console, name, problems, TextFormat::Counted(cache.Entries().size(), "effect"),
                cache.Locked().JournalNote());
}

}  // namespace Tool
}  // namespace Tovrel
