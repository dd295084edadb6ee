#include "platform/ReaderWriterLock.h"

#include <pthread.h>

#include <cerrno>
#include <cstdlib>

namespace Tovrel {

namespace {

pthread_rwlock_t* Native(unsigned char* storage) { return reinterpret_cast<pthread_rwlock_t*>(storage); }

// A lock the system refused to take or give is a broken program state:
// going on would let readers and a writer meet.
void Check(int result) {
  if (result != 0) std::abort();
}

}  // namespace

static_assert(sizeof(pthread_rwlock_t) <= 64, "the lock fits its storage");

ReaderWriterLock::ReaderWriterLock() : storage_() {
  pthread_rwlockattr_t attributes;
  Check(pthread_rwlockattr_init(&attributes));
#ifdef __GLIBC__
  Check(pthread_rwlockattr_setkind_np(&attributes, PTHREAD_RWLOCK_PREFER_WRITER_NONRECURSIVE_NP));
#endif
  Check(pthread_rwlock_init(Native(storage_), &attributes));
  pthread_rwlockattr_destroy(&attributes);
}

ReaderWriterLock::~ReaderWriterLock() { pthread_rwlock_destroy(Native(storage_)); }

void ReaderWriterLock::lock_shared() { Check(pthread_rwlock_rdlock(Native(storage_))); }

void ReaderWriterLock::unlock_shared() { Check(pthread_rwlock_unlock(Native(storage_))); }

bool ReaderWriterLock::try_lock_shared() {
  const int result = pthread_rwlock_tryrdlock(Native(storage_));
  if (result == EBUSY) return false;
  Check(result);
  return true;
}

void ReaderWriterLock::lock() { Check(pthread_rwlock_wrlock(Native(storage_))); }

void ReaderWriterLock::unlock() { Check(pthread_rwlock_unlock(Native(storage_))); }

}  // namespace Tovrel
