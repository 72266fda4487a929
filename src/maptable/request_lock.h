// Holds `tableMutex` on the road of a request, for a scope.
//
// A request that finds the table taken is counted on the board with the time that it
// waits, and with those that an event line tells of (held_requests.h). One that comes
// between the look and the taking of another isn't counted. A free table costs one
// relaxed load more than the lock itself.
#pragma once

#include "context/held_requests.h"
#include "context/vesk_mutex.h"
#include "maptable/vesk_maptable_impl.h"

struct RequestLock {
  RequestLock(mappingsTable* owner, vesk_request* req)
      : table(owner), waiting(req, !owner->queue) {
    if (isSyncHeld(&table->tableMutexHeld))
      waitForTable(table, req);
    else
      startSync(req, &table->tableMutex, &table->tableMutexHeld);
    waiting.pass();
  }
  ~RequestLock() {
    stopSync(waiting.req, &table->tableMutex, &table->tableMutexHeld);
  }
  RequestLock(const RequestLock&) = delete;
  RequestLock& operator=(const RequestLock&) = delete;

  static void waitForTable(mappingsTable* table, vesk_request* req);

  mappingsTable* table;
  WaitingRequest waiting;
};
