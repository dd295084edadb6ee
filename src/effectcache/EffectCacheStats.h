// EffectCacheStats: the cache's hit statistics, counted across processes
// and runs, in a user-data block of their own beside the header block.
//
// Block tag 20261124, payload 56 bytes, little-endian: version (4, = 1),
// reserved (4, written as 0), searches that hit (8), searches that missed
// (8), effects cached (8), effects trimmed (8), and the time (UTC) the
// counts were last zeroed (16, a CacheTimeStamp). A cache counts in memory
// and adds its counts to the block at each save, under the file's mutex;
// readers that know only the header block pass over it.
//
// What a remote store did for the cache's processes goes in a second block,
// written only once there is something to count (so a cache without a
// remote store never has one): tag 20261125, payload 48 bytes: version
// (4, = 1), reserved (4, 0), effects fetched (8), names the store did not
// hold (8), failed or refused requests (8), bytes fetched (8), bytes sent
// (8). It is zeroed with the counts of the first block.
// Plain value.
#ifndef TOVREL_EFFECTCACHE_EFFECTCACHESTATS_H
#define TOVREL_EFFECTCACHE_EFFECTCACHESTATS_H

#include <cstdint>

#include "effectcache/CacheTimeStamp.h"
#include "tovrel/IDataStreamSet.h"

namespace Tovrel {

struct EffectCacheStats {
  static constexpr std::uint32_t kTag = 20261124;
  static constexpr std::uint32_t kVersion = 1;
  static constexpr std::uint64_t kPayloadSize = 56;
  static constexpr std::uint32_t kRemoteTag = 20261125;
  static constexpr std::uint64_t kRemotePayloadSize = 48;

  std::uint64_t hits = 0;
  std::uint64_t misses = 0;
  std::uint64_t cached = 0;
  std::uint64_t trimmed = 0;
  CacheTimeStamp zeroed{};  // all zero: never zeroed (counting since the block was made)
  // The remote store's work (the second block).
  std::uint64_t remoteHits = 0;
  std::uint64_t remoteMisses = 0;
  std::uint64_t remoteErrors = 0;
  std::uint64_t remoteBytesIn = 0;
  std::uint64_t remoteBytesOut = 0;

  bool AnyRemoteCounts() const {
    return remoteHits != 0 || remoteMisses != 0 || remoteErrors != 0 || remoteBytesIn != 0 || remoteBytesOut != 0;
  }
  bool AnyCounts() const { return hits != 0 || misses != 0 || cached != 0 || trimmed != 0 || AnyRemoteCounts(); }
  void AddCounts(const EffectCacheStats& more);

  void Encode(std::uint8_t* payload) const;
  static EffectCacheStats Decode(const std::uint8_t* payload);

  // The package's block: false (out untouched) when there is none, or it
  // is shorter than 56 bytes or of another version. The remote counts are
  // read from the second block when it is there and of this shape, else 0.
  static bool Read(const IDataStreamSet& package, EffectCacheStats& out);
  // True when the package holds a remote block this library reads.
  static bool HasRemoteBlock(const IDataStreamSet& package);
  // Adds `counts` to the package's block, making the block (zeroed at
  // `now`) when there is none; `reset` first zeroes the block's counts and
  // sets its time to `now`. False when the block cannot be written (the
  // user data cannot grow, or a block of this tag is of another shape).
  static bool AddTo(IDataStreamSet& package, const EffectCacheStats& counts, const CacheTimeStamp& now, bool reset);

 private:
  static bool WriteRemote(IDataStreamSet& package, const EffectCacheStats& stats);
};

}  // namespace Tovrel

#endif
