// Writes the effect cache fuzz target's seed corpus: real cache files that
// the library itself makes, of several shapes, one file each in the folder
// given as the only argument.
#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "tovrel/tovrel.h"

namespace {

namespace fs = std::filesystem;

std::vector<unsigned char> Effect(std::uint32_t seed, std::size_t size) {
  std::vector<unsigned char> bytes(size);
  std::uint32_t x = seed * 2654435761u + 1;
  for (std::size_t i = 0; i < size; ++i) {
    x ^= x << 13, x ^= x >> 17, x ^= x << 5;
    bytes[i] = static_cast<unsigned char>(i % 4 == 0 ? x : i % 7);
  }
  return bytes;
}

// Makes a cache in a fresh folder, lets `fill` use it, and copies its file.
template <typename Fill>
void Shape(const fs::path& out, const std::string& name, Fill fill) {
  const fs::path folder = fs::temp_directory_path() / ("tovrel-fxcorpus-" + name);
  fs::remove_all(folder);
  fs::create_directories(folder);
  {
    RefPtr<Tovrel::EffectCacheSystem> cache(new Tovrel::EffectCacheSystem(WStr(folder.wstring().c_str())));
    fill(*cache);
  }
  fs::copy_file(folder / "norvaneFxoCache.dat", out / name, fs::copy_options::overwrite_existing);
  fs::remove_all(folder);
}

void Put(Tovrel::EffectCacheSystem& cache, const wchar_t* name, std::size_t size, bool permanent) {
  const std::vector<unsigned char> bytes = Effect(static_cast<std::uint32_t>(size), size);
  cache.CacheCompiledEffect(WStr(name), bytes.data(), bytes.size(), permanent);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) return 2;
  const fs::path out = argv[1];
  fs::create_directories(out);
  Shape(out, "empty", [](Tovrel::EffectCacheSystem&) {});
  Shape(out, "one-effect", [](Tovrel::EffectCacheSystem& c) { Put(c, L"fx/0", 100, false); });
  Shape(out, "several", [](Tovrel::EffectCacheSystem& c) {
    Put(c, L"fx/0", 5000, false);
    Put(c, L"fx/1", 20000, false);
    Put(c, L"b", 1, false);
    Put(c, L"fx/permanent", 9000, true);
  });
  Shape(out, "saved-twice", [](Tovrel::EffectCacheSystem& c) {
    Put(c, L"fx/0", 3000, false);
    c.ForceSaveToFile();
    Put(c, L"fx/0", 4000, true);
    Put(c, L"fx/1", 12000, false);
  });
  return 0;
}
