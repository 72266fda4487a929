// Holds a mutex of the connector's own for as long as a block lasts: one that no web
// server's critical section stands behind, and under which nothing waits.
//
// Ownership: the mutex is the caller's and outlives the guard. Threads: any. Failure:
// none; the mutex has no kind that could refuse.
#pragma once

#include <pthread.h>

struct MutexGuard {
  explicit MutexGuard(pthread_mutex_t* held) : mutex(held) {
    (void)pthread_mutex_lock(mutex);
  }
  ~MutexGuard() {
    (void)pthread_mutex_unlock(mutex);
  }
  MutexGuard(const MutexGuard&) = delete;
  MutexGuard& operator=(const MutexGuard&) = delete;

  pthread_mutex_t* mutex;
};
