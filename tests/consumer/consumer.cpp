// Uses the library through its exported surface only: creates a package,
// fills streams, saves, reopens, reads back, removes, and builds the
// exported interface classes of its own. Exits 0 when everything agrees.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "tovrel/tovrel.h"

namespace {

int failures = 0;

void Check(bool ok, const char* what) {
  if (!ok) {
    std::printf("FAILED: %s\n", what);
    ++failures;
  }
}

std::vector<unsigned char> Pattern(std::size_t size, unsigned seed) {
  std::vector<unsigned char> bytes(size);
  for (std::size_t i = 0; i < size; ++i) bytes[i] = static_cast<unsigned char>(i * 31 + seed * 7 + i / 977);
  return bytes;
}

// A stream of the consumer's own, built on the exported interface.
class Counter : public Tovrel::IDataStream {
 public:
  std::uint64_t GetPosition() override { return 0; }
  std::uint64_t GetSize() override { return 0; }
  bool Seek(std::uint32_t, std::int32_t offset) override { return offset == 0; }
  std::uint64_t Read(void*, std::uint64_t) override { return 0; }
  std::uint64_t Write(const void*, std::uint64_t) override { return 0; }
};

void UsePackage(const std::wstring& path) {
  const std::size_t sizes[] = {10, 8191, 8192, 8193, 70000};
  Tovrel::PagedFilePackageConfig config{path.c_str(), 16, 100};
  {
    RefPtr<Tovrel::IDataStreamSet> package = Tovrel::CreateFilePackage(config);
    Check(static_cast<bool>(package), "create");
    if (!package) return;
    unsigned seed = 0;
    for (std::size_t size : sizes) {
      const std::uint64_t id = package->CreateStream(size);
      RefPtr<Tovrel::IDataStream> stream = package->OpenStream(id);
      const auto bytes = Pattern(size, seed++);
      Check(stream && stream->Write(bytes.data(), bytes.size()) == size, "write");
    }
    Check(package->SetUserDataSize(4), "user data");
    std::memcpy(package->GetUserData(), "host", 4);
    Check(package->Save(), "save");
  }
  RefPtr<Tovrel::IDataStreamSet> package = Tovrel::OpenFilePackage(config);
  Check(static_cast<bool>(package), "open");
  if (!package) return;
  Check(package->GetNumberOfStreams() == 5, "stream count");
  for (std::uint64_t i = 0; i < package->GetNumberOfStreams(); ++i) {
    RefPtr<Tovrel::IDataStream> stream = package->OpenStream(package->GetStreamIdentifier(i));
    std::vector<unsigned char> back(stream ? stream->GetSize() : 0);
    Check(stream && stream->Read(back.data(), back.size()) == sizes[i], "read");
    Check(back == Pattern(sizes[i], static_cast<unsigned>(i)), "bytes");
  }
  const Tovrel::IDataStreamSet& reader = *package;
  Check(reader.GetUserDataSize() == 4 && std::memcmp(reader.GetUserData(), "host", 4) == 0, "user data back");
  Check(package->RemoveStream(package->GetStreamIdentifier(1)), "remove");
  Check(package->GetTotalStreamSize() == 10 + 8192 + 8193 + 70000, "total size");
  Tovrel::PagedFilePackageConfig missing{L"no-such-folder/none.dat", 4, 10};
  Check(!Tovrel::OpenFilePackage(missing), "missing file refused");
}

}  // namespace

int main(int argc, char** argv) {
  const std::string name = argc > 1 ? argv[1] : "consumer-package.dat";
  UsePackage(std::wstring(name.begin(), name.end()));
  RefPtr<Tovrel::IDataStream> own(new Counter);
  Check(own->Seek(0, 0) && !own->Seek(0, 1), "own stream");
  Tovrel::VertexNormalsControl control;
  Check(control.enabled && control.userData == nullptr, "vertex normals control");
  std::remove(name.c_str());
  std::printf("%s\n", failures == 0 ? "consumer: all checks passed" : "consumer: checks failed");
  return failures == 0 ? EXIT_SUCCESS : EXIT_FAILURE;
}
