// What becomes of the session of a request, for the host and its logs: whether the server
// that answered owns it, where it was moved from, and whether a new one has begun.
//
// A session that a server keeps in its URIs alone shows when it comes back with them, not
// when it begins.
//
// Ownership: fields of the record's outcome; a server stays the table's.
// Threads: the request's own; no lock. Failure: none.
#pragma once

#include "proxy/vesk_proxy.h"

// At the begin of each attempt, while the record has its sessionId.
void beginSession(vesk_request* req, const veskProxy* proxy);

// The running attempt has sent this value of a set-cookie header.
void noteSessionCookie(vesk_request* req, const char* cookie);
