// The life of one request: its head, the stages, and what ends it.
//
// Threads: any number of worker threads at once, one request each.
#pragma once

#include "embedded/http_exchange.h"

namespace host {

// Serves the request that CivetWeb has read on a connection. Gives the status
// of the response.
int serveRequest(ServerState* server, mg_connection* connection);

}  // namespace host
