// PendingEffect: an effect cached (or fetched from the remote store) and
// not yet saved, as the effect cache holds it in memory, and the map of
// them by name that a cache keeps.
//
// A plain value, owned by the map that holds it. Thread-safety: none of
// its own; its holder's lock covers it.
#ifndef TOVREL_EFFECTCACHE_PENDINGEFFECT_H
#define TOVREL_EFFECTCACHE_PENDINGEFFECT_H

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "effectcache/EffectNameOrder.h"
#include "host/Tab.h"

namespace Tovrel {

struct PendingEffect {
  // Invariant: 1 to 1 MiB bytes, the effect as the host gave it; or, only
  // while the background save that compressed it holds the cache's lock,
  // none, its bytes held by that save's queue (see heldSize).
  Tab<unsigned char> bytes;
  // With `bytes` empty: the effect's size, its bytes in the background
  // save's queue (EffectSaveQueue::FinishInto gives them back); 0 otherwise.
  std::uint64_t heldSize = 0;
  std::uint32_t permanent = 0;
  bool fromRemote = false;  // fetched from the remote store: never PUT back
  bool pushed = false;      // PUT already (a read-only file keeps it pending)
  // Its compressed bytes when they are known before the save (as they came
  // from the remote store, or as the background save compressed them):
  // stored as they are, not compressed again; empty otherwise.
  std::vector<std::uint8_t> compressed;
  // How long making `compressed` took, for the profile (0 when it came so).
  std::uint32_t compressMilliseconds = 0;
  // What it adds to the file, as its holder estimates it (see
  // EffectSaveQueue); 0 where the holder keeps a total instead.
  std::uint64_t fileBytes = 0;

  // The effect's size in bytes, wherever they are held.
  std::uint64_t Size() const { return bytes.Count() != 0 ? static_cast<std::uint64_t>(bytes.Count()) : heldSize; }
};

// Pending effects by name (UTF-8), in the order of the file's index.
using PendingMap = std::map<std::string, PendingEffect, EffectNameOrder>;

// Moves every effect of `from` into `into`, where one of `from` replaces
// one of the same name. Allocates nothing (the map's nodes move).
void MovePendingEffects(PendingMap& from, PendingMap& into);

}  // namespace Tovrel

#endif
