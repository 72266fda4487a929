// The small file that keeps the last known servers.
//
// Written, it is the one property "proxyservers=", with a ';' behind each name and
// no line end: the servers in service in order of arrival, then the others. The
// bootstrap server is left out. Read, it may be any property file.
//
// Ownership: `storedServers` of the table holds the text last read or written.
// Threads: each function says which lock it needs or takes.
// Failure: one log line per cause; the table goes on with what it has.
#pragma once

#include "maptable/vesk_maptable_impl.h"

// The names in the store, in their order, as the values of a new table, which the
// caller frees: empty when there is no store or nothing in it. Null without memory: half
// a list would be written back as the whole.
// Blocks on the file. REQUIRES: initMutex.
[[nodiscard]] propertyTable* readStoredServers(mappingsTable* table, vesk_request* req);

// Writes the store if its text has changed: 0 when it holds the list or there is
// nothing to write, else -1. A write that hasn't reached the disk has failed, and
// the next call tries it again; store_file.h tells what the file holds by then.
// `lock` 1: tableMutex is taken here, and not held while the file is written; 0: the
// caller holds it, or initMutex while the table is first filled.
std::int32_t persistServers(mappingsTable* table, vesk_request* req, std::uint32_t lock);
