// The daemon's mutexes and the guard that holds one for its lifetime.
//
// The mutexes are plain pthread mutexes (statically initialised, so they exist
// from process start), declared with the type wdMutex so that clang's
// thread-safety analysis (-Wthread-safety) knows them as locks; wdLock is how
// code takes them. The WD_ macros below tell the analysis which lock guards
// which data and which functions need or take which lock; with any other
// compiler they are empty and wdMutex is pthread_mutex_t itself.
#ifndef WATCHDOGD_CORE_WD_LOCK_H
#define WATCHDOGD_CORE_WD_LOCK_H

#include <pthread.h>

#if defined(__clang__)
#define WD_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define WD_THREAD_ANNOTATION(x)
#endif

// On a type: objects of it are locks.
#define WD_CAPABILITY(name) WD_THREAD_ANNOTATION(capability(name))
// On a class: an object holds a lock from its construction to its end.
#define WD_SCOPED_CAPABILITY WD_THREAD_ANNOTATION(scoped_lockable)
// On data: read and written only with the lock held.
#define WD_GUARDED_BY(lock) WD_THREAD_ANNOTATION(guarded_by(lock))
// On a pointer: what it points to is read and written only with the lock held.
#define WD_PT_GUARDED_BY(lock) WD_THREAD_ANNOTATION(pt_guarded_by(lock))
// On a lock: the order in which locks are taken (documents; checked only by
// clang's -Wthread-safety-beta).
#define WD_ACQUIRED_BEFORE(...) WD_THREAD_ANNOTATION(acquired_before(__VA_ARGS__))
// On a function: the caller holds the lock.
#define WD_REQUIRES(...) WD_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
// On a function: it takes the lock itself, so the caller must not hold it.
#define WD_EXCLUDES(...) WD_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))
#define WD_ACQUIRE(...) WD_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define WD_RELEASE(...) WD_THREAD_ANNOTATION(release_capability(__VA_ARGS__))
// On a function the analysis cannot follow; each use says why it is safe.
#define WD_NO_THREAD_SAFETY_ANALYSIS WD_THREAD_ANNOTATION(no_thread_safety_analysis)

typedef pthread_mutex_t wdMutex WD_CAPABILITY("mutex");

class WD_SCOPED_CAPABILITY wdLock {
 public:
  explicit wdLock(wdMutex* mutex) WD_ACQUIRE(*mutex) : mutex_(mutex) { pthread_mutex_lock(mutex_); }
  ~wdLock() WD_RELEASE() { pthread_mutex_unlock(mutex_); }
  wdLock(const wdLock&) = delete;
  wdLock& operator=(const wdLock&) = delete;

 private:
  wdMutex* mutex_;
};

#endif  // WATCHDOGD_CORE_WD_LOCK_H
