// The locks of the connector, over the host's critical sections.
//
// Order: `initMutex`, then `tableMutex`, then one proxy's `lock`. The `lock` of
// a proxyMetrics is always taken alone. No lock is entered twice by a thread.
//
// A lock is a pair of fields that its owner keeps side by side: a handle and a
// held flag, which is 1 between startSync and stopSync and serves only to report
// a broken host. Handles are never given back.
// Without a host, mutexes of the C library stand in.
#pragma once

#include "context/vesk_request.h"

// What the host offers. `init` gives null on failure; `enter` may block.
struct LockOperations {
  void* (*init)();
  void (*enter)(void* lock);
  void (*exit)(void* lock);
};

// Puts the host's critical sections in place; null brings the C library's back.
// Call it before the first lock is made. Keeps a reference.
void installLockOperations(const LockOperations* operations);

// In all of these `req` is the caller's record, used for reports, or null.

// Makes a lock. On failure the handle is null, with a log line: startSync and
// stopSync do nothing with it, so it keeps nobody out.
void initSync(vesk_request* req, void** lock, std::int32_t* held);
// Enters. Blocks until the lock is free.
void startSync(vesk_request* req, void** lock, std::int32_t* held);
// Leaves. REQUIRES: this thread has entered the lock.
void stopSync(vesk_request* req, void** lock, std::int32_t* held);
// Whether some thread is inside at this moment, as a hint: it may have left by the time
// that the caller knows.
[[nodiscard]] bool isSyncHeld(const std::int32_t* held);
// Does nothing: a host's critical section is never given back.
void freeSync(vesk_request* req, void** lock, std::int32_t* held);

// Holds a lock until the end of its scope. For locals only.
struct SyncGuard {
  SyncGuard(vesk_request* owner, void** handle, std::int32_t* flag)
      : req(owner), lock(handle), held(flag) {
    startSync(req, lock, held);
  }
  ~SyncGuard() {
    stopSync(req, lock, held);
  }
  SyncGuard(const SyncGuard&) = delete;
  SyncGuard& operator=(const SyncGuard&) = delete;

  vesk_request* req;
  void** lock;
  std::int32_t* held;
};
