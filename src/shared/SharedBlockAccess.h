// SharedBlockAccess: opens and locks a named shared block (a
// MultiProcessMemory) although a process died holding the block's mutex.
//
// Windows tells the next process that takes such a mutex that it was
// abandoned, once; that process owns it then. MultiProcessMemory answers
// the report as its contract says: Initialize throws
// Win32APICallFailedException (and lets the mutex go), Lock gives no
// address. A host started after another host was killed in the middle of
// renewing a stamp would so find its cache unusable until its next try to
// open, and a stamp's news or renewal would be lost to the report. The
// block is as the dead holder left it: a stamp it was writing is new to
// everyone (they reload once), a counter is written whole or not at all.
// So the first such failure is answered by a second try, which finds the
// mutex as any other.
//
// Stateless. Thread-safety: as the MultiProcessMemory calls it makes.
#ifndef TOVREL_SHARED_SHAREDBLOCKACCESS_H
#define TOVREL_SHARED_SHAREDBLOCKACCESS_H

#include "pagefile/Win32APICallFailedException.h"
#include "tovrel/MultiProcessMemory.h"

namespace Tovrel {

class SharedBlockAccess {
 public:
  // `initialize()` (a MultiProcessMemory's Initialize) once, and once more
  // when it threw Win32APICallFailedException; its result. Any failure of
  // the second try leaves.
  template <typename Initialize>
  static bool Open(Initialize initialize) {
    try {
      return initialize();
    } catch (const Win32APICallFailedException&) {
    }
    return initialize();
  }

  // block.Lock(kInfinite), taken once more when it reports an abandoned
  // mutex: the block's address, null only before Initialize. Pair with
  // block.Unlock().
  static void* Lock(MultiProcessMemory& block) {
    void* address = block.Lock(MultiProcessMemory::kInfinite);
    if (address == nullptr) {
      block.Unlock();  // owned all the same, when it was abandoned; nothing before Initialize
      address = block.Lock(MultiProcessMemory::kInfinite);
    }
    return address;
  }
};

}  // namespace Tovrel

#endif
