// The one way to tell the browser that a backend failed.
//
// Ownership: nothing is kept, and nothing is the caller's afterwards.
// Threads: the request's own; no lock is taken.
// Failure: not reported. Without memory for the page there is a log line and no
// page; a page that can't be written is lost.
#pragma once

#include "proxy/vesk_proxy.h"

// Sends the error page that lastError asks for, with status 503. While deferError
// is set it only logs, and for EVESK_CLIENT_DOWN it only traces. `proxy` is the
// server of the failed attempt, or null. Leaves lastError alone unless the page
// can't be written. May block on the browser.
void proxyerror(vesk_request* req, veskProxy* proxy);
