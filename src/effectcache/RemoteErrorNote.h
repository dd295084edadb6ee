// RemoteErrorNote: the last failure of a cache's remote store, kept in a
// small file of its own beside the cache file, so that `effects stats`
// can tell why the store's errors were counted.
//
// A cache object whose store failed writes the note when it next saves
// and when it ends, under the file's named mutex; the newest failure of
// any process replaces the note. Zeroing the statistics removes it.
//
// The file "norvaneFxoCache.remote-error", little-endian: "TVRE" (4
// bytes), version (4, = 1), the time of the failure (16, a UTC
// CacheTimeStamp), the message's length (4, at most kMessageLimit), the
// message (UTF-8, the URL without credentials), then the Adler-32 of
// every byte before it (4). Replaced whole (SideFile); a file of any other
// shape counts as no note. Advisory: not synced.
//
// Plain value. Thread-safety: the static members may be called from any
// thread; Write under the cache file's named mutex.
#ifndef TOVREL_EFFECTCACHE_REMOTEERRORNOTE_H
#define TOVREL_EFFECTCACHE_REMOTEERRORNOTE_H

#include <cstdint>
#include <string>
#include <vector>

#include "effectcache/CacheTimeStamp.h"

namespace Tovrel {

struct RemoteErrorNote {
  static constexpr const wchar_t* kFileName = L"norvaneFxoCache.remote-error";
  static constexpr std::uint32_t kMessageLimit = 1024;

  CacheTimeStamp time{};
  std::string message;  // empty: no failure noted

  // The note's file beside a cache file.
  static std::wstring PathFor(const std::wstring& cacheFilePath);
  // The note in the file; false (and `note` empty) when there is none or
  // it is not of this shape.
  static bool Read(const std::wstring& path, RemoteErrorNote* note);
  // Replaces the file with `note` (a longer message is cut at a character
  // boundary); false when it could not be written.
  static bool Write(const std::wstring& path, const RemoteErrorNote& note);
  // Removes the file; true when there is none afterwards.
  static bool Remove(const std::wstring& path);

  std::vector<std::uint8_t> Encode() const;
  static bool Decode(const std::uint8_t* bytes, std::uint64_t size, RemoteErrorNote* note);
};

}  // namespace Tovrel

#endif
