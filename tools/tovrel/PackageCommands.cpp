#include "PackageCommands.h"

#include <array>
#include <filesystem>
#include <memory>
#include <vector>

#include "ExitStatus.h"
#include "JsonWriter.h"
#include "LockedPackage.h"
#include "MaintenanceCommands.h"
#include "ProgressReporter.h"
#include "TextFormat.h"
#include "ToolError.h"
#include "VerifyReport.h"
#include "effectcache/EffectCacheImpl.h"
#include "package/PackageVerifier.h"
#include "pagefile/PageGeometry.h"

namespace Tovrel {
namespace Tool {

namespace {

constexpr std::uint64_t kCatChunk = 65536;

// What "package info" reports, gathered from an open package.
struct Summary {
  struct Child {
    std::uint64_t identifier;
    std::uint64_t usedBytes;
    std::uint64_t tails;
  };
  std::uint64_t fileBytes;
  std::uint64_t filePages;
  std::uint64_t tablePages;
  std::uint64_t freePages;
  std::uint64_t streams;
  std::uint64_t streamBytes;
  std::vector<Child> children;
  std::uint64_t childBytesUsed;
  std::uint64_t headBytes;
  std::uint64_t headPages;
  std::uint64_t userDataBytes;
};

Summary Summarise(const LockedPackage& file) {
  PagedFilePackage& package = file.Package();
  PageAllocator& allocator = package.GetAllocator();
  Summary s{};
  s.fileBytes = file.FileSize();
  s.filePages = (s.fileBytes + kPageSize - 1) / kPageSize;
  s.tablePages = allocator.GetTableLength();
  for (std::uint64_t page = kFirstPageId; page < kFirstPageId + s.tablePages; ++page) {
    if (allocator.GetNextPage(page) == IPageAllocator::kFreeLink) ++s.freePages;
  }
  if (s.filePages > s.tablePages) s.freePages += s.filePages - s.tablePages;
  s.streams = package.GetNumberOfStreams();
  s.streamBytes = package.GetTotalStreamSize();
  const ChildFileTable& children = package.GetChildFileTable();
  for (std::uint64_t i = 0; i < children.GetChildFileCount(); ++i) {
    const std::uint64_t id = children.GetChildFileIdentifier(i);
    const std::uint64_t used = kChildFileSize - children.FindChildFile(id)->freeBytes;
    s.children.push_back(Summary::Child{id, used, children.TailsOf(id)->size()});
    s.childBytesUsed += used;
  }
  s.headBytes = package.GetHeadSeeker()->totalSize;
  s.headPages = package.GetHeadSeeker()->pageCount;
  s.userDataBytes = package.GetUserDataSize();
  return s;
}

// Child files by how full they are, in quarters.
std::array<std::uint64_t, 4> FillQuarters(const Summary& s) {
  std::array<std::uint64_t, 4> quarters{};
  for (const Summary::Child& child : s.children) {
    const std::uint64_t quarter = child.usedBytes * 4 / kChildFileSize;
    ++quarters[quarter > 3 ? 3 : quarter];
  }
  return quarters;
}

void PrintInfoText(const LockedPackage& file, const Summary& s, bool childFiles, std::ostream& out) {
  const std::array<std::uint64_t, 4> quarters = FillQuarters(s);
  const std::uint64_t childBytes = s.children.size() * kChildFileSize;
  out << "file         " << file.File().AbsoluteText() << "\n"
      << "size         " << TextFormat::Bytes(s.fileBytes) << ", " << TextFormat::Counted(s.filePages, "page")
      << " of 8,192 bytes\n"
      << "pages        " << TextFormat::Count(s.tablePages) << " in the allocation table, "
      << TextFormat::Count(s.freePages) << " free\n"
      << "streams      " << TextFormat::Count(s.streams) << ", holding " << TextFormat::Bytes(s.streamBytes) << "\n"
      << "child files  " << TextFormat::Count(s.children.size()) << " of 64 KiB, "
      << TextFormat::Counted(s.childBytesUsed, "byte") << " used (" << TextFormat::Percent(s.childBytesUsed, childBytes)
      << ")\n"
      << "  filled     " << quarters[0] << " below 25 %, " << quarters[1] << " 25-50 %, " << quarters[2]
      << " 50-75 %, " << quarters[3] << " 75-100 %\n";
  if (childFiles) {
    for (const Summary::Child& child : s.children) {
      out << "  child " << TextFormat::Left(std::to_string(child.identifier), 6) << TextFormat::Counted(child.usedBytes, "byte")
          << " used, " << TextFormat::Counted(child.tails, "tail") << "\n";
    }
  }
  out << "head stream  " << TextFormat::Bytes(s.headBytes) << " on " << s.headPages
      << (s.headPages == 1 ? " page\n" : " pages\n")
      << "user data    " << TextFormat::Bytes(s.userDataBytes) << "\n"
      << "journal      " << (file.Journal().present ? file.JournalNote() : std::string("none")) << "\n";
}

void PrintChildFilesJson(const Summary& s, bool list, JsonWriter& json) {
  const std::array<std::uint64_t, 4> quarters = FillQuarters(s);
  json.Key("childFiles").BeginObject().Field("count", static_cast<std::uint64_t>(s.children.size()));
  json.Field("usedBytes", s.childBytesUsed).Field("freeBytes", s.children.size() * kChildFileSize - s.childBytesUsed);
  json.Key("filledByQuarter").BeginArray();
  for (std::uint64_t quarter : quarters) json.Number(quarter);
  json.EndArray();
  if (list) {
    json.Key("list").BeginArray();
    for (const Summary::Child& child : s.children) {
      json.BeginObject().Field("id", child.identifier).Field("usedBytes", child.usedBytes);
      json.Field("freeBytes", kChildFileSize - child.usedBytes).Field("tails", child.tails).EndObject();
    }
    json.EndArray();
  }
  json.EndObject();
}

void PrintInfoJson(const LockedPackage& file, const Summary& s, bool childFiles, std::ostream& out) {
  JsonWriter json(out);
  json.BeginObject().Field("file", file.File().AbsoluteText()).Field("fileBytes", s.fileBytes);
  json.Key("pages").BeginObject().Field("inFile", s.filePages).Field("inAllocationTable", s.tablePages);
  json.Field("free", s.freePages).EndObject();
  json.Key("streams").BeginObject().Field("count", s.streams).Field("sizeBytes", s.streamBytes).EndObject();
  PrintChildFilesJson(s, childFiles, json);
  json.Key("headStream").BeginObject().Field("sizeBytes", s.headBytes).Field("pages", s.headPages).EndObject();
  json.Field("userDataBytes", s.userDataBytes);
  const RollbackJournal::Found& journal = file.Journal();
  json.Key("journal");
  if (journal.present) {
    json.BeginObject().Field("complete", journal.complete).Field("heldByAnotherProcess", journal.busy);
    json.Field("pages", static_cast<std::uint64_t>(journal.pageIds.size())).Field("savedFileBytes", journal.savedLength);
    json.EndObject();
  } else {
    json.Null();
  }
  json.EndObject().Finish();
}

// Where one stream's tail lies: its record and the page and offset in the
// file where it starts.
struct TailPlace {
  const StreamTailRecord* record;
  std::uint64_t page;
  std::uint64_t offsetInPage;
};

TailPlace PlaceOf(const PagedFilePackage& package, std::uint64_t identifier) {
  const ChildFileTable& children = package.GetChildFileTable();
  TailPlace place{children.FindTail(identifier), 0, 0};
  if (place.record == nullptr) return place;
  const ChildFileRecord* child = children.FindChildFile(place.record->childFileIdentifier);
  const std::uint64_t slot = place.record->offset / kPageSize;
  if (child != nullptr && slot < kChildFilePages) place.page = child->page[slot];
  place.offsetInPage = place.record->offset % kPageSize;
  return place;
}

std::string TailText(const TailPlace& place) {
  if (place.record == nullptr) return "-";
  return "child " + std::to_string(place.record->childFileIdentifier) + " at " +
         std::to_string(place.record->offset) + ", " + std::to_string(place.record->size) + " bytes (page " +
         std::to_string(place.page) + " + " + std::to_string(place.offsetInPage) + ")";
}

void PrintListText(const PagedFilePackage& package, std::ostream& out) {
  const StreamTable& streams = package.GetStreamTable();
  out << TextFormat::Right("ID", 8) << TextFormat::Right("SIZE", 13) << TextFormat::Right("PAGES", 8)
      << TextFormat::Right("FIRST", 8) << "  TAIL\n";
  for (std::uint64_t i = 0; i < streams.GetCount(); ++i) {
    const StreamEntry& entry = *streams.Find(streams.GetIdentifier(i));
    out << TextFormat::Right(std::to_string(entry.identifier), 8) << TextFormat::Right(std::to_string(entry.size), 13)
        << TextFormat::Right(std::to_string(entry.fullPageCount), 8)
        << TextFormat::Right(entry.firstPage == 0 ? "-" : std::to_string(entry.firstPage), 8) << "  "
        << TailText(PlaceOf(package, entry.identifier)) << "\n";
  }
}

void PrintListJson(const PagedFilePackage& package, std::ostream& out) {
  const StreamTable& streams = package.GetStreamTable();
  JsonWriter json(out);
  json.BeginArray();
  for (std::uint64_t i = 0; i < streams.GetCount(); ++i) {
    const StreamEntry& entry = *streams.Find(streams.GetIdentifier(i));
    json.BeginObject().Field("id", entry.identifier).Field("sizeBytes", entry.size);
    json.Field("wholePages", entry.fullPageCount).Key("firstPage");
    if (entry.firstPage == 0) {
      json.Null();
    } else {
      json.Number(entry.firstPage);
    }
    json.Key("tail");
    const TailPlace place = PlaceOf(package, entry.identifier);
    if (place.record == nullptr) {
      json.Null();
    } else {
      json.BeginObject().Field("childFile", place.record->childFileIdentifier).Field("offset", place.record->offset);
      json.Field("sizeBytes", place.record->size).Field("page", place.page).Field("offsetInPage", place.offsetInPage);
      json.EndObject();
    }
    json.EndObject();
  }
  json.EndArray().Finish();
}

}  // namespace

std::shared_ptr<CommandGroup> PackageCommands::Group() {
  using Command = CommandGroup::Command;
  std::vector<Command> commands;
  commands.push_back(Command{"info", "FILE [--json] [--child-files]", "sizes and counts of a package file",
                             "Shows the file's size and pages (how many are free), its streams and the bytes\n"
                             "they hold, its child files and how full they are, the head stream and the\n"
                             "user data; --child-files adds one line per child file. --json writes the same\n"
                             "as one JSON object (see docs/JSON.md).\n",
                             {"--json", "--child-files"}, {}, 1, 1, &PackageCommands::Info, nullptr});
  commands.push_back(Command{"ls", "FILE [--json]", "one line per stream",
                             "For each stream: its identifier, size, whole pages, first whole page and\n"
                             "where its tail lies (child file, offset, size, and the page it starts on).\n"
                             "--json writes a JSON array of the same.\n",
                             {"--json"}, {}, 1, 1, &PackageCommands::List, nullptr});
  commands.push_back(Command{"cat", "FILE ID [--force]", "a stream's bytes to standard output",
                             "Writes the bytes of stream ID, exactly, to standard output; to a terminal\n"
                             "only with --force.\n",
                             {"--force"}, {}, 2, 2,
                             &PackageCommands::Cat, nullptr});
  commands.push_back(Command{"compact", "FILE", "shrink a package file to the pages it uses",
                             "Packs tails into fewer child files, moves pages from the end of the file into\n"
                             "free ones and cuts the file, in one save (a crash leaves the file as it was or\n"
                             "compacted); streams keep their identifiers and bytes. The file must not be in\n"
                             "use by another program, except a cache file, which is compacted as\n"
                             "\"tovrel effects compact\" does it, under its mutex.\n",
                             {}, {}, 1, 1, &PackageCommands::Compact, nullptr});
  commands.push_back(Command{"verify", "FILE [--json]", "deep check of a package file",
                             "Checks what opening a package does not: every page belongs to exactly one\n"
                             "owner (the head chain, one stream, one child file) or is free; every chain\n"
                             "links as its owner says and has the length its entry says; the tails in each\n"
                             "child file are contiguous and do not overlap; every stream reads to its size.\n"
                             "Prints each problem found.\n\n"
                             "--json: one object {file, journal, problems, checked, ok}.\n\n"
                             "exit status: 0 no problem, 1 problems found, 2 the file cannot be read at all\n",
                             {"--json"}, {}, 1, 1, &PackageCommands::Verify, nullptr});
  return std::make_shared<CommandGroup>("tovrel package", "Looks into a package file; only compact changes it.",
                                        std::move(commands));
}

int PackageCommands::Info(const CommandLine& line, Console& console) {
  const LockedPackage file(UserPath(line.Positionals()[0]), PagedFilePackage::kAnyStreamLimit);
  const Summary summary = Summarise(file);
  if (line.Has("--json")) {
    PrintInfoJson(file, summary, line.Has("--child-files"), console.Out());
  } else {
    PrintInfoText(file, summary, line.Has("--child-files"), console.Out());
  }
  return ExitStatus::kOk;
}

int PackageCommands::List(const CommandLine& line, Console& console) {
  const LockedPackage file(UserPath(line.Positionals()[0]), PagedFilePackage::kAnyStreamLimit);
  if (line.Has("--json")) {
    PrintListJson(file.Package(), console.Out());
  } else {
    PrintListText(file.Package(), console.Out());
  }
  return ExitStatus::kOk;
}

int PackageCommands::Compact(const CommandLine& line, Console& console) {
  const UserPath file(line.Positionals()[0]);
  const std::filesystem::path path(file.Absolute());
  if (path.filename() == std::filesystem::path(EffectCacheImpl::kCacheFileName) && file.IsFile()) {
    return MaintenanceCommands::CompactFolder(UserPath(path.parent_path().u8string()), file.Typed(), console);
  }
  const LockedPackage locked(file, PagedFilePackage::kAnyStreamLimit, true);
  PagedFilePackage::CompactResult result;
  try {
    if (!locked.Package().Compact(&result)) throw ToolError(ExitStatus::kFailed, file.Typed() + ": cannot be compacted");
  } catch (const ToolError&) {
    throw;
  } catch (const std::exception& e) {
    throw ToolError(ExitStatus::kFailed, file.Typed() + ": the compaction did not complete (" + e.what() +
                                             "); the file is as its last completed save left it");
  }
  MaintenanceCommands::PrintCompaction(file.Typed(), result.lengthBefore, result.lengthAfter, console);
  return ExitStatus::kOk;
}

int PackageCommands::Cat(const CommandLine& line, Console& console) {
  const std::uint64_t id = CommandLine::Number(line.Positionals()[1], "ID", 0, IDataStreamSet::kNoStream - 1);
  console.RefuseBinaryOnTerminal(line.Has("--force"));
  const LockedPackage file(UserPath(line.Positionals()[0]), PagedFilePackage::kAnyStreamLimit);
  const std::string name = line.Positionals()[0] + ": stream " + std::to_string(id);
  const StreamEntry* entry = file.Package().GetStreamTable().Find(id);
  if (entry == nullptr) throw ToolError(ExitStatus::kFailed, name + ": no such stream");
  if (entry->size == 0) return ExitStatus::kOk;
  std::uint64_t done = 0;
  try {
    RefPtr<IDataStream> stream = file.Package().OpenStream(id);
    if (!stream) throw ToolError(ExitStatus::kFailed, name + ": cannot be opened (its chain is broken)");
    std::vector<char> buffer(kCatChunk);
    while (done < entry->size) {
      const std::uint64_t got = stream->Read(buffer.data(), buffer.size());
      console.Out().write(buffer.data(), static_cast<std::streamsize>(got));
      done += got;
      if (got < buffer.size()) break;
    }
  } catch (const ToolError&) {
    throw;
  } catch (const std::exception& e) {
    throw ToolError(ExitStatus::kFailed, name + ": cannot be read (" + e.what() + ")");
  }
  console.Out().flush();
  if (done < entry->size) {
    throw ToolError(ExitStatus::kFailed, name + ": reads only " + std::to_string(done) + " of its " +
                                             std::to_string(entry->size) + " bytes");
  }
  return ExitStatus::kOk;
}

int PackageCommands::Verify(const CommandLine& line, Console& console) {
  const LockedPackage file(UserPath(line.Positionals()[0]), PagedFilePackage::kAnyStreamLimit);
  PackageVerifier verifier(file.Package(), file.FileSize());
  // The reporter's quiet second starts when the streams' reading does.
  std::unique_ptr<ProgressReporter> progress;
  verifier.SetProgress([&](std::uint64_t done, std::uint64_t total) {
    if (!progress) progress.reset(new ProgressReporter(console, "reading streams", total));
    progress->Update(done);
  });
  const std::vector<std::string> problems = verifier.Run();
  progress.reset();
  const auto report = line.Has("--json") ? &VerifyReport::PrintJson : &VerifyReport::Print;
  return report(console, line.Positionals()[0], problems,
                TextFormat::Counted(verifier.PagesChecked(), "page") + ", " +
                    TextFormat::Counted(file.Package().GetNumberOfStreams(), "stream") + ", " +
                    TextFormat::Counted(verifier.BytesRead(), "byte") + " read",
                file.JournalNote());
}

}  // namespace Tool
}  // namespace Tovrel
