// MultiProcessTimeStamp: a stamp shared between processes that one of them
// renews after changing something they share (the effect cache's file), and
// that the others compare with their own copy to learn that they must
// reload.
//
// The shared block holds one TimeStampValue. The process that creates the
// block puts a fresh stamp into it; a process that attaches copies it, so it
// starts level and sees no change until another process renews the stamp.
// After UpdateTimeStamp in one process, IsChanged answers false there and,
// in every other attached process, true once and then false again.
// IsChanged and UpdateTimeStamp do nothing to the block before Initialize
// (IsChanged answers false). A mutex that a process dying with it left
// abandoned is taken again, so that no news and no renewal is lost to it.
//
// Ownership: as MultiProcessMemory. Thread-safety: the local copy is not
// locked; one object is used by one thread at a time.
#ifndef TOVREL_MULTIPROCESSTIMESTAMP_H
#define TOVREL_MULTIPROCESSTIMESTAMP_H

#include "tovrel/MultiProcessMemory.h"
#include "tovrel/TimeStampValue.h"
#include "tovrel/export.h"

namespace Tovrel {

class TOVREL_API MultiProcessTimeStamp : public MultiProcessMemory {
 public:
  MultiProcessTimeStamp();
  ~MultiProcessTimeStamp() override;

  // Opens or creates the 24-byte block `name`; see MultiProcessMemory.
  bool Initialize(const wchar_t* name);
  // True when the block differs from the local copy, which then takes the
  // block's value (so the next call answers false unless it changes again).
  bool IsChanged();
  // Makes a fresh stamp into the local copy and writes it to the block.
  void UpdateTimeStamp();

 protected:
  void OnMemoryCreated(void* memory) override;
  void OnMemoryAttached(void* memory) override;

 private:
  void MakeFreshStamp();

  TimeStampValue stamp_;  // this process's copy; zero until Initialize
};

}  // namespace Tovrel

#endif
