// ReaderWriterLock: a lock of one process that many readers may hold at
// once, or one writer alone, and that does not let a stream of readers
// keep a waiting writer out.
//
// Readers that arrive while a writer waits queue behind it, so a host
// thread that caches an effect is never held off indefinitely by threads
// that search. Not re-entrant: a thread must not take it again, in either
// mode, while it holds it.
//
// POSIX: a pthread read-write lock that prefers writers; Windows: a slim
// reader/writer lock. Owned by its user; must not be held when destroyed.
// Thread-safety: every member may be called from any thread.
#ifndef TOVREL_PLATFORM_READERWRITERLOCK_H
#define TOVREL_PLATFORM_READERWRITERLOCK_H

namespace Tovrel {

class ReaderWriterLock {
 public:
  ReaderWriterLock();
  ~ReaderWriterLock();
  ReaderWriterLock(const ReaderWriterLock&) = delete;
  ReaderWriterLock& operator=(const ReaderWriterLock&) = delete;

  // Shared mode (the names std::shared_lock expects).
  void lock_shared();
  void unlock_shared();
  // Shared mode if it can be had at once; false, holding nothing, while a
  // writer holds the lock or waits for it.
  bool try_lock_shared();
  // Exclusive mode (the names std::unique_lock and std::lock_guard expect).
  void lock();
  void unlock();

 private:
  // The system's lock object, kept in place (it must not move).
  alignas(16) unsigned char storage_[64];
};

}  // namespace Tovrel

#endif
