#include "support/EffectCrashWorkload.h"

#include <chrono>
#include <exception>
#include <random>
#include <thread>
#include <utility>

#include "effectcache/CacheFileNames.h"
#include "effectcache/EffectCacheImpl.h"
#include "platform/WideText.h"
#include "support/EffectTesting.h"

namespace Tovrel {
namespace Testing {

namespace {

std::wstring NameOf(int i) { return L"fx/effect" + std::to_wstring(i); }

}  // namespace

EffectCrashWorkload::EffectCrashWorkload(std::wstring folder, std::uint32_t seed, int rounds)
    : folder_(std::move(folder)), seed_(seed), rounds_(rounds) {}

void EffectCrashWorkload::Run(const std::function<void(int round)>& saved,
                              const std::function<void(int round, const State& state)>& state) {
  std::mt19937 random(seed_);
  try {
    EffectCacheImpl cache(WStr(folder_.c_str()), 2, kBytesLimit);
    if (!cache.IsEnabled()) return;
    saved(0);
    state(0, Found(cache));
    for (int round = 1; round <= rounds_; ++round) {
      std::this_thread::sleep_for(std::chrono::milliseconds(2));
      if (round % 3 == 0) {
        // Every third round removes the effects whose number is even,
        // leaving free pages all over the file, and compacts it. (Chosen
        // by name, not by last use: a slower run must choose the same.)
        const auto everyOther = [](const EffectTable::Entry& entry, const EffectCacheImpl::Removed&, std::uint64_t) {
          return !entry.name.empty() && (entry.name.back() - '0') % 2 == 0;
        };
        if (!cache.RemoveStored(everyOther, false, nullptr) || !cache.CompactFile(nullptr)) return;
        saved(round);
        state(round, Found(cache));
        continue;
      }
      for (int k = 0; k < 5; ++k) {
        const int name = static_cast<int>(random() % kNames);
        const auto bytes = EffectTesting::Bytes(static_cast<std::uint32_t>(random()), 100 + random() % 20000,
                                                random() % 3 != 0);
        if (!cache.CacheCompiledEffect(WStr(NameOf(name).c_str()), bytes.data(), bytes.size(), random() % 5 == 0)) {
          return;
        }
      }
      cache.ForceSaveToFile();
      if (!cache.IsEnabled()) return;  // the save failed
      saved(round);
      state(round, Found(cache));
    }
  } catch (const std::exception&) {
    // A crash makes every later file call fail: the run ends here.
  }
}

CrashWorkload::State EffectCrashWorkload::Found(EffectCacheImpl& cache) {
  State state;
  for (int i = 0; i < kNames; ++i) {
    Tab<unsigned char> data;
    if (cache.SearchCachedEffects(WStr(NameOf(i).c_str()), data)) {
      state[WideText::ToUtf8(NameOf(i))] = Digest(data.Addr(0), static_cast<std::size_t>(data.Count()));
    }
  }
  return state;
}

std::wstring EffectCrashWorkload::PackageFile() const {
  return CacheFileNames::CacheFilePathFor(WStr(folder_.c_str())).data();
}

CrashWorkload::State EffectCrashWorkload::Read() {
  // No limit of its own, so that reading trims nothing.
  EffectCacheImpl cache(WStr(folder_.c_str()), 2, EffectCacheImpl::kCacheBytesLimit);
  if (!cache.IsEnabled()) return State{{kUnreadable, 0}};
  return Found(cache);
}

}  // namespace Testing
}  // namespace Tovrel
