// One request from its mapping to a response, with failover.
//
//   Choosing ---- no server ---------------------> ended with an error page
//      |  ^  `--- none that hasn't failed --------> ended without a page
//      |  +------ failed, another may be tried --+
//      v                                         |
//   Forwarding ---------------------------------+---> failed: ended without a page
//      |
//      +--------- served ------------------------> cluster update, ended
//
// In a cluster an attempt that fails writes no page, because another may follow.
//
// Ownership: all that one request needs lies on its stack; the servers are the table's.
// Threads: any. tableMutex is taken to choose a server, to remove one, and for a
// cluster update behind the response; never while a server serves the request.
// Failure: the result; lastError holds the reason of the last attempt.
#pragma once

#include "maptable/vesk_maptable_impl.h"

// Serves a request of the mapping at `index`: kRequestServed, kRequestFailed, or
// kRequestNotOurs. A negative index, and one that no mapping has, means that the
// mapping is found here. `extra` goes to the server and may be null. Sets and
// releases `sessionId`; deferError is 0 on return. Blocks.
[[nodiscard]] std::int32_t handleRequestWithIndex(mappingsTable* table, vesk_request* req,
                                                  const char* extra, std::int32_t index);

// The same with the mapping always found here.
[[nodiscard]] std::int32_t handleRequest(mappingsTable* table, vesk_request* req,
                                         const char* extra);
