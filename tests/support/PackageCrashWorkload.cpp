#include "support/PackageCrashWorkload.h"

#include <exception>
#include <utility>

#include "package/PagedFilePackage.h"
#include "pagefile/LittleEndian.h"
#include "support/PackageTesting.h"
#include "tovrel/FilePackage.h"

namespace Tovrel {
namespace Testing {

namespace {

constexpr std::uint64_t kCachePages = 6;

}  // namespace

PackageCrashWorkload::PackageCrashWorkload(std::wstring path, std::uint32_t seed, int rounds, bool compactions)
    : path_(std::move(path)), seed_(seed), rounds_(rounds), compactions_(compactions) {}

void PackageCrashWorkload::Run(const std::function<void(int round)>& saved,
                               const std::function<void(int round, const State& state)>& state) {
  std::mt19937 random(seed_);
  streams_.clear();
  userData_.clear();
  try {
    RefPtr<IDataStreamSet> package = CreateFilePackage(PackageTesting::Config(path_, kCachePages));
    if (!package) return;
    saved(0);
    state(0, Model());
    for (int round = 1; round <= rounds_; ++round) {
      if (compactions_ && round % 3 == 0) {
        auto* paged = dynamic_cast<PagedFilePackage*>(package.Get());
        if (paged == nullptr || !paged->Compact(nullptr)) return;
      } else if (!Change(*package, random, round)) {
        return;
      }
      saved(round);
      state(round, Model());
    }
  } catch (const std::exception&) {
    // A crash makes every later file call fail: the run ends here.
  }
}

bool PackageCrashWorkload::Change(IDataStreamSet& package, std::mt19937& random, int round) {
  const int changes = 1 + static_cast<int>(random() % (compactions_ ? 8 : 3));
  for (int c = 0; c < changes; ++c) {
    const std::uint32_t kind = random() % 10;
    if (kind < 5 || streams_.empty()) {
      const std::uint64_t size = random() % 30000;
      const std::uint64_t id = package.CreateStream(size);
      if (id == IDataStreamSet::kNoStream) return false;
      streams_[id] = PackageTesting::Bytes(size, static_cast<std::uint32_t>(random()));
      if (size != 0 && !PackageTesting::WriteAll(package.OpenStream(id), streams_[id])) return false;
    } else {
      auto victim = streams_.begin();
      std::advance(victim, static_cast<std::ptrdiff_t>(random() % streams_.size()));
      if (kind < 8) {
        victim->second = PackageTesting::Bytes(victim->second.size(), static_cast<std::uint32_t>(random()));
        if (!victim->second.empty() && !PackageTesting::WriteAll(package.OpenStream(victim->first), victim->second)) {
          return false;
        }
      } else {
        if (!package.RemoveStream(victim->first)) return false;
        streams_.erase(victim);
      }
    }
  }
  userData_ = PackageTesting::Bytes(8 + random() % 300, static_cast<std::uint32_t>(random()));
  LittleEndian::Store64(userData_.data(), static_cast<std::uint64_t>(round));
  if (!package.SetUserDataSize(userData_.size())) return false;
  std::copy(userData_.begin(), userData_.end(), package.GetUserData());
  return package.Save();
}

CrashWorkload::State PackageCrashWorkload::Model() const {
  State state;
  for (const auto& stream : streams_) {
    state["stream " + std::to_string(stream.first)] = Digest(stream.second.data(), stream.second.size());
  }
  state["user data"] = Digest(userData_.data(), userData_.size());
  return state;
}

CrashWorkload::State PackageCrashWorkload::Read() {
  RefPtr<IDataStreamSet> package = OpenFilePackage(PackageTesting::Config(path_, kCachePages));
  if (!package) return State{{kUnreadable, 0}};
  State state;
  for (std::uint64_t id : PackageTesting::Identifiers(package)) {
    std::vector<std::uint8_t> bytes;
    try {
      const RefPtr<IDataStream> stream = package->OpenStream(id);
      if (stream) bytes = PackageTesting::ReadAll(stream);
    } catch (const std::exception&) {
      bytes.assign(1, 0xDD);  // a stream that cannot be opened matches no state
    }
    state["stream " + std::to_string(id)] = Digest(bytes.data(), bytes.size());
  }
  const IDataStreamSet& reader = *package;
  state["user data"] = Digest(reader.GetUserData(), static_cast<std::size_t>(reader.GetUserDataSize()));
  return state;
}

}  // namespace Testing
}  // namespace Tovrel
