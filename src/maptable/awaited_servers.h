// The servers that the cluster's list names and that couldn't join: who is awaited, and
// when the next attempt is due.
//
// With the guard `comeback` a name that can't be reached, or is no address at all, costs
// one attempt a pause, whoever brings the list, and the list's number can be adopted
// without it.
//
// Ownership: the records are the table's own.
// Threads: REQUIRES tableMutex, or initMutex while the table is first filled.
// Failure: a list that is full takes no further name, which is then tried with every
// list. Units: seconds since the epoch.
#pragma once

#include "maptable/vesk_maptable_impl.h"

// Enters a name, or puts off one that stands there already: its next attempt is due after
// a pause. Whether it stands there now.
[[nodiscard]] bool awaitServer(mappingsTable* table, vesk_request* req, const char* name);

// Whether a name is awaited and its next attempt not yet due.
[[nodiscard]] bool isAwaitedLater(const mappingsTable* table, vesk_request* req,
                                  const char* name);

// Takes a name off the list: it has joined.
void forgetAwaited(mappingsTable* table, const char* name);

// Takes every name off that the cluster's list doesn't hold any more.
void keepAwaited(mappingsTable* table, const propertyTable* servers);

// Copies the name of one whose attempt was due at `now` to `name`, of kProxyNameSize
// bytes: true, or false when none was.
[[nodiscard]] bool nextAwaited(const mappingsTable* table, std::int64_t now, char* name);
