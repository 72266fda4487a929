// The property sets by which a server describes itself.
//
// Sets: "server-props" (how this server is to be treated), "servlet-mappings"
// (the patterns it serves), "clustered-servers" (the servers of its cluster).
// Ownership: a table that comes back is the caller's.
// Threads: any; only the pool of the proxy is shared, and its `lock` is taken
// inside that. Blocks on the network, whatever lock the caller holds.
// Failure: null, with lastError of the request; a set counts only when it is whole.
#pragma once

#include "proxy/vesk_proxy.h"

// The set that lists the servers of a cluster, one "<ip>:<port>" a value.
constexpr char kClusterSet[] = "clustered-servers";

// The `fetchProps` operation: a new table from permMalloc that the caller frees
// with freeProperties, or null. Null is no failure of the connection when the
// server finished without a set; else lastError holds the reason. `sequence` may
// be null; it gets the number of the cluster's list, or -1.
[[nodiscard]] propertyTable* fetchProps(vesk_request* req, veskProxy* proxy,
                                        const char* set, std::int32_t* sequence);
