// Fuzz target: the input bytes are a cache file "norvaneFxoCache.dat". An
// EffectCacheSystem is made on its folder, looks for a few names taken
// from the input, caches one effect, saves and is destroyed. Any crash,
// leak, sanitizer report, exception or slow input is a finding; a cache
// that refuses the file (and starts a new one) is not.
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <vector>

#include "tovrel/tovrel.h"

namespace {

class CacheFolder {
 public:
  CacheFolder() {
    std::random_device entropy;
    path_ = std::filesystem::temp_directory_path() / ("tovrel-fxfuzz-" + std::to_string(entropy()));
    std::filesystem::create_directories(path_);
  }
  ~CacheFolder() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  void WriteCacheFile(const std::uint8_t* data, std::size_t size) const {
    std::ofstream out(path_ / "norvaneFxoCache.dat", std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(size));
  }
  std::wstring Path() const { return path_.wstring(); }

 private:
  std::filesystem::path path_;
};

// Names to look for: short runs of the input's printable bytes, and the
// names the corpus files are made with.
std::vector<std::wstring> NamesFrom(const std::uint8_t* data, std::size_t size) {
  std::vector<std::wstring> names{L"fx/0", L"fx/1", L"fx/permanent", L"b"};
  std::wstring run;
  for (std::size_t i = 0; i < size && names.size() < 12; ++i) {
    if (data[i] >= 0x21 && data[i] < 0x7F) {
      run.push_back(static_cast<wchar_t>(data[i]));
    } else {
      if (run.size() >= 2) names.push_back(run);
      run.clear();
    }
  }
  return names;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const CacheFolder folder;
  folder.WriteCacheFile(data, size);
  RefPtr<Tovrel::EffectCacheSystem> cache(new Tovrel::EffectCacheSystem(WStr(folder.Path().c_str())));
  for (const std::wstring& name : NamesFrom(data, size)) {
    Tab<unsigned char> found;
    cache->SearchCachedEffects(WStr(name.c_str()), found);
  }
  const std::vector<unsigned char> effect(300, 0x5A);
  cache->CacheCompiledEffect(WStr(L"fx/fuzz"), effect.data(), effect.size(), false);
  cache->ForceSaveToFile();
  return 0;
}
