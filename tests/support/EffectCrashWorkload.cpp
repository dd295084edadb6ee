#include "support/EffectCrashWorkload.h"

#include <algorithm>
#include <chrono>
#include <exception>
#include <random>
#include <thread>
#include <utility>
#include <vector>

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
      // The round's effects are cached in the order of their names, which
      // is the index's order (numbers of one digit, then of two): effects
      // whose last uses tie at the clock's millisecond are then ordered as
      // effects whose uses do not, so a size trim chooses the same ones in
      // a run that goes slower.
      struct Cached {
        int name;
        std::vector<unsigned char> bytes;
        bool permanent;
      };
      std::vector<Cached> round5;
      for (int k = 0; k < 5; ++k) {
        const int name = static_cast<int>(random() % kNames);
        auto bytes = EffectTesting::Bytes(static_cast<std::uint32_t>(random()), 100 + random() % 20000,
                                          random() % 3 != 0);
        round5.push_back(Cached{name, std::move(bytes), random() % 5 == 0});
      }
      std::stable_sort(round5.begin(), round5.end(), [](const Cached& a, const Cached& b) { return a.name < b.name; });
      for (const Cached& effect : round5) {
        if (!cache.CacheCompiledEffect(WStr(NameOf(effect.name).c_str()), effect.bytes.data(), effect.bytes.size(),
                                       effect.permanent)) {
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
  // In the index's order of names, as the rounds cache them.
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
