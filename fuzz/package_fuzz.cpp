// Fuzz target: the input bytes are a package file. It is opened with a
// large and with a small stream limit; every stream is enumerated, opened
// and read, one is removed, one created, the package saved and opened
// again. Any crash, leak, sanitizer report or slow input is a finding;
// refusals (empty results, exceptions of the library's family) are not.
#include <cstddef>
#include <cstdint>
#include <exception>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <vector>

#include "tovrel/tovrel.h"

namespace {

// Streams looked at per package, and bytes read in all, so that one input
// stays well inside the time limit whatever its tables claim.
constexpr std::uint64_t kMostStreams = 256;
constexpr std::uint64_t kMostBytes = 4 << 20;

class InputFile {
 public:
  InputFile() {
    std::random_device entropy;
    path_ = std::filesystem::temp_directory_path() / ("tovrel-fuzz-" + std::to_string(entropy()) + ".dat");
  }
  ~InputFile() {
    std::error_code ignored;
    std::filesystem::remove(path_, ignored);
  }
  void Write(const std::uint8_t* data, std::size_t size) const {
    std::ofstream out(path_, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(size));
  }
  std::wstring Path() const { return path_.wstring(); }

 private:
  std::filesystem::path path_;
};

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
  static const InputFile file;
  for (std::uint64_t limit : {std::uint64_t{65535}, std::uint64_t{10}}) {
    file.Write(data, size);
    Exercise(file.Path(), limit);
  }
  return 0;
}
