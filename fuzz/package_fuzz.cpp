// Fuzz target: the input bytes are a package file. It is opened with a
// large stream limit, or a small one when its length is odd (so that the
// limits' checks are reached from the same seeds); every stream is enumerated, opened
// and read, one is removed, one created, the package saved and opened
// again. Any crash, leak, sanitizer report or slow input is a finding;
// refusals (empty results, exceptions of the library's family) are not.
// The file lives in an in-memory file system: no input touches the disk.
//
// PackageVerifier checks the input as it comes (it may well be unsound:
// that is no finding, but the verifier meets every input), and again the
// file the library left, when the library rewrote it: the library keeps a
// sound package sound, so problems in a file it saved from a sound input
// are a finding. (From an unsound input they are not: the library keeps
// the damage it cannot undo, such as a page of two streams.)
#include <cstddef>
#include <cstdint>
#include <exception>
#include <string>
#include <vector>

#include "FuzzFiles.h"
#include "package/PackageVerifier.h"
#include "platform/FileSystem.h"
#include "platform/MemoryFileSystem.h"
#include "tovrel/tovrel.h"

namespace {

// Streams looked at per package, and bytes read in all, so that one input
// stays well inside the time limit whatever its tables claim.
constexpr std::uint64_t kMostStreams = 256;
constexpr std::uint64_t kMostBytes = 4 << 20;

using TovrelFuzz::Files;

const std::wstring kPath = L"fuzz-package.dat";

// The verifier reads no more than the target does.
bool Sound(const std::wstring& path) {
  return Tovrel::PackageVerifier::VerifyFile(path.c_str(), nullptr, kMostBytes).IsSound();
}

void ReadStreams(Tovrel::IDataStreamSet& package) {
  std::vector<std::uint8_t> buffer(16 * 1024);
  std::uint64_t budget = kMostBytes;
  const std::uint64_t count = package.GetNumberOfStreams();
  for (std::uint64_t i = 0; i < count && i < kMostStreams; ++i) {
    RefPtr<Tovrel::IDataStream> stream;
    try {
      stream = package.OpenStream(package.GetStreamIdentifier(i));
    } catch (const std::exception&) {
      continue;
    }
    if (!stream) continue;
    while (budget > 0) {
      const std::uint64_t n = stream->Read(buffer.data(), buffer.size());
      if (n == 0) break;
      budget -= n < budget ? n : budget;
    }
    stream->Seek(2, -1);
    stream->Read(buffer.data(), 1);
    stream->Seek(0, 1);
    stream->Write(buffer.data(), 2);
  }
  const Tovrel::IDataStreamSet& reader = package;
  if (reader.GetUserDataSize() > 0 && reader.GetUserData() == nullptr) __builtin_trap();
}

void Change(Tovrel::IDataStreamSet& package) {
  const std::uint64_t count = package.GetNumberOfStreams();
  try {
    if (count > 0) package.RemoveStream(package.GetStreamIdentifier(count / 2));
  } catch (const std::exception&) {
  }
  try {
    package.CreateStream(9000);
  } catch (const std::exception&) {
  }
  try {
    package.Save();
  } catch (const std::exception&) {
  }
}

void Exercise(const std::wstring& path, std::uint64_t streamLimit) {
  const Tovrel::PagedFilePackageConfig config{path.c_str(), 4, streamLimit};
  RefPtr<Tovrel::IDataStreamSet> package = Tovrel::OpenFilePackage(config);
  if (!package) return;
  ReadStreams(*package);
  Change(*package);
  package.Reset();
  package = Tovrel::OpenFilePackage(config);
  if (package) ReadStreams(*package);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Files().Remove((kPath + L"-journal").c_str());
  Files().WriteAll(kPath, std::vector<std::uint8_t>(data, data + size));
  const bool sound = Sound(kPath);
  Exercise(kPath, size % 2 == 0 ? 65535 : 10);
  if (!Files().Holds(kPath, data, size) && !Sound(kPath) && sound) __builtin_trap();
  // Nothing of this input outlives it, so that the fuzzer's leak check
  // (which runs again every input that ends with more allocations than it
  // freed) never runs one twice.
  Files().Remove(kPath.c_str());
  Files().Remove((kPath + L"-journal").c_str());
  return 0;
}
