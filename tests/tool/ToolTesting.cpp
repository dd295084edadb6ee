#include "tool/ToolTesting.h"

#include <fstream>
#include <iterator>
#include <sstream>
#include <stdexcept>

#include "Console.h"
#include "TovrelTool.h"
#include "package/PagedFilePackage.h"
#include "pagefile/PageGeometry.h"
#include "platform/PlatformProcess.h"
#include "platform/WideText.h"
#include "support/ChildLauncher.h"
#include "support/EffectTesting.h"
#include "support/PackageTesting.h"
#include "tovrel/tovrel.h"

namespace Tovrel {
namespace Testing {

namespace fs = std::filesystem;

namespace {

ToolTesting::Result RunWith(const std::vector<std::string>& words, bool outputOnTerminal) {
  std::ostringstream out;
  std::ostringstream err;
  Tool::Console console(out, err, false, outputOnTerminal);
  const int status = Tool::TovrelTool::Run(words, console);
  return ToolTesting::Result{status, out.str(), err.str()};
}

}  // namespace

ToolTesting::Result ToolTesting::Run(const std::vector<std::string>& words) { return RunWith(words, false); }

ToolTesting::Result ToolTesting::RunOnTerminal(const std::vector<std::string>& words) {
  return RunWith(words, true);
}

ToolTesting::Result ToolTesting::RunOn(const std::string& group, const std::string& command, const fs::path& target,
                                       const std::vector<std::string>& more) {
  std::vector<std::string> words{group, command, Utf8(target)};
  words.insert(words.end(), more.begin(), more.end());
  return Run(words);
}

std::string ToolTesting::ProgramPath() {
  const fs::path self = fs::u8path(PlatformProcess::CurrentExecutable());
  return Utf8(self.parent_path() / TOVREL_TOOL_FILE_NAME);
}

ToolTesting::Result ToolTesting::RunProgram(const std::vector<std::string>& words, const fs::path& scratch) {
  const fs::path out = scratch / "program-out.txt";
  const fs::path err = scratch / "program-err.txt";
  const auto child = ChildLauncher::StartProgram(ProgramPath(), words, Utf8(out), Utf8(err));
  if (child == nullptr) throw std::runtime_error("cannot start " + ProgramPath());
  const int status = ChildLauncher::Finish(*child);
  const std::vector<std::uint8_t> outBytes = ReadFile(out);
  const std::vector<std::uint8_t> errBytes = ReadFile(err);
  return Result{status, std::string(outBytes.begin(), outBytes.end()), std::string(errBytes.begin(), errBytes.end())};
}

std::vector<std::uint64_t> ToolTesting::MakePackage(const fs::path& file, const std::vector<std::uint64_t>& sizes,
                                                    std::uint64_t userData) {
  return PackageTesting::MakeFile(WideText::FromUtf8(Utf8(file)), sizes, userData);
}

void ToolTesting::MakeCache(const fs::path& folder, std::uint32_t count, std::size_t size) {
  fs::create_directories(folder);
  RefPtr<EffectCacheSystem> cache(new EffectCacheSystem(WStr(WideText::FromUtf8(Utf8(folder)))));
  for (std::uint32_t i = 0; i < count; ++i) {
    const std::vector<unsigned char> bytes = EffectTesting::Bytes(i + 1, size + i, true);
    const std::wstring name = L"fx/" + std::to_wstring(i);
    if (!cache->CacheCompiledEffect(WStr(name), bytes.data(), bytes.size(), i % 5 == 0)) {
      throw std::runtime_error("cannot cache an effect");
    }
  }
  cache->ForceSaveToFile();
  if (!cache->IsEnabled()) throw std::runtime_error("the cache did not save");
}

std::uint64_t ToolTesting::FileOffsetOf(const fs::path& file, std::uint64_t stream, std::uint64_t at) {
  const std::wstring path = WideText::FromUtf8(Utf8(file));
  RefPtr<IDataStreamSet> opened = OpenFilePackage(PackageTesting::Config(path));
  auto* package = dynamic_cast<PagedFilePackage*>(opened.Get());
  const StreamEntry* entry = package == nullptr ? nullptr : package->GetStreamTable().Find(stream);
  if (entry == nullptr || at >= entry->size) throw std::runtime_error("no such stream byte");
  if (at < entry->fullPageCount * kPageSize) {
    std::uint64_t page = entry->firstPage;
    for (std::uint64_t k = 0; k < at / kPageSize; ++k) page = package->GetAllocator().GetNextPage(page);
    return PageOffset(page) + at % kPageSize;
  }
  const StreamTailRecord* tail = package->GetChildFileTable().FindTail(stream);
  const ChildFileRecord* child = package->GetChildFileTable().FindChildFile(tail->childFileIdentifier);
  const std::uint64_t inChild = tail->offset + at - entry->fullPageCount * kPageSize;
  return PageOffset(child->page[inChild / kPageSize]) + inChild % kPageSize;
}

std::uint64_t ToolTesting::AddStream(const fs::path& file, std::uint64_t size) {
  const std::wstring path = WideText::FromUtf8(Utf8(file));
  RefPtr<IDataStreamSet> package = OpenFilePackage(PackageTesting::Config(path));
  const std::uint64_t id = package ? PackageTesting::CreateFilled(package, size, 77) : IDataStreamSet::kNoStream;
  if (id == IDataStreamSet::kNoStream || !package->Save()) throw std::runtime_error("cannot add a stream");
  return id;
}

void ToolTesting::FlipBytes(const fs::path& file, std::uint64_t offset, std::uint64_t count) {
  std::fstream io(file, std::ios::binary | std::ios::in | std::ios::out);
  for (std::uint64_t i = 0; i < count; ++i) {
    io.seekg(static_cast<std::streamoff>(offset + i));
    const int byte = io.get();
    io.seekp(static_cast<std::streamoff>(offset + i));
    io.put(static_cast<char>(~byte));
  }
  if (!io) throw std::runtime_error("cannot flip bytes of " + Utf8(file));
}

std::vector<std::uint8_t> ToolTesting::ReadFile(const fs::path& file) {
  std::ifstream in(file, std::ios::binary);
  return std::vector<std::uint8_t>(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

std::string ToolTesting::Utf8(const fs::path& path) { return path.u8string(); }

}  // namespace Testing
}  // namespace Tovrel
