// Fuzz target: the input bytes are a cache file "norvaneFxoCache.dat" and,
// in its last byte, the maintenance operation to run on its folder:
// remove, clear, trim (by size and by age), compact, merge into it, merge
// from it into a healthy cache, zero the statistics, salvage, or verify. Any crash,
// leak, sanitizer report or slow input is a finding; so is an operation
// that succeeds on a file whose checks found problems (it must refuse),
// and one that leaves problems where the checks found none before, or a
// salvage that succeeds and leaves any problem. Its
// seeds are the effect cache target's (fuzz/corpus/effectcache). Files
// live in an in-memory file system.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <random>
#include <string>
#include <vector>

#include "FuzzCacheObjects.h"
#include "FuzzFiles.h"
#include "effectcache/EffectCacheMaintenance.h"
#include "effectcache/EffectCacheVerifier.h"
#include "platform/PlatformFile.h"
#include "tovrel/EffectCacheSystem.h"

namespace {

using TovrelFuzz::Files;
using Tovrel::EffectCacheMaintenance;
using Tovrel::EffectCacheVerifier;

// Folders of this process: the input's, and a healthy cache to merge with.
std::wstring Folder(const wchar_t* which) {
  static const std::wstring base = L"mfuzz-" + std::to_wstring(std::random_device{}());
  return base + which;
}

std::wstring FileIn(const std::wstring& folder) {
  return folder + Tovrel::PlatformFile::Separator() + L"norvaneFxoCache.dat";
}

// A healthy cache of two effects, made anew for each input.
void MakeHealthy(const std::wstring& folder) {
  RefPtr<Tovrel::EffectCacheSystem> cache(new Tovrel::EffectCacheSystem(WStr(folder.c_str())));
  const std::vector<unsigned char> bytes(700, 0x33);
  cache->CacheCompiledEffect(WStr(L"fx/0"), bytes.data(), bytes.size(), false);
  cache->CacheCompiledEffect(WStr(L"healthy"), bytes.data(), bytes.size(), true);
}

// True when the folder's file passes every check (tables and effects).
bool Sound(const std::wstring& folder) {
  const EffectCacheVerifier::Report report = EffectCacheVerifier::VerifyFolder(WStr(folder.c_str()));
  return report.outcome == EffectCacheVerifier::Outcome::kChecked && report.problems.empty();
}

// Runs the chosen operation; its ok, and whether it said the file was damaged.
bool Run(std::uint8_t choice, const std::wstring& folder, const std::wstring& healthy, bool* damaged) {
  const WStr at(folder.c_str());
  switch (choice % 9) {
    case 0: {
      const auto result = EffectCacheMaintenance::Remove(at, {"fx/0", "fx/1", "b"}, false);
      *damaged = result.damaged;
      return result.ok;
    }
    case 1: {
      const auto result = EffectCacheMaintenance::Clear(at, choice & 8, false);
      *damaged = result.damaged;
      return result.ok;
    }
    case 2: {
      EffectCacheMaintenance::TrimRule rule;
      rule.bySize = (choice & 8) != 0;
      rule.maxStoredBytes = 2000;
      rule.byAge = !rule.bySize;
      rule.maxAgeSeconds = 3600;
      const auto result = EffectCacheMaintenance::Trim(at, rule, 1893456000, false);
      *damaged = result.damaged;
      return result.ok;
    }
    case 3: {
      const auto result = EffectCacheMaintenance::Compact(at);
      *damaged = result.damaged;
      return result.ok;
    }
    case 4: {
      const auto result = EffectCacheMaintenance::Merge(at, {WStr(healthy.c_str())});
      *damaged = result.damaged;
      return result.ok;
    }
    case 5: {
      // Merged from, a damaged cache is passed over; the healthy one stays sound.
      EffectCacheMaintenance::Merge(WStr(healthy.c_str()), {at});
      if (!Sound(healthy)) std::abort();
      *damaged = false;
      return false;
    }
    case 6: return EffectCacheMaintenance::ZeroStatistics(at, damaged);
    case 7: {
      // A salvage that succeeds leaves a file that passes every check.
      const auto result = EffectCacheMaintenance::Salvage(at);
      if (result.ok && !Sound(folder)) std::abort();
      *damaged = false;
      return false;
    }
    default:
      EffectCacheVerifier::VerifyFolder(at);
      *damaged = false;
      return false;
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  const std::wstring folder = Folder(L"-a");
  const std::wstring healthy = Folder(L"-b");
  static const TovrelFuzz::FuzzCacheObjects kept(FileIn(folder));
  for (const std::wstring& file : Files().ListFiles()) Files().Remove(file.c_str());
  Files().WriteAll(FileIn(folder), std::vector<std::uint8_t>(data, data + size - 1));
  MakeHealthy(healthy);
  const EffectCacheMaintenance::Check before = EffectCacheMaintenance::CheckFolder(WStr(folder.c_str()));
  const bool soundBefore = Sound(folder);
  bool damaged = false;
  const bool ok = Run(data[size - 1], folder, healthy, &damaged);
  // A file whose tables fail their checks is refused, whole.
  if (before == EffectCacheMaintenance::Check::kDamaged && ok) std::abort();
  // What was sound stays sound.
  if (ok && soundBefore && !Sound(folder)) std::abort();
  for (const std::wstring& file : Files().ListFiles()) Files().Remove(file.c_str());
  return 0;
}
