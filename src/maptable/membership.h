// Servers join the table, leave it, come back, and change what they serve.
//
// Nothing is ever taken out: a server that leaves keeps its entries with their
// flags cleared, and returns by addProxy.
//
//   event                          masterList   its lists   active of the proxy
//   addProxy                            1           1               1
//   marked unreachable by the pool      1           1               0
//   removeProxy                         0           0               0
//
// A call writes at most ten lines of a kind, and one that counts the rest.
//
// Ownership: a proxy that addProxy has put into masterList belongs to the table.
// Threads: any. `lock` 1: tableMutex is taken here; 0: the caller holds it. Both
// ways the proxy's own `lock` is taken inside.
// Failure: what doesn't fit is left out and logged. A call that runs out of memory for
// a new mapping changes nothing, so that the old state serves on and the next occasion
// tries again; lastError is ENOBUFS then.
// Blocking: nothing here waits for a server; removeProxy closes idle sockets.
#pragma once

#include "maptable/vesk_maptable_impl.h"

// Joins a server that initProxy has set up, or brings one back: 0, or -1 when it can't;
// then it stays the caller's, if it is new. That is when memory runs out, or, with a
// log line, when masterList is full; see hasRoomForServer.
[[nodiscard]] std::int32_t addProxy(mappingsTable* table, veskProxy* proxy,
                                    vesk_request* req, std::uint32_t lock);

// Takes a server out of service, closes its idle connections and clears
// clusterSeq, so that the next reply brings the whole membership anew.
void removeProxy(mappingsTable* table, veskProxy* proxy, vesk_request* req,
                 std::uint32_t lock);

// Brings the table in line with mappings that refreshMappings has just installed. When
// memory runs out the next refresh makes up for it; one is asked for if none is due.
void updateProxy(mappingsTable* table, veskProxy* proxy, vesk_request* req,
                 std::uint32_t lock);

// Index in masterList of the first server of that name, in service or not, or -1.
// Of a longer text the part counts that fits a proxy's name. REQUIRES: tableMutex.
[[nodiscard]] std::int32_t hasProxyNamed(const mappingsTable* table, const char* name);

// Whether masterList takes one more server. REQUIRES: tableMutex.
[[nodiscard]] bool hasRoomForServer(const mappingsTable* table);

// Whether a server text names this proxy: equal to its name, but for what of a
// long text didn't fit into that.
[[nodiscard]] bool isProxyNamed(const veskProxy* proxy, const char* text);
