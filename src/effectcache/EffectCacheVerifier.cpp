#include "effectcache/EffectCacheVerifier.h"

#include <map>
#include <set>

#include "effectcache/EffectCacheReader.h"
#include "package/PackageVerifier.h"

namespace Tovrel {

void EffectCacheVerifier::CheckIndex(const IDataStreamSet& package, std::uint64_t indexStreamId,
                                     const Entries& entries, std::vector<std::string>& problems) {
  std::map<std::uint64_t, const EffectTable::Entry*> owners;
  std::set<std::string> names;
  for (const EffectTable::Entry& entry : entries) {
    if (!names.insert(entry.name).second) problems.push_back("effect " + entry.name + ": named twice in the index");
    const auto found = owners.emplace(entry.record.streamId, &entry);
    if (!found.second) {
      problems.push_back("effects " + found.first->second->name + " and " + entry.name + " share stream " +
                         std::to_string(entry.record.streamId));
    }
  }
  for (std::uint64_t i = 0; i < package.GetNumberOfStreams(); ++i) {
    const std::uint64_t id = package.GetStreamIdentifier(i);
    if (id != indexStreamId && owners.count(id) == 0) {
      problems.push_back("stream " + std::to_string(id) + " belongs to no effect");
    }
  }
}

void EffectCacheVerifier::CheckEffects(const Entries& entries, const ReadEffect& read, const Progress& progress,
                                       std::vector<std::string>& problems) {
  std::uint64_t done = 0;
  for (const EffectTable::Entry& entry : entries) {
    Tab<unsigned char> data;
    const EffectPayload::Result result = read(entry, data);
    if (result != EffectPayload::Result::kOk) {
      problems.push_back("effect " + entry.name + ": " + EffectPayload::Describe(result));
    }
    if (progress) progress(++done, entries.size());
  }
}

std::vector<std::string> EffectCacheVerifier::CheckAll(PagedFilePackage& package, std::uint64_t fileSize,
                                                       std::uint64_t indexStreamId, const Entries& entries,
                                                       const ReadEffect& read, const Progress& progress) {
  std::vector<std::string> problems = PackageVerifier(package, fileSize).Run();
  CheckIndex(package, indexStreamId, entries, problems);
  CheckEffects(entries, read, progress, problems);
  return problems;
}

namespace {

// Opens the folder's file for reading; the reader when it is a cache,
// else the outcome that says why not.
EffectCacheVerifier::Outcome OutcomeOf(const EffectCacheReader& reader) {
  switch (reader.Why()) {
    case EffectCacheReader::Failure::kNone: return EffectCacheVerifier::Outcome::kChecked;
    case EffectCacheReader::Failure::kNoFile: return EffectCacheVerifier::Outcome::kNoFile;
    case EffectCacheReader::Failure::kNotACache: return EffectCacheVerifier::Outcome::kNotACache;
    case EffectCacheReader::Failure::kUnreadable: break;
  }
  return EffectCacheVerifier::Outcome::kUnreadable;
}

}  // namespace

EffectCacheVerifier::Report EffectCacheVerifier::VerifyFolder(const WStr& folder, const Progress& progress) {
  Report report;
  EffectCacheReader reader(folder);
  report.outcome = OutcomeOf(reader);
  if (report.outcome != Outcome::kChecked) return report;
  PagedFilePackage& package = reader.Package();
  const Entries entries(reader.Entries().begin(), reader.Entries().end());
  report.effects = entries.size();
  const ReadEffect read = [&reader](const EffectTable::Entry& entry, Tab<unsigned char>& data) {
    return reader.ReadChecked(entry.record, data);
  };
  report.problems =
      CheckAll(package, package.GetFileLength(), reader.Header().indexStreamId, entries, read, progress);
  return report;
}

EffectCacheVerifier::Report EffectCacheVerifier::CheckFolderTables(const WStr& folder) {
  Report report;
  EffectCacheReader reader(folder);
  report.outcome = OutcomeOf(reader);
  if (report.outcome != Outcome::kChecked) return report;
  PagedFilePackage& package = reader.Package();
  PackageVerifier tables(package, package.GetFileLength());
  tables.LimitReads(0);
  report.problems = tables.Run();
  const Entries entries(reader.Entries().begin(), reader.Entries().end());
  report.effects = entries.size();
  CheckIndex(package, reader.Header().indexStreamId, entries, report.problems);
  return report;
}

}  // namespace Tovrel
