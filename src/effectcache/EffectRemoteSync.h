// EffectRemoteSync: moves effects between a cache folder and a remote
// store in bulk, for the people who look after caches: push every effect
// of a folder to the store (a team tier filled from one workstation's
// cache), or pull named effects from it into a folder.
//
// A push reads the folder's cache read-only under its named mutex, in
// batches of at most 16 MiB of compressed bytes (the mutex is let go
// before any request), and PUTs each effect's compressed bytes as stored,
// without recompressing them. A pull fetches each name (or every object
// the server's listings name), checks it as a search does, and stores what
// came in saves under the folder's mutex (a folder without a cache gets
// one). Both keep `jobs` requests in flight (8 by default: a store that
// answers in 20 ms takes 8 effects per 20 ms rather than one), stop asking
// a store that failed (it rests, see EffectRemoteStore) and say how many
// effects were left over.
//
// Stateless; every call makes its own objects, so calls may come from any
// thread. The progress callback is called by one thread at a time, not
// always the caller's.
#ifndef TOVREL_EFFECTCACHE_EFFECTREMOTESYNC_H
#define TOVREL_EFFECTCACHE_EFFECTREMOTESYNC_H

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "effectcache/EffectRemoteStore.h"
#include "host/WStr.h"

namespace Tovrel {

class EffectRemoteSync {
 public:
  struct Result {
    bool ok = false;             // false: the folder's cache could not be read (push) or saved (pull)
    std::uint64_t moved = 0;     // effects PUT (push) or fetched and stored (pull)
    std::uint64_t bytes = 0;     // bytes of the objects moved
    std::uint64_t absent = 0;    // names the store does not hold (pull)
    std::uint64_t failed = 0;    // effects left over: requests that failed or were not made
    bool noListing = false;      // PullAll: the store offers no listing of its objects
    bool listingCut = false;     // PullAll: the listings named more than EffectRemoteStore::kKeyLimit objects
    EffectRemoteStore::Counts counts;  // what the store saw
    std::string lastError;             // the store's last failure in words; empty when none
  };
  // Told how many of the effects are done, of how many.
  using Progress = std::function<void(std::uint64_t done, std::uint64_t total)>;

  // Requests in flight by default, and at most.
  static constexpr unsigned kDefaultJobs = 8;
  static constexpr unsigned kMostJobs = 64;

  static Result Push(const WStr& folder, const EffectRemoteStore::Settings& store, const Progress& progress,
                     unsigned jobs = kDefaultJobs);
  // `names` in UTF-8.
  static Result Pull(const WStr& folder, const EffectRemoteStore::Settings& store,
                     const std::vector<std::string>& names, const Progress& progress, unsigned jobs = kDefaultJobs);
  // Every object the store's listings name (see EffectRemoteStore::ListKeys).
  static Result PullAll(const WStr& folder, const EffectRemoteStore::Settings& store, const Progress& progress,
                        unsigned jobs = kDefaultJobs);

 private:
  // Fetches the i-th effect: its name, bytes and permanence, and whether
  // the store said it holds none.
  using Fetcher = std::function<bool(std::size_t i, std::string* name, Tab<unsigned char>& data, bool* permanent,
                                     bool* absent)>;
  static Result PullEach(const WStr& folder, EffectRemoteStore& remote, std::size_t count, const Progress& progress,
                         unsigned jobs, const Fetcher& fetch);
};

}  // namespace Tovrel

#endif
