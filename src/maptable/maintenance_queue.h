// What requests leave for the connector's own thread, and how they wait for it.
//
// With the guard `stall` no request talks to a server for the table's sake: it notes here
// what is to be done, wakes the thread, and goes on. Only while the table has never been
// filled a request waits, for one attempt and no longer than kMostWait.
//
// Ownership: the queue is the table's from openQueue to closeQueue.
// Threads: any; the queue has a mutex of its own, which is taken alone and held for field
// work only. Failure: as the functions say. Units: milliseconds.
#pragma once

#include <pthread.h>

#include "maptable/vesk_maptable_impl.h"

// The longest that a request waits for the table to be filled.
constexpr std::int32_t kMostWait = 500;

// Guarded by `mutex`.
struct maintenanceQueue {
  pthread_mutex_t mutex;
  pthread_cond_t wake;       // the thread waits here
  pthread_cond_t concluded;  // requests wait here for the end of an attempt to fill
  bool woken;
  bool stopping;
  bool revive;          // a mapping has no server left: ask those that it had
  veskProxy* newsFrom;  // who has sent the number below; null: nobody
  std::int32_t newsSequence;
  std::int64_t attempts;     // to fill the table, that have come to an end
  bool attempting;           // one is under way
  std::int64_t nextAttempt;  // in ticks: no other is made before
  // The thread's own; seconds since the epoch.
  std::int64_t lastRevival;
  std::int64_t lastNews;
};

// What the thread finds when it looks.
struct MaintenanceWork {
  bool stopping;
  bool revive;
  veskProxy* newsFrom;
  std::int32_t newsSequence;
};

// Makes the table's queue: 0, or -1 without memory.
[[nodiscard]] std::int32_t openQueue(mappingsTable* table, vesk_request* req);
// Frees it. No other thread may know the table any more.
void closeQueue(mappingsTable* table, vesk_request* req);

// For requests. REQUIRES: the table has a queue.

// 0 when the table is filled, else -1 after the attempt that is under way or due, or
// after kMostWait.
[[nodiscard]] std::int32_t awaitTable(mappingsTable* table, vesk_request* req);
// A reply has brought a number of the cluster's list.
void leaveNews(mappingsTable* table, veskProxy* proxy, std::int32_t sequence);
// A mapping has no server that could serve.
void askForRevival(mappingsTable* table);

// For the thread.

// Takes what there is, after waiting until something is, for `limit` at most.
[[nodiscard]] MaintenanceWork takeWork(mappingsTable* table, std::int32_t limit);
// Around an attempt to fill the table: whether one is due, and its end.
[[nodiscard]] bool beginAttempt(mappingsTable* table, vesk_request* req);
void endAttempt(mappingsTable* table, vesk_request* req);
// The table can serve, though its attempt may go on: lets those go that wait for it.
void noteFilled(mappingsTable* table);
// Has the thread stop.
void askToStop(mappingsTable* table);
