// UnsavedCounts: the counts of the cache's processes that never saved, in
// a small file of their own beside the cache file.
//
// A process that only finds effects never writes the cache file (saving
// with nothing pending writes nothing), so its hits and misses cannot go
// into the file's statistics block. When such a cache object ends, it
// adds its counts to "norvaneFxoCache.counts" instead, under the file's
// named mutex; `effects stats` adds them to the block's, and zeroing the
// statistics removes the file.
//
// The file, little-endian: "TVCN" (4 bytes), version (4, = 1), then the
// counts as EffectCacheStats holds them, 8 bytes each: hits, misses,
// effects cached, effects trimmed, remote fetches, remote misses, remote
// errors, bytes fetched, bytes sent; last the Adler-32 of the 80 bytes
// before it (4). 84 bytes in all. It is replaced whole (written beside it
// under another name, then renamed over it), so a reader finds the old
// counts or the new ones; a file of any other shape counts as none (and
// is replaced by the next add). The counts are advisory: the file is not
// synced, and a power cut may lose the last add.
//
// Stateless. Thread-safety: every member may be called from any thread;
// adds must be made under the cache file's named mutex.
#ifndef TOVREL_EFFECTCACHE_UNSAVEDCOUNTS_H
#define TOVREL_EFFECTCACHE_UNSAVEDCOUNTS_H

#include <cstdint>
#include <string>

#include "effectcache/EffectCacheStats.h"

namespace Tovrel {

class UnsavedCounts {
 public:
  static constexpr const wchar_t* kFileName = L"norvaneFxoCache.counts";
  static constexpr std::uint64_t kFileSize = 84;

  // The counts file beside a cache file (same folder, kFileName).
  static std::wstring PathFor(const std::wstring& cacheFilePath);
  // The counts in the file; false (and `counts` all zero) when there is
  // no file or it is not of this shape.
  static bool Read(const std::wstring& path, EffectCacheStats* counts);
  // Adds `counts` (their zeroed time is not kept) to the file's, making
  // the file when there is none; false when it could not be written (the
  // file is then as it was).
  static bool Add(const std::wstring& path, const EffectCacheStats& counts);
  // Removes the file; true when there is none afterwards.
  static bool Remove(const std::wstring& path);

  static void Encode(const EffectCacheStats& counts, std::uint8_t* bytes);
  static bool Decode(const std::uint8_t* bytes, std::uint64_t size, EffectCacheStats* counts);
};

}  // namespace Tovrel

#endif
