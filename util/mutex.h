// A lock whose rules the compiler checks: clang (dev/lint) refuses code that touches what a lock guards without it.
//
//   Mutex mutex;
//   int count GUARDED_BY(mutex) = 0;
//   void add_one() REQUIRES(mutex);      the caller has the lock
//   ...
//   const MutexLock lock(mutex);
#pragma once

#include <mutex>

#if defined(__clang__)
#define ZELVIND_LOCK_RULE(rule) __attribute__((rule))
#else
#define ZELVIND_LOCK_RULE(rule)
#endif
#define GUARDED_BY(lock) ZELVIND_LOCK_RULE(guarded_by(lock))
#define REQUIRES(...) ZELVIND_LOCK_RULE(requires_capability(__VA_ARGS__))

// std::mutex under a name that clang's checks know. Any thread.
class ZELVIND_LOCK_RULE(capability("mutex")) Mutex {
 public:
  void lock() ZELVIND_LOCK_RULE(acquire_capability()) { mutex.lock(); }
  void unlock() ZELVIND_LOCK_RULE(release_capability()) { mutex.unlock(); }

 private:
  std::mutex mutex;
};

// Holds the lock until destroyed; unlock() and lock() release it for a while, for instance around a wait.
class ZELVIND_LOCK_RULE(scoped_lockable) MutexLock {
 public:
  explicit MutexLock(Mutex& mutex) ZELVIND_LOCK_RULE(acquire_capability(mutex)) : guard(mutex) {}
  ~MutexLock() ZELVIND_LOCK_RULE(release_capability()) = default;
  MutexLock(const MutexLock&) = delete;
  MutexLock& operator=(const MutexLock&) = delete;
  void lock() ZELVIND_LOCK_RULE(acquire_capability()) { guard.lock(); }
  void unlock() ZELVIND_LOCK_RULE(release_capability()) { guard.unlock(); }

 private:
  std::unique_lock<Mutex> guard;
};
