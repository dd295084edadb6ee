#include "SalvageCommand.h"

#include <filesystem>
#include <string>

#include "ExitStatus.h"
#include "JsonWriter.h"
#include "TextFormat.h"
#include "ToolError.h"
#include "UserPath.h"
#include "effectcache/EffectCacheImpl.h"
#include "effectcache/EffectCacheMaintenance.h"
#include "effectcache/EffectCacheSalvage.h"

namespace Tovrel {
namespace Tool {

namespace {

using Salvage = EffectCacheMaintenance::SalvageResult;

bool ReplacedEmpty(const Salvage& result) {
  return result.needed && result.summary.verdict != EffectCacheSalvage::Verdict::kSalvaged;
}

void PrintText(const Salvage& result, const std::string& file, Console& console) {
  std::ostream& out = console.Out();
  if (!result.needed) {
    out << file << ": the cache file passed every check (" << TextFormat::Counted(result.effects, "effect")
        << "); nothing to salvage\n";
    return;
  }
  if (ReplacedEmpty(result)) {
    out << file << ": no cache a host would load (its header block fails its checks, or its index stream is "
        << "missing): nothing could be salvaged, and it was replaced by an empty cache\n";
    return;
  }
  const EffectCacheSalvage::Summary& s = result.summary;
  out << "salvaged " << file << ": kept " << TextFormat::Count(s.keptEffects) << " of "
      << TextFormat::Counted(s.readEntries, "effect") << " read (" << TextFormat::Bytes(s.keptBytes)
      << " stored), dropped " << TextFormat::Count(s.dropped.size()) << "\n"
      << "the index recorded " << TextFormat::Counted(s.recordedEffects, "effect") << "; "
      << TextFormat::Count(s.readEntries) << " of its entries could be read\n";
  for (const std::string& name : s.dropped) out << "dropped  " << name << "\n";
  out << "the damaged file is kept as " << file << "-damaged\n";
}

void PrintJson(const Salvage& result, const std::string& file, Console& console) {
  JsonWriter json(console.Out());
  const EffectCacheSalvage::Summary& s = result.summary;
  json.BeginObject().Field("file", file).Field("needed", result.needed);
  json.Field("replacedEmpty", ReplacedEmpty(result));
  if (!result.needed) {
    json.Field("effects", result.effects);
  } else {
    json.Field("recordedEffects", s.recordedEffects).Field("readEntries", s.readEntries);
    json.Field("keptEffects", s.keptEffects).Field("keptBytes", s.keptBytes).Key("dropped").BeginArray();
    for (const std::string& name : s.dropped) json.String(name);
    json.EndArray();
  }
  json.Key("damagedCopy");
  if (result.needed && !ReplacedEmpty(result)) {
    json.String(file + "-damaged");
  } else {
    json.Null();
  }
  json.EndObject().Finish();
}

}  // namespace

void SalvageCommand::AddTo(std::vector<CommandGroup::Command>& commands) {
  commands.push_back(CommandGroup::Command{
      "salvage", "FOLDER [--json]", "keep what is intact in a damaged cache file",
      "Checks the folder's cache file as verify does. A sound file is left as it is.\n"
      "Otherwise every effect whose index entry can be read and whose bytes\n"
      "decompress to exactly their recorded size is carried into a new file, with\n"
      "its name, permanence and last use; the rest is dropped (each name listed).\n"
      "The former file is kept beside the new one as norvaneFxoCache.dat-damaged\n"
      "(the latest one only). A host does the same when a file does not load.\n\n"
      "--json: one object {file, needed, replacedEmpty, recordedEffects,\n"
      "readEntries, keptEffects, keptBytes, dropped, damagedCopy}.\n\n"
      "exit status: 0 sound, or every effect recorded kept; 1 effects lost (dropped,\n"
      "unreadable entries, or nothing to salvage: an empty cache took its place);\n"
      "2 no cache file, or it could not be read or written now (nothing changed)\n",
      {"--json"}, {}, 1, 1, &SalvageCommand::Run, nullptr});
}

int SalvageCommand::Run(const CommandLine& line, Console& console) {
  const UserPath folder(line.Positionals()[0]);
  if (!folder.IsFolder()) {
    throw ToolError(ExitStatus::kUnreadable, folder.Typed() + (folder.Exists() ? ": not a folder" : ": no such folder"));
  }
  const std::string file =
      (std::filesystem::u8path(folder.Typed()) / std::filesystem::path(EffectCacheImpl::kCacheFileName)).u8string();
  const Salvage result = EffectCacheMaintenance::Salvage(WStr(folder.Absolute().c_str()));
  if (result.noFile) throw ToolError(ExitStatus::kUnreadable, folder.Typed() + ": no effect cache file");
  if (!result.ok) {
    throw ToolError(ExitStatus::kUnreadable,
                    file + ": the cache file could not be read or written now, or is read only; nothing was changed");
  }
  if (line.Has("--json")) {
    PrintJson(result, file, console);
  } else {
    PrintText(result, file, console);
  }
  const EffectCacheSalvage::Summary& s = result.summary;
  const bool lost = ReplacedEmpty(result) || !s.dropped.empty() || s.readEntries < s.recordedEffects;
  return lost ? ExitStatus::kFailed : ExitStatus::kOk;
}

}  // namespace Tool
}  // namespace Tovrel
