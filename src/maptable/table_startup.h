// How the table is filled: from the bootstrap server, else from the store.
//
// Ownership: addRemoteJvms takes over the list that it is given.
// Threads: any. initTable takes initMutex and, for the store, tableMutex inside;
// the others say what they need.
// Failure: a server that is down is left out, after its own log lines. Memory that runs
// out for one fails the start-up, and the next call tries again.
#pragma once

#include "maptable/vesk_maptable_impl.h"

// 0 when the table is usable, else -1 with a log line; then the next call tries
// again. Blocks on the servers until the first success, and is cheap since.
// Takes initMutex.
[[nodiscard]] std::int32_t initTable(mappingsTable* table, vesk_request* req);

// The table's operation: initTable, or, where a thread of the connector's own fills the
// table, a wait for that of half a second at most.
[[nodiscard]] std::int32_t initOrAwaitTable(mappingsTable* table, vesk_request* req);

// Joins the servers that are the values of a table, which it frees, and writes
// the store: the number of new ones. Known ones are activated. Nothing leaves. -1 when
// memory ran out for one; then the others have joined, and the store stays as it was.
// `lock` 1: tableMutex is taken here; 0: the caller holds it, or initMutex.
std::int32_t addRemoteJvms(mappingsTable* table, vesk_request* req,
                           propertyTable* servers, std::uint32_t lock);

// Asks the bootstrap server for the cluster's list and joins it: the number of new
// servers, or -1 when memory ran out for one. `lock` as above.
[[nodiscard]] std::int32_t retrieveServersFromBootstrapServer(mappingsTable* table,
                                                              vesk_request* req,
                                                              std::uint32_t lock);

// Joins the servers of the store and writes it back: the number of new servers, or -1
// when memory ran out, for the list or for one of them. Blocks on the file and on the
// servers. REQUIRES: initMutex. Takes tableMutex.
[[nodiscard]] std::int32_t loadServersFromStore(mappingsTable* table, vesk_request* req);
