// A guard that holds a POSIX mutex for its lifetime. The daemon's mutexes are
// plain pthread mutexes (statically initialised, so they exist from process
// start); this is how code takes them.
#ifndef WATCHDOGD_CORE_WD_LOCK_H
#define WATCHDOGD_CORE_WD_LOCK_H

#include <pthread.h>

class wdLock {
 public:
  explicit wdLock(pthread_mutex_t* mutex) : mutex_(mutex) { pthread_mutex_lock(mutex_); }
  ~wdLock() { pthread_mutex_unlock(mutex_); }
  wdLock(const wdLock&) = delete;
  wdLock& operator=(const wdLock&) = delete;

 private:
  pthread_mutex_t* mutex_;
};

#endif  // WATCHDOGD_CORE_WD_LOCK_H
