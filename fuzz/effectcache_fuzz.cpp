// Fuzz target: the input bytes are a cache file "norvaneFxoCache.dat". An
// EffectCacheSystem is made on its folder, looks for a few names taken
// from the input, caches one effect, saves and is destroyed. Any crash,
// leak, sanitizer report, exception or slow input is a finding; a cache
// that refuses the file (and starts a new one) is not. The file lives in
// an in-memory file system: no input touches the disk.
#include <cstddef>
#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include "effectcache/EffectCacheImpl.h"
#include "host/MutexObject.h"
#include "platform/FileSystem.h"
#include "platform/MemoryFileSystem.h"
#include "platform/PlatformFile.h"
#include "tovrel/MultiProcessTimeStamp.h"
#include "tovrel/tovrel.h"

namespace {

// The in-memory file system that holds the input, made current once.
Tovrel::MemoryFileSystem& Files() {
  static Tovrel::MemoryFileSystem* files = [] {
    auto* memory = new Tovrel::MemoryFileSystem;
    memory->SetTrackingUnsyncedChanges(false);
    Tovrel::FileSystem::Install(memory);
    return memory;
  }();
  return *files;
}

// A folder name of its own per process, so that the cache's named mutex
// and time stamp are not shared with another fuzzing process.
std::wstring Folder() {
  static const std::wstring folder = L"fxfuzz-" + std::to_wstring(std::random_device{}());
  return folder;
}

// Names to look for: short runs of the input's printable bytes, and the
// names the corpus files are made with. The scan is harness work, not the
// library's: it is left out of coverage tracing, which would otherwise
// trace every byte of every input and cost more than the cache's own work.
__attribute__((no_sanitize("coverage"))) std::vector<std::wstring> NamesFrom(const std::uint8_t* data, std::size_t size) {
  std::vector<std::wstring> names{L"fx/0", L"fx/1", L"fx/permanent", L"b"};
  const auto printable = [&](std::size_t i) { return i < size && data[i] >= 0x21 && data[i] < 0x7F; };
  for (std::size_t i = 0; i < size && names.size() < 12;) {
    std::size_t end = i;
    while (printable(end)) ++end;
    if (end - i >= 2) names.emplace_back(data + i, data + end);
    i = end + 1;
  }
  return names;
}

// The cache's named mutex and shared time stamp, held open for the whole
// run under the names every cache object of this folder uses: each input's
// cache object then joins system objects that exist instead of creating
// and removing them, which otherwise costs more than the cache's own work.
void KeepSharedObjects(const std::wstring& file) {
  static NorvaneSDK::Util::MutexObject mutex(Tovrel::EffectCacheImpl::FileMutexName(file).c_str());
  static Tovrel::MultiProcessTimeStamp stamp;
  static const bool initialized =
      stamp.Initialize((Tovrel::EffectCacheImpl::SharedObjectBaseName(file) + L"_timestamp").c_str());
  (void)initialized;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::wstring folder = Folder();
  const std::wstring file = folder + Tovrel::PlatformFile::Separator() + L"norvaneFxoCache.dat";
  KeepSharedObjects(file);
  Files().Remove((file + L"-journal").c_str());
  Files().WriteAll(file, std::vector<std::uint8_t>(data, data + size));
  RefPtr<Tovrel::EffectCacheSystem> cache(new Tovrel::EffectCacheSystem(WStr(folder.c_str())));
  for (const std::wstring& name : NamesFrom(data, size)) {
    Tab<unsigned char> found;
    cache->SearchCachedEffects(WStr(name.c_str()), found);
  }
  const std::vector<unsigned char> effect(300, 0x5A);
  cache->CacheCompiledEffect(WStr(L"fx/fuzz"), effect.data(), effect.size(), false);
  cache->ForceSaveToFile();
  return 0;
}
