// Uses the library through its exported surface only: creates a package,
// fills streams, saves, reopens, reads back, removes; caches an effect and
// finds it again from a new cache object; sees one time stamp's renewal
// from another; and builds the exported interface classes of its own.
// Exits 0 when everything agrees. Its one argument names the package file;
// the cache folder and the time stamp are named after it.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
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

void UseEffectCache(const std::string& folder) {
  std::filesystem::create_directories(folder);
  const WStr where(std::wstring(folder.begin(), folder.end()));
  const WStr name(L"shaders/glass.fx");
  const std::vector<unsigned char> effect = Pattern(30000, 9);
  {
    RefPtr<Tovrel::EffectCacheSystem> cache(new Tovrel::EffectCacheSystem(where));
    Check(cache->IsEnabled(), "cache enabled");
    Check(cache->CacheCompiledEffect(name, effect.data(), effect.size(), false), "cache effect");
  }
  RefPtr<Tovrel::EffectCacheSystem> cache(new Tovrel::EffectCacheSystem(where));
  Check(cache->GetNumberOfEffectsInFile() == 1, "effect saved");
  Tab<unsigned char> found;
  Check(cache->SearchCachedEffects(name, found), "effect found");
  Check(found.Count() == static_cast<INT_PTR>(effect.size()) &&
            std::memcmp(found.Addr(0), effect.data(), effect.size()) == 0,
        "effect bytes");
  Check(!cache->SearchCachedEffects(WStr(L"shaders/none.fx"), found), "unknown effect");
  cache = RefPtr<Tovrel::EffectCacheSystem>();
  std::filesystem::remove_all(folder);
}

void UseTimeStamps(const std::string& name) {
  const std::wstring shared = L"tovrel_consumer_" + std::wstring(name.begin(), name.end());
  std::unique_ptr<Tovrel::MultiProcessTimeStamp> mine(new Tovrel::MultiProcessTimeStamp);
  std::unique_ptr<Tovrel::MultiProcessTimeStamp> theirs(new Tovrel::MultiProcessTimeStamp);
  Check(mine->Initialize(shared.c_str()) && theirs->Initialize(shared.c_str()), "time stamps");
  mine->UpdateTimeStamp();
  Check(theirs->IsChanged() && !theirs->IsChanged() && !mine->IsChanged(), "time stamp renewal seen");
}

void UseHostTypes() {
  Tab<unsigned char> empty;
  bool refused = false;
  try {
    empty.Addr(0);
  } catch (const NorvaneSDK::Util::TabOutOfRangeException&) {
    refused = true;
  }
  Check(refused, "tab index refused");
  WStr text(L"glass");
  text += WStr(L".fx");
  Check(text == WStr(L"glass.fx") && text.Length() == 8, "wide string");
}

}  // namespace

int main(int argc, char** argv) {
  const std::string name = argc > 1 ? argv[1] : "consumer-package.dat";
  UsePackage(std::wstring(name.begin(), name.end()));
  UseEffectCache(name + "-fxcache");
  UseTimeStamps(name);
  UseHostTypes();
  RefPtr<Tovrel::IDataStream> own(new Counter);
  Check(own->Seek(0, 0) && !own->Seek(0, 1), "own stream");
  Tovrel::VertexNormalsControl control;
  Check(control.enabled && control.userData == nullptr, "vertex normals control");
  std::remove(name.c_str());
  std::printf("%s\n", failures == 0 ? "consumer: all checks passed" : "consumer: checks failed");
  return failures == 0 ? EXIT_SUCCESS : EXIT_FAILURE;
}
