#include "platform/ReaderWriterLock.h"

#include <windows.h>

namespace Tovrel {

namespace {

SRWLOCK* Native(unsigned char* storage) { return reinterpret_cast<SRWLOCK*>(storage); }

}  // namespace

static_assert(sizeof(SRWLOCK) <= 64, "the lock fits its storage");

ReaderWriterLock::ReaderWriterLock() : storage_() { InitializeSRWLock(Native(storage_)); }

ReaderWriterLock::~ReaderWriterLock() = default;

void ReaderWriterLock::lock_shared() { AcquireSRWLockShared(Native(storage_)); }

void ReaderWriterLock::unlock_shared() { ReleaseSRWLockShared(Native(storage_)); }

bool ReaderWriterLock::try_lock_shared() { return TryAcquireSRWLockShared(Native(storage_)) != 0; }

void ReaderWriterLock::lock() { AcquireSRWLockExclusive(Native(storage_)); }

void ReaderWriterLock::unlock() { ReleaseSRWLockExclusive(Native(storage_)); }

}  // namespace Tovrel
