// The cluster's own word on who belongs to it.
//
// A reply may carry the number of the cluster's list. When it isn't the one that
// was applied last, the list is fetched from the server that answered: new servers
// join, returning ones are activated, those no longer named leave.
//
// Ownership: the fetched list is freed here; servers that join are the table's.
// Threads: any; tableMutex is taken, and held across the network traffic.
// Failure: traced; the number is then not adopted, so that the next reply tries
// again. The request that brought the news is never affected.
#pragma once

#include "maptable/vesk_maptable_impl.h"

// Brings the table in line with the list behind `sequence`, which `proxy` sent.
// 0 and the number applied last cost no more than a trace line. May block.
// Where a thread of the connector's own runs, that is left to it.
void updateClusteredServers(mappingsTable* table, vesk_request* req, veskProxy* proxy,
                            std::int32_t sequence);

// The same on this thread. `lock` 1: each change takes tableMutex for itself, and no
// server is asked under it; 0: the caller holds it.
void applyClusterNews(mappingsTable* table, vesk_request* req, veskProxy* proxy,
                      std::int32_t sequence, std::uint32_t lock);
