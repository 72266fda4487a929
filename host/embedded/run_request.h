// The life of one request: its head, the stages, and the answer that they end in.
//
// Ownership: the records live on the thread's stack until the response has ended.
// Threads: any number of worker threads at once, one request each.
// Errors: nothing escapes; without memory the connection ends.
#pragma once

#include "embedded/http_exchange.h"

namespace host {

// Serves the request that CivetWeb has read on a connection. Gives the status
// of the response. Blocks until the response has ended.
int runRequest(ServerState* server, mg_connection* connection);

}  // namespace host
