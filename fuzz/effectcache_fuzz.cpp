// Fuzz target: the input bytes are a cache file "norvaneFxoCache.dat". A
// cache (the EffectCacheImpl that an EffectCacheSystem wraps, with the
// host's settings) is made on its folder, looks for a few names taken
// from the input, caches one effect, saves and is destroyed. Any crash,
// leak, sanitizer report, exception or slow input is a finding; a cache
// that refuses the file (and starts a new one) is not. Work that cannot
// depend on the input is skipped (see PackageRefused and Refused). The
// file lives in an in-memory file system: no input touches the disk.
//
// PackageVerifier checks the input as it comes (it may well be unsound:
// that is no finding, but the verifier meets every input), and the file
// the cache left, when the cache opened the input: a file the cache wrote
// anew in place of a refused one (salvaging what it could prove intact),
// and one it saved from a sound input, must be sound. (One saved from an
// unsound input need not be: the package keeps the damage it cannot undo,
// such as a page of two streams, or a stream whose recorded size its
// pages cannot hold; a cache whose load trimmed every effect from such a
// file is no new file.)
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "FuzzCacheObjects.h"
#include "FuzzFiles.h"
#include "effectcache/EffectCacheImpl.h"
#include "effectcache/EffectCacheSalvage.h"
#include "package/PackageVerifier.h"
#include "platform/FileSystem.h"
#include "platform/MemoryFileSystem.h"
#include "platform/PlatformFile.h"
#include "tovrel/FilePackage.h"
#include "tovrel/tovrel.h"

namespace {

// Bytes the verifier reads at most from one file.
constexpr std::uint64_t kMostVerifiedBytes = 4 << 20;

using TovrelFuzz::Files;

// A folder name of its own per process, so that the cache's named mutex
// and time stamp are not shared with another fuzzing process.
std::wstring Folder() {
  static const std::wstring folder = L"fxfuzz-" + std::to_wstring(std::random_device{}());
  return folder;
}

// Names to look for: short runs of the input's printable bytes, and the
// names the corpus files are made with. The scan is harness work, not the
// library's: it is left out of coverage tracing, which would otherwise
// trace every byte of every input and cost more than the cache's own work,
// and it skips runs of zero bytes (most of a cache file) eight at a time.
__attribute__((no_sanitize("coverage"))) std::vector<std::wstring> NamesFrom(const std::uint8_t* data,
                                                                             std::size_t size) {
  std::vector<std::wstring> names{L"fx/0", L"fx/1", L"fx/permanent", L"b"};
  const std::uint8_t* const end = data + size;
  const auto printable = [](std::uint8_t byte) { return byte >= 0x21 && byte < 0x7F; };
  for (const std::uint8_t* p = data; p < end && names.size() < 12;) {
    if (end - p >= 8) {
      std::uint64_t word = 0;
      std::memcpy(&word, p, 8);
      if (word == 0) {
        p += 8;
        continue;
      }
    }
    const std::uint8_t* const start = p;
    while (p < end && printable(*p)) ++p;
    if (p - start >= 2) names.emplace_back(start, p);
    if (p == start) ++p;
  }
  return names;
}

// A cache refuses a file whose package does not open and starts a new
// file in its place; what it does after that no longer depends on the
// input (a new cache is searched and saved exactly alike whatever the
// refused input was). Most inputs are refused so, and the target looks
// only as far as the cache's own first step, opening the package, with the
// settings the cache opens it with.
bool PackageRefused(const std::wstring& file) {
  const Tovrel::PagedFilePackageConfig config{file.c_str(), Tovrel::EffectCacheImpl::kCachePageCount,
                                              Tovrel::EffectCacheImpl::kStreamLimit};
  return !Tovrel::OpenFilePackage(config);
}

// True when the cache refused the input for what its package holds (the
// cache's header or index) and wrote a new file in its place; `kept` is
// then the number of effects it salvaged into it.
bool Refused(const Tovrel::EffectCacheImpl& cache, std::uint64_t* kept) {
  Tovrel::EffectCacheSalvage::Summary summary;
  if (!cache.LastSalvage(&summary)) return false;
  *kept = summary.keptEffects;
  return true;
}

bool Sound(const std::wstring& file) {
  return Tovrel::PackageVerifier::VerifyFile(file.c_str(), nullptr, kMostVerifiedBytes).IsSound();
}

void Exercise(Tovrel::EffectCacheImpl& cache, const std::uint8_t* data, std::size_t size) {
  for (const std::wstring& name : NamesFrom(data, size)) {
    Tab<unsigned char> found;
    cache.SearchCachedEffects(WStr(name.c_str()), found);
  }
  const std::vector<unsigned char> effect(300, 0x5A);
  cache.CacheCompiledEffect(WStr(L"fx/fuzz"), effect.data(), effect.size(), false);
  cache.ForceSaveToFile();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::wstring folder = Folder();
  const std::wstring file = folder + Tovrel::PlatformFile::Separator() + L"norvaneFxoCache.dat";
  const std::wstring journal = file + L"-journal";
  static const TovrelFuzz::FuzzCacheObjects kept(file);
  Files().Remove(journal.c_str());
  Files().WriteAll(file, std::vector<std::uint8_t>(data, data + size));
  const bool sound = Sound(file);
  if (!PackageRefused(file)) {
    auto cache = std::make_unique<Tovrel::EffectCacheImpl>(WStr(folder.c_str()),
                                                           Tovrel::EffectCacheImpl::kHostCompressionLevel);
    std::uint64_t kept = 0;
    const bool anew = Refused(*cache, &kept);
    // A new file that kept nothing of the input is searched and saved
    // alike whatever the input was.
    if (!anew || kept != 0) Exercise(*cache, data, size);
    cache.reset();
    const bool left = Sound(file);
    if ((sound || anew) && !left) std::abort();
  }
  // Nothing of this input outlives it, so that the fuzzer's leak check
  // (which runs again every input that ends with more allocations than it
  // freed) never runs one twice.
  Files().Remove(file.c_str());
  Files().Remove(journal.c_str());
  return 0;
}
