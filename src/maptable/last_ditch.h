// The last resort of a mapping in a cluster that has no active server left.
//
// Ownership: nothing changes hands.
// Threads: REQUIRES tableMutex, which is held while servers are asked.
// Failure: -1; the caller answers the browser.
#pragma once

#include "maptable/failed_list.h"
#include "maptable/vesk_maptable_impl.h"

// Looks for a server of a mapping that has none active, or drained ones alone: 0 when one
// was activated after a ping, or brought by the bootstrap server, else -1. Those that
// have failed for this request are not asked. Blocks on the servers, and on the bootstrap
// server, which may add mappings in front of this one. Where a thread of the connector's
// own runs, it is asked to look, and nobody is found now.
[[nodiscard]] std::int32_t lastDitchFindReachableServer(mappingsTable* table,
                                                        vesk_request* req,
                                                        std::int32_t index,
                                                        failedList* failed);
