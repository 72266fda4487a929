// Chooses the page of a request, by the last path segment of its URI, and runs
// it.
//
// Ownership: nothing is kept. Threads: that of the connection; it blocks for as
// long as the page does.
// Errors: BadRequest of a page becomes a page with status 400; what Exchange
// throws passes through, and ends the connection.
#pragma once

#include "backend/server.h"
#include "backend/wire/connection.h"
#include "backend/wire/exchange.h"
#include "backend/wire/request.h"

namespace backend {

void servePage(Server& server, const Connection& connection,
               const ServiceRequest& request, Exchange& exchange);

}  // namespace backend
